#include "LogModel.h"

#include <cstdint>
#include <map>
#include <stdexcept>
#include <vector>

#include "support/StoredState.h"

namespace zav::test {
namespace {

constexpr int kBound = 2000;

Json::Value ObjectOf(const std::string& text) {
  try {
    const Json::Value value = Parsed(text);
    return value.isObject() ? value : Json::Value();
  } catch (const std::exception&) {
    return {};
  }
}

int IntOf(const Json::Value& object, const std::string& key) {
  const Json::Value member = object.isObject() ? object.get(key, 0) : Json::Value();
  return member.isInt() ? member.asInt() : 0;
}

std::string TextOf(const Json::Value& object, const std::string& key) {
  const Json::Value member = object.get(key, "");
  return member.isString() ? member.asString() : "";
}

int IndexOf(const std::string& key) {
  try {
    return std::stoi(key);
  } catch (const std::logic_error&) {
    return -1;
  }
}

/// As 32 bits hold it.
int Wrapped(std::int64_t value) {
  return static_cast<int>(static_cast<std::int32_t>(static_cast<std::uint32_t>(value)));
}

/// Also where the key holds a zero byte.
void Remove(Json::Value& storage, const std::string& key) {
  Json::Value removed;
  storage.removeMember(key.data(), key.data() + key.size(), &removed);
}

std::vector<std::string> RecordKeys(const Json::Value& storage) {
  std::vector<std::string> keys = storage.getMemberNames();
  std::erase_if(keys, [](const std::string& key) { return key == "config" || key == "state"; });
  return keys;
}

}  // namespace

LogModel::LogModel(const std::string& text, const std::string& state, int now) : storage(ObjectOf(text)) {
  const Json::Value switches = ObjectOf(state);
  Validate(!switches.isNull() && TextOf(switches, "logging_state") == "enabled");
  DropOutdated(now);
}

void LogModel::Validate(bool logging) {
  const Json::Value config = storage.isObject() ? storage["config"] : Json::Value();
  if (IntOf(config, "max_index") == 0 || IntOf(config, "max_file_size") == 0 ||
      IntOf(config, "max_logging_period") == 0) {
    storage["config"] = Parsed(R"({"max_index":2000,"max_file_size":10,"max_logging_period":3600})");
  }
  const Json::Value counters = storage["state"];
  const int last = IntOf(counters, "last_index");
  if (logging && counters.isObject() && IntOf(counters, "count") >= 0 && last >= -1 && last <= kBound) return;
  Json::Value fresh;
  fresh["config"] = storage["config"];
  fresh["state"] = Parsed(R"({"count":0,"last_index":-1})");
  storage = fresh;
}

void LogModel::DropOutdated(int now) {
  const int period = IntOf(storage["config"], "max_logging_period");
  for (const std::string& key : RecordKeys(storage)) {
    const Json::Value record = storage[key];
    const bool outdated = Wrapped(std::int64_t{IntOf(record, "timestamp")} + period) < now;
    if (!record.isObject() || IndexOf(key) < 0 || outdated) Remove(storage, key);
  }
}

void LogModel::Renumber() {
  std::map<int, Json::Value> records;
  for (const std::string& key : RecordKeys(storage)) records[IndexOf(key)] = storage[key];
  Json::Value renumbered;
  renumbered["config"] = storage["config"];
  renumbered["state"] = storage["state"];
  int next = 0;
  for (const auto& [index, record] : records) renumbered[std::to_string(next++)] = record;
  renumbered["state"]["last_index"] = next - 1;
  storage = renumbered;
}

void LogModel::DropLowest() {
  int lowest = kBound;
  std::string found;
  for (const std::string& key : RecordKeys(storage)) {
    if (IndexOf(key) >= lowest) continue;
    lowest = IndexOf(key);
    found = key;
  }
  if (lowest < kBound) Remove(storage, found);
}

void LogModel::Add(const std::string& url, const std::string& threat, int now) {
  DropOutdated(now);
  if (url.empty()) return;
  if (IntOf(storage["state"], "last_index") >= IntOf(storage["config"], "max_index")) Renumber();
  if (storage.size() - 2 >= static_cast<unsigned>(IntOf(storage["config"], "max_file_size"))) DropLowest();

  const std::string name = threat.empty() ? "undefined" : threat;
  const int index = Wrapped(std::int64_t{IntOf(storage["state"], "last_index")} + 1);
  const int count = Wrapped(std::int64_t{IntOf(storage["state"], "count")} + 1);
  const int seen = Wrapped(std::int64_t{IntOf(storage["state"], name)} + 1);
  storage[std::to_string(index)] = Record(url, name, now);
  storage["state"]["count"] = count;
  storage["state"]["last_index"] = index;
  storage["state"][name] = seen;
}

Json::Value LogModel::Status(int now) {
  DropOutdated(now);
  int total = 0;
  Json::Value tally;
  for (const std::string& key : RecordKeys(storage)) {
    if (TextOf(storage[key], "url").empty()) continue;
    ++total;
    const std::string threat = TextOf(storage[key], "threat");
    Json::Value& seen = tally[threat.empty() ? "undefined" : threat];
    seen = seen.asInt() + 1;
  }
  Json::Value status;
  if (total > 0) {
    tally["count"] = total;
    status["in_storage"] = tally;
  }
  status["config"] = storage["config"];
  status["state"] = storage["state"];
  status["state"].removeMember("last_index");
  return status;
}

int LogModel::FirstIndex() const {
  int first = -1;
  int best = kBound;
  for (const std::string& key : RecordKeys(storage)) {
    if (IndexOf(key) < best) first = best = IndexOf(key);
  }
  return first;
}

Json::Value LogModel::Records(int from, int to) const {
  Json::Value records;
  const int first = FirstIndex();
  if (first < 0) return records;
  for (int index = first; index <= IntOf(storage["state"], "last_index"); ++index) {
    const std::string key = std::to_string(index);
    if (!storage.isMember(key) || !storage[key].isObject()) continue;
    const int timestamp = IntOf(storage[key], "timestamp");
    if (from <= timestamp && timestamp <= to) records[key] = storage[key];
  }
  return records;
}

Json::Value Rewritten(const Json::Value& value) {
  return Parsed(Text(value));
}

}  // namespace zav::test
