// The stored "Storage" text, and then operations on the state that loads it: the log, what the queries find and what is
// stored after each operation are what the model of the log makes of the same.
//
// Input: the text, up to a zero byte; a byte for the logging switch; then operations, a byte and its arguments each.

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <string>

#include "Agreement.h"
#include "Check.h"
#include "Clock.h"
#include "Input.h"
#include "MemoryDatabase.h"
#include "Restart.h"
#include "Target.h"
#include "support/LogModel.h"
#include "support/LogText.h"
#include "zav-pyx-plugin.h"

namespace zav::fuzz {
namespace {

using pyx::LogOrder;
using pyx::LogQuery;
using pyx::LogSlice;
using pyx::State;
using test::LogRange;
using test::LogSettings;
using test::ParseObject;
using test::ReadContent;
using test::ReadSummary;

constexpr int kMostOperations = 24;

class Session {
 public:
  Session(const std::string& storage, const std::string& logging);
  void Run(Input& input);

 private:
  struct Operation {
    void (Session::*run)(Input&);
    /// Whether it may change the log.
    bool changes;
  };

  void Report(Input& input);
  void FindForward(Input& input) { Find(input, LogOrder::kOldestFirst); }
  void FindBackward(Input& input) { Find(input, LogOrder::kNewestFirst); }
  void Find(Input& input, LogOrder order);
  void FindBothWays(Input& input);
  void Count(Input& input);
  void Summarise(Input& input);
  void DropRecords(Input& input);
  void Reset(Input& input);
  void Configure(Input& input);
  void DropOutdated(Input& input);
  void SwitchLogging(Input& input);
  void Restart(Input& input);
  void RefuseWrites(Input& input);
  /// The clock goes, or is set back.
  void PassTime(Input& input);

  bool Refused() const { return MemoryDatabase::Instance().refuses; }
  void CheckCode(int code) const { Check((code == 0) == !Refused(), "an operation succeeds as its save does"); }
  void CheckReply(const std::string& reply) const;

  dpm_zav_pyx_plugin provider;
  State& state;
  LogModel model;
  /// The logging switch in memory and in the database.
  bool logging;
  bool storedLogging;
};

Session::Session(const std::string& storage, const std::string& switchText)
    : state(Start(storage, switchText)),
      model(ReadContent(ParseObject(storage)), switchText == "enabled", Clock::kStart),
      logging(switchText == "enabled"),
      storedLogging(logging) {
  CheckAgreement(state, model);
}

void Session::Run(Input& input) {
  constexpr std::array kOperations{Operation{&Session::Report, true},        Operation{&Session::Report, true},
                                   Operation{&Session::FindForward, false},  Operation{&Session::FindBackward, false},
                                   Operation{&Session::FindBothWays, false}, Operation{&Session::Count, false},
                                   Operation{&Session::Summarise, true},     Operation{&Session::DropRecords, true},
                                   Operation{&Session::Reset, true},         Operation{&Session::Configure, true},
                                   Operation{&Session::DropOutdated, true},  Operation{&Session::SwitchLogging, true},
                                   Operation{&Session::Restart, true},       Operation{&Session::RefuseWrites, false}};
  for (int number = 0; number < kMostOperations && !input.IsAtEnd(); ++number) {
    const Operation& operation = kOperations[input.Byte() % kOperations.size()];
    const bool wasRefused = Refused();
    const bool wasOrderly = model.IsOrderly();
    const std::string stored = MemoryDatabase::Instance().rows["Storage"];
    (this->*operation.run)(input);
    if (wasRefused || !operation.changes) {
      CheckEqual(MemoryDatabase::Instance().rows["Storage"], stored, "a query or a refused save changes nothing");
    }
    // A refusal lasts for one operation.
    if (wasRefused) MemoryDatabase::Instance().refuses = false;
    if (!operation.changes) continue;
    CheckAgreement(state, model, !wasRefused);
    Check(!wasOrderly || model.IsOrderly(), "a log that is in order stays so");
  }
}

void Session::Report(Input& input) {
  PassTime(input);
  const std::string url = input.Text();
  const std::string threat = input.Text();
  const bool hasLimit = model.IsOrderly() && model.MaxFileSize() > 0;
  const int most = std::max(model.MaxFileSize(), model.Count());
  const int code = state.LogThreatUrl(url, threat, Clock::Now());
  const bool added = model.Report(url, threat, Clock::Now());
  if (!added) {
    CheckEqual(code, -1, "a report without a url is none");
    return;
  }
  CheckEqual(code, Refused() ? -1 : 0, "a report is acknowledged as it is saved");
  // In an orderly log no record escapes this count.
  Check(!hasLimit || state.CountRecords(INT_MIN, INT_MAX) <= most, "the records never exceed their limit after an add");
}

void Session::Find(Input& input, LogOrder order) {
  const LogRange range{input.Integer(), input.Integer(), input.Integer(), input.Integer()};
  const LogSlice slice = state.FindRecords({range.from, range.to, range.maxCount, range.startIndex}, order);
  if (order == LogOrder::kOldestFirst) {
    CheckFinding(slice, model.FindForward(range), "the records found forward are the model's");
  } else {
    CheckFinding(slice, model.FindBackward(range), "the records found backward are the model's");
  }
}

void Session::FindBothWays(Input& input) {
  const int from = input.Integer();
  const int to = input.Integer();
  const LogQuery query{from, to, 0, -1};
  const auto forward = state.FindRecords(query, LogOrder::kOldestFirst).records;
  const auto backward = state.FindRecords(query, LogOrder::kNewestFirst).records;
  CheckEqual(forward, backward, "forward and backward ranges agree");
  CheckEqual(static_cast<int>(ParseObject(forward).size()), state.CountRecords(to <= from ? 0 : from, to),
             "as many records are found as are counted");
}

void Session::Count(Input& input) {
  const int from = input.Integer();
  const int to = input.Integer();
  CheckEqual(state.CountRecords(from, to), model.CountBetween(from, to), "the records counted are the model's");
}

void Session::Summarise(Input& input) {
  PassTime(input);
  const Json::Value status = ParseObject(state.GetLogStatus().AsString());
  CheckEqual(ReadSummary(status), Rewritten(model.Summarise(Clock::Now())), "the summary is the model's");
}

void Session::DropRecords(Input& /*input*/) {
  CheckCode(state.ResetLog());
  model.DropRecords();
}

void Session::Reset(Input& /*input*/) {
  CheckReply(provider.executeCommand("ResetLogStat", ""));
  model.Reset();
}

void Session::Configure(Input& input) {
  const LogSettings settings{input.Integer(), input.Integer(), input.Integer()};
  CheckReply(provider.executeCommand(
      "UpdateConfig", R"({"Storage":{"config":{"max_index":)" + std::to_string(settings.maxIndex) +
                          R"(,"max_file_size":)" + std::to_string(settings.maxFileSize) + R"(,"max_logging_period":)" +
                          std::to_string(settings.maxLoggingPeriod) + "}}}"));
  model.Configure(settings);
}

void Session::DropOutdated(Input& input) {
  PassTime(input);
  state.RemoveOutdatedRecords(Clock::Now());
  model.DropOutdated(Clock::Now());
}

void Session::SwitchLogging(Input& input) {
  const bool on = input.Byte() % 2 == 1;
  const bool unchanged = on == logging;
  const int code = state.ApplyLoggingState(on ? State::Enabled : State::Disabled);
  CheckEqual(code == 0, unchanged || !Refused(), "a switch succeeds as its save does");
  logging = on;
  if (!unchanged && code == 0) storedLogging = on;
  Check(state.LoggingState() == (on ? State::Enabled : State::Disabled), "a switch is set whether or not it is saved");
}

void Session::Restart(Input& /*input*/) {
  const LogContent stored = ReadContent(ParseObject(MemoryDatabase::Instance().rows["Storage"]));
  RestartState();
  logging = storedLogging;
  model = LogModel(stored, logging, Clock::Now());
}

void Session::RefuseWrites(Input& /*input*/) {
  MemoryDatabase::Instance().refuses = true;
}

void Session::PassTime(Input& input) {
  Clock::Set(static_cast<int>(static_cast<unsigned>(Clock::Now()) + static_cast<unsigned>(input.Integer())));
}

void Session::CheckReply(const std::string& reply) const {
  CheckEqual<std::string>(reply, std::string(R"({"operationStatus":")") + (Refused() ? "failed" : "success") + "\"}\n",
                          "a command's reply tells whether it was saved");
}

std::string LoggingText(std::uint8_t choice) {
  if (choice % 4 == 0) return "disabled";
  return choice % 4 == 1 ? "Enabled" : "enabled";
}

}  // namespace
}  // namespace zav::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace zav::fuzz;
  Input input(data, size);
  const std::string storage = input.UpTo('\0');
  Session(storage, LoggingText(input.Byte())).Run(input);
  return 0;
}
