#include "faults/disk/SmallLog.h"

#include <stdexcept>

#include "support/Device.h"
#include "support/LogText.h"
#include "support/StoredState.h"

namespace zav::test {
namespace {

constexpr int kNoTime = 0;

Json::Value EmptyStorage() {
  StoredLog log;
  log.maxIndex = 7;
  log.maxFileSize = 4;
  return log.Value();
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

std::string DefaultPolicies(bool withService) {
  Json::Value policies(Json::objectValue);
  if (withService) policies["Service"]["restart_delay"] = 30;
  policies["State"]["pyx_state"] = "enabled";
  policies["State"]["logging_state"] = "enabled";
  policies["Storage"] = EmptyStorage();
  return Text(policies);
}

LogModel EmptyLog() {
  return {ReadContent(EmptyStorage()), true, kNoTime};
}

LogModel After(LogModel log, const ThreatReport& report) {
  log.Report(report.url, report.threat, kNoTime);
  return log;
}

LogModel AfterReset(LogModel log) {
  log.DropRecords();
  return log;
}

std::optional<LogContent> LogInDatabase() {
  try {
    LogContent log = ReadContent(Parsed(Rows()["Storage"]));
    for (auto& [key, record] : log.records) {
      if (record) record->timestamp = kNoTime;
    }
    return log;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::string Summary(const std::optional<LogContent>& log) {
  if (!log) return "no log";
  std::string records;
  for (const auto& [key, record] : log->records) records += " " + key;
  return Text(ToJson(*log)["state"]) + ", records" + (records.empty() ? " none" : records);
}

}  // namespace zav::test
