#include "support/StoredState.h"

#include <json/reader.h>
#include <json/writer.h>

#include <algorithm>
#include <climits>
#include <ctime>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "support/WaitUntil.h"

namespace zav::test {
namespace {

const std::vector<std::string> kBothFiles{kDatabase, kBackup};

template <class Keep>
std::vector<LogEntry> Filtered(Keep keep) {
  const auto lines = LogRecorder::Lines();
  std::vector<LogEntry> kept;
  std::copy_if(lines.begin(), lines.end(), std::back_inserter(kept), keep);
  return kept;
}

}  // namespace

Json::Value Parsed(const std::string& text) {
  Json::Value value;
  std::string errors;
  std::istringstream stream(text);
  if (!Json::parseFromStream(Json::CharReaderBuilder(), stream, &value, &errors)) {
    throw std::runtime_error("no JSON: " + text + "\n" + errors);
  }
  return value;
}

std::string Text(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

int Now() {
  return static_cast<int>(std::time(nullptr));
}

Json::Value Record(const std::string& url, const std::string& threat, int timestamp) {
  Json::Value record(Json::objectValue);
  record["url"] = url;
  record["threat"] = threat;
  record["timestamp"] = timestamp;
  return record;
}

Json::Value StoredLog::Value() const {
  Json::Value storage(Json::objectValue);
  for (const auto& [key, record] : records) storage[key] = record;
  Json::Value& config = storage["config"];
  config["max_index"] = maxIndex;
  config["max_file_size"] = maxFileSize;
  config["max_logging_period"] = maxLoggingPeriod;
  Json::Value& state = storage["state"];
  for (const auto& [threat, seen] : counters) state[threat] = seen;
  state["count"] = count;
  state["last_index"] = lastIndex;
  return storage;
}

void PrepareDevice(const std::string& storage, const std::string& logging) {
  WriteDefaultPolicy(UsualPolicies());
  SetRow("Service", R"({"restart_delay":30})");
  SetRow("State", R"({"logging_state":")" + logging + R"(","pyx_state":"enabled"})");
  SetRow("Storage", storage);
  WriteFile(kBackup, ReadFile(kDatabase));
}

void PrepareDevice(const StoredLog& log, const std::string& logging) {
  PrepareDevice(Text(log.Value()), logging);
}

Json::Value Row(const std::string& name) {
  const auto rows = Rows();
  const auto row = rows.find(name);
  return row != rows.end() ? Parsed(row->second) : Json::Value();
}

void NoteWrites() {
  Sql("CREATE TABLE writes (name TEXT)");
  Sql("CREATE TRIGGER note AFTER INSERT ON PYXPlugin BEGIN INSERT INTO writes VALUES (NEW.name); END");
}

std::vector<std::string> Writes() {
  std::istringstream names(Sql("SELECT group_concat(name, char(10)) FROM (SELECT name FROM writes ORDER BY rowid)"));
  std::vector<std::string> writes;
  for (std::string name; std::getline(names, name);) writes.push_back(name);
  return writes;
}

// In the backup, too: it is put in the place of a database that cannot be written.
void RefuseWrites(const std::string& name) {
  Sql("CREATE TRIGGER refuse BEFORE INSERT ON PYXPlugin WHEN NEW.name = '" + name +
      "' BEGIN SELECT RAISE(ABORT, 'refused'); END");
  WriteFile(kBackup, ReadFile(kDatabase));
}

void AllowWrites() {
  for (const auto& file : kBothFiles) Sql("DROP TRIGGER refuse", file);
}

HeldSave::HeldSave()
    : rename(Call::kRename, [this](const CallArguments&) -> std::optional<long> {
        WaitUntil([this] { return released.load(); });
        return std::nullopt;
      }) {}

HeldSave::~HeldSave() {
  Release();
}

UnlockableState::UnlockableState(pyx::State& of) : state(of) {
  state.Mutex().lock();
  depth = std::exchange(state.Mutex().native_handle()->__data.__count, UINT_MAX);
}

UnlockableState::~UnlockableState() {
  state.Mutex().native_handle()->__data.__count = depth;
  state.Mutex().unlock();
}

std::vector<LogEntry> LinesOf(const std::vector<std::string>& units) {
  return Filtered(
      [&](const LogEntry& line) { return std::find(units.begin(), units.end(), line.unit) != units.end(); });
}

std::vector<LogEntry> LinesFrom(int priority) {
  return Filtered([&](const LogEntry& line) { return line.priority >= priority; });
}

}  // namespace zav::test
