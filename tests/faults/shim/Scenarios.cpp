#include "Scenarios.h"

#include <json/json.h>
#include <sqlite3.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <stdexcept>

#include "support/Device.h"

namespace zav::test {
namespace {

using std::chrono::seconds;

/// For what must come, on a machine that is busy.
constexpr seconds kDeadline{20};
constexpr int kOldRecords = 3;

std::string OldUrl(int index) {
  return "http://old/" + std::to_string(index);
}

/// The "Storage" row of a device that was in use.
std::string OldLog() {
  Json::Value log;
  log["config"]["max_index"] = 2000;
  log["config"]["max_file_size"] = 10;
  log["config"]["max_logging_period"] = 864000;
  log["state"]["count"] = kOldRecords;
  log["state"]["last_index"] = kOldRecords - 1;
  log["state"]["threat"] = kOldRecords;
  for (int index = 0; index < kOldRecords; ++index) {
    Json::Value& record = log[std::to_string(index)];
    record["url"] = OldUrl(index);
    record["threat"] = "threat";
    record["timestamp"] = static_cast<int>(time(nullptr));
  }
  return Json::writeString(Json::StreamWriterBuilder(), log);
}

void Must(bool done, const std::string& what) {
  if (!done) throw std::runtime_error(what);
}

struct Files {
  std::string database;
  std::string journal;
};

/// The database of a device that was in use, made once.
const Files& UsedFiles() {
  static const Files files = [] {
    MakeStorageDirectory();
    SetRow("Service", R"({"restart_delay":30})");
    SetRow("State", R"({"pyx_state":"enabled","logging_state":"enabled"})");
    SetRow("Storage", OldLog());
    return Files{ReadFile(kDatabase), {}};
  }();
  return files;
}

/// The same files in the middle of a transaction that does not fit into the engine's memory.
const Files& CutOffFiles() {
  static const Files files = [] {
    WriteFile(kDatabase, UsedFiles().database);
    sqlite3* raw = nullptr;
    sqlite3_open(kDatabase.c_str(), &raw);
    const std::unique_ptr<sqlite3, decltype(&sqlite3_close)> database(raw, sqlite3_close);
    Must(sqlite3_exec(raw,
                      "PRAGMA journal_mode = PERSIST; PRAGMA cache_size = 2; BEGIN; DELETE FROM PYXPlugin;"
                      "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100)"
                      "INSERT INTO PYXPlugin SELECT 'row' || i, hex(zeroblob(1000)) FROM n",
                      nullptr, nullptr, nullptr) == SQLITE_OK,
         "no transaction to cut off");
    return Files{ReadFile(kDatabase), ReadFile(kJournal)};
  }();
  return files;
}

void AddOldRecords(Session& session) {
  for (int index = 0; index < kOldRecords; ++index) session.acknowledged.push_back(OldUrl(index));
}

void NoteWhatIsOpen(Session& session) {
  session.descriptors = Descriptors();
  session.threads = ThreadIds();
}

void LoadAndServe(Session& session) {
  NoteWhatIsOpen(session);
  Must(session.host.Load(), "the plug-in cannot be loaded before any fault");
  session.host.WaitForService(kDeadline);
}

/// Also makes all that is made on first use.
void LoadAndReport(Session& session) {
  LoadAndServe(session);
  AddOldRecords(session);
  Must(ReportUntilAnswered("http://before", kDeadline) == 0, "no report before any fault");
  session.acknowledged.emplace_back("http://before");
}

void MakeRequest(Session& session, const std::string& bytes) {
  session.report.At("make a request");
  session.request.emplace(bytes);
  session.request->WaitForEnd(session.patience);
}

/// Whether a fault may end an answer in the middle: what sends it fails. Of what is sent by halves a number or a
/// package is given up, and a text is gone on with.
bool MayCutShort(const faults::Fault& fault, const std::string& answer) {
  if (fault.call == faults::Call::kSend) return fault.error != faults::kShort || answer.size() < kBeforeText;
  return fault.call == faults::Call::kGetsockopt;
}

/// The client that asked while calls failed is not left waiting.
void AwaitAnswer(Session& session, std::string (*wrong)(const std::string&)) {
  session.report.At("wait for the answer");
  if (!session.request) return;
  if (!session.request->WaitForEnd(kDeadline)) return session.report.Fail("a client was left waiting");
  const std::string what = wrong(session.request->Answer());
  if (!what.empty() && !(what == kCutShort && MayCutShort(session.fault, session.request->Answer())))
    session.report.Fail(what);
}

void Load(Session& session) {
  session.host.Load();
  session.report.At("wait for the service");
  if (session.host.IsLoaded()) session.host.WaitForService(session.patience);
  MakeRequest(session, StateRequest());
}

void SettleLoading(Session& session) {
  AwaitAnswer(session, WrongInState);
}

void TakeReport(Session& session) {
  MakeRequest(session, ReportOf("http://armed"));
}

void SettleReport(Session& session) {
  AwaitAnswer(session, WrongInReport);
  if (NumberOf(session.request->Answer()) == 0) session.acknowledged.emplace_back("http://armed");
}

void UpdateConfiguration(Session& session) {
  session.reply = session.host.Execute("UpdateConfig",
                                       R"({"Service":{"restart_delay":45},"Storage":{"config":{"max_file_size":12}}})");
  MakeRequest(session, StateRequest());
}

void SettleConfiguration(Session& session) {
  AwaitAnswer(session, WrongInState);
  if (session.reply.find("success") == std::string::npos) return;
  const auto rows = Rows();
  if (rows.at("Service").find("\"restart_delay\":45") == std::string::npos ||
      rows.at("Storage").find("\"max_file_size\":12") == std::string::npos) {
    session.report.Fail("a configuration that was updated with success is not stored");
  }
}

void PrepareDamage(Session& session) {
  LoadAndServe(session);
  // The plug-in reads on: nothing was read but the service's settings.
  std::mt19937 noise(1);
  std::string bytes(std::filesystem::file_size(kDatabase), '\0');
  std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(noise()); });
  std::fstream(kDatabase, std::ios::in | std::ios::out | std::ios::binary) << bytes;
}

void ReadLog(Session& session) {
  MakeRequest(session, LogRequest());
}

/// Where neither the database nor the backup can be read, the defaults stand in for the log.
void SettleReading(Session& session, bool mayFallBack) {
  const std::optional<std::string> records = AskUntilAnswered(kDeadline);
  if (!records) return session.report.Fail("the log cannot be read");
  session.report.fellBack = records->find(OldUrl(0)) == std::string::npos;
  if (!session.report.fellBack) return AddOldRecords(session);
  if (!mayFallBack || session.report.hits == 0) session.report.Fail("the log was taken for lost");
}

/// One fault hits the database or the backup, but not both.
void SettleLoadingOfUsed(Session& session) {
  AwaitAnswer(session, WrongInState);
  if (!session.host.IsLoaded()) Must(session.host.Load(), "the plug-in cannot be loaded any more");
  if (!session.host.IsFinal()) SettleReading(session, session.fault.times > 1);
}

/// The damage is one fault already.
void SettleDamage(Session& session) {
  AwaitAnswer(session, WrongInLog);
  SettleReading(session, true);
}

void SwitchOffAndOn(Session& session) {
  session.host.SetStatus(0);
  const bool isOn = session.host.SetStatus(1) == 0;
  session.report.At("wait for the service");
  if (isOn) session.host.WaitForService(session.patience);
  MakeRequest(session, StateRequest());
}

void SettleSwitching(Session& session) {
  AwaitAnswer(session, WrongInState);
}

/// While a client asks.
void Unload(Session& session) {
  session.request.emplace(StateRequest());
  session.host.Unload();
}

void SettleUnloading(Session& session) {
  AwaitAnswer(session, WrongInState);
  if (Library::IsMapped()) session.report.Fail("the library is not unloaded");
  if (Descriptors() != session.descriptors) session.report.Fail("a descriptor is left after the unloading");
}

}  // namespace

const std::vector<Scenario> kScenarios{
    {"LoadingOnANewDevice", Device::kNew, NoteWhatIsOpen, Load, SettleLoading},
    {"LoadingOnAUsedDevice", Device::kUsed, NoteWhatIsOpen, Load, SettleLoadingOfUsed},
    {"LoadingAfterAPowerLoss", Device::kCutOff, NoteWhatIsOpen, Load, SettleLoadingOfUsed},
    {"TakingAReport", Device::kUsed, LoadAndReport, TakeReport, SettleReport},
    {"UpdatingTheConfiguration", Device::kUsed, LoadAndReport, UpdateConfiguration, SettleConfiguration},
    {"ReadingAfterDamage", Device::kUsed, PrepareDamage, ReadLog, SettleDamage},
    {"SwitchingOffAndOn", Device::kUsed, LoadAndReport, SwitchOffAndOn, SettleSwitching},
    {"Unloading", Device::kUsed, LoadAndReport, Unload, SettleUnloading},
};

void LayOutDevice(const Scenario& scenario) {
  // Made while nothing else is in its place.
  const Files& used = UsedFiles();
  const Files& cutOff = CutOffFiles();
  std::filesystem::remove_all(kRunDirectory);
  std::filesystem::remove_all(kStorageDirectory);
  WriteDefaultPolicy(UsualPolicies());
  if (scenario.device == Device::kNew) return;
  const Files& files = scenario.device == Device::kUsed ? used : cutOff;
  WriteFile(kDatabase, files.database);
  WriteFile(kBackup, used.database);
  if (!files.journal.empty()) WriteFile(kJournal, files.journal);
}

}  // namespace zav::test
