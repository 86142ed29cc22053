#include "faults/disk/LogModel.h"

#include <stdexcept>

#include "support/Device.h"
#include "support/StoredState.h"

namespace zav::test {
namespace {

constexpr int kPeriod = 864000;

Json::Value Config() {
  Json::Value config(Json::objectValue);
  config["max_index"] = LogModel::kMaxIndex;
  config["max_file_size"] = LogModel::kMaxFileSize;
  config["max_logging_period"] = kPeriod;
  return config;
}

}  // namespace

ThreatReport NumberedReport(int number) {
  constexpr int kThreats = 3;
  constexpr int kLengths = 5;
  constexpr size_t kStep = 700;
  const std::string text = std::to_string(number);
  return {"http://" + text + std::string(static_cast<size_t>(number % kLengths) * kStep, '/'),
          "threat" + std::to_string(number % kThreats)};
}

std::string LogModel::DefaultPolicies(bool withService) {
  Json::Value policies(Json::objectValue);
  if (withService) policies["Service"]["restart_delay"] = 30;
  policies["State"]["pyx_state"] = "enabled";
  policies["State"]["logging_state"] = "enabled";
  policies["Storage"] = LogModel().Value();
  return Text(policies);
}

void LogModel::Renumber() {
  std::map<int, ThreatReport> renumbered;
  for (const auto& [index, record] : records) renumbered.emplace(static_cast<int>(renumbered.size()), record);
  records = std::move(renumbered);
  lastIndex = static_cast<int>(records.size()) - 1;
}

LogModel LogModel::After(const ThreatReport& report) const {
  LogModel after = *this;
  if (after.lastIndex >= kMaxIndex) after.Renumber();
  if (after.records.size() >= kMaxFileSize) after.records.erase(after.records.begin());
  after.records[++after.lastIndex] = report;
  ++after.count;
  ++after.threats[report.threat];
  return after;
}

LogModel LogModel::AfterReset() const {
  LogModel after = *this;
  after.records.clear();
  return after;
}

Json::Value LogModel::Value() const {
  Json::Value value(Json::objectValue);
  value["config"] = Config();
  Json::Value& state = value["state"];
  for (const auto& [threat, seen] : threats) state[threat] = seen;
  state["count"] = count;
  state["last_index"] = lastIndex;
  for (const auto& [index, record] : records) {
    value[std::to_string(index)]["url"] = record.url;
    value[std::to_string(index)]["threat"] = record.threat;
  }
  return value;
}

std::string Summary(const Json::Value& log) {
  if (!log.isObject()) return "no log";
  std::string records;
  for (const std::string& key : log.getMemberNames()) {
    if (key != "config" && key != "state") records += " " + key;
  }
  return Text(log["state"]) + ", records" + (records.empty() ? " none" : records);
}

Json::Value LogInDatabase() {
  try {
    Json::Value log = Parsed(Rows()["Storage"]);
    for (const std::string& key : log.getMemberNames()) {
      if (key == "config" || key == "state") continue;
      Json::Value time;
      if (!log[key].removeMember("timestamp", &time) || !time.isInt()) return {};
    }
    return log;
  } catch (const std::exception&) {
    return {};
  }
}

}  // namespace zav::test
