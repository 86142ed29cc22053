#include "LogModel.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <iterator>
#include <vector>

#include "support/StoredState.h"

namespace zav::test {

using ipc::Method;

namespace {

std::int32_t IntAt(const std::string& bytes, size_t offset) {
  std::int32_t value = 0;
  if (bytes.size() >= offset + sizeof(value)) std::memcpy(&value, bytes.data() + offset, sizeof(value));
  return value;
}

/// A record as the service and the model show it.
std::string RecordText(const std::string& index, const std::string& url, const std::string& threat) {
  return " " + index + "=" + url + "/" + threat;
}

/// Records by their indexes: members stand in the order of their texts.
std::string RecordsText(const Json::Value& records) {
  std::string text;
  for (const auto& index : records.getMemberNames()) {
    text += RecordText(index, records[index]["url"].asString(), records[index]["threat"].asString());
  }
  return text;
}

std::string StatusText(Json::Value status) {
  // The configuration's period is the same all the time.
  status["config"].removeMember("max_logging_period");
  return Text(status);
}

template <class P>
std::string PackageText(const P& package) {
  const auto bytes = ipc::Encode(package);
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace

std::string Question::Bytes() const {
  std::string header = HeaderBytes(method);
  ipc::FramePackage ever;
  ever.to = INT_MAX;
  switch (method) {
    case Method::kLogThreatUrl:
      return header + String(url) + String(threat);
    case Method::kGetLog:
    case Method::kGetLogReverse:
      return header + PackageText(range);
    case Method::kCountRecords:
      return header + PackageText(ever);
    default:
      return header;
  }
}

std::string Question::Readable(const std::string& answer) const {
  if (command == "GetStatus") return StatusText(Parsed(answer));
  if (!command.empty()) return Parsed(answer)["operationStatus"].asString();
  if (method == Method::kGetLogStatus) return StatusText(Parsed(answer.substr(4)));
  if (answer.size() <= 4) return std::to_string(IntAt(answer, 0));
  return std::to_string(IntAt(answer, 4)) + ":" + RecordsText(Parsed(answer.substr(12)));
}

std::ostream& operator<<(std::ostream& out, const Question& question) {
  if (!question.command.empty()) return out << question.command << " " << question.data;
  return out << "method " << static_cast<int>(question.method) << " " << question.url << " "
             << question.range.startIndex << " " << question.range.maxCount;
}

std::string ConfigData(int maxFileSize, int maxIndex) {
  return R"({"Storage":{"config":{"max_file_size":)" + std::to_string(maxFileSize) + R"(,"max_index":)" +
         std::to_string(maxIndex) + "}}}";
}

Question RandomRequest(std::mt19937& random, const std::string& name) {
  // Reports more often than the rest, and few resets.
  const Method methods[] = {Method::kLogThreatUrl, Method::kLogThreatUrl, Method::kLogThreatUrl,
                            Method::kLogThreatUrl, Method::kGetLog,       Method::kGetLogReverse,
                            Method::kCountRecords, Method::kGetLogStatus, Method::kGetLog};
  Question question;
  question.method = random() % 25 == 0 ? Method::kResetLog : methods[random() % std::size(methods)];
  question.url = name;
  question.threat = random() % 2 == 0 ? "" : "threat" + std::to_string(random() % 3);
  question.range.startIndex = static_cast<int>(random() % 12) - 4;
  question.range.maxCount = static_cast<int>(random() % 6);
  return question;
}

Question RandomCommand(std::mt19937& random) {
  const char* const commands[] = {"GetStatus", "GetStatus", "ResetLog", "UpdateConfig", "UpdateConfig"};
  Question question;
  question.command = random() % 20 == 0 ? "ResetLogStat" : commands[random() % std::size(commands)];
  if (question.command != "UpdateConfig") return question;
  question.maxFileSize = 10 + static_cast<int>(random() % 10);
  question.maxIndex = 20 + static_cast<int>(random() % 20);
  question.data = ConfigData(question.maxFileSize, question.maxIndex);
  return question;
}

std::string LogModel::Answer(const Question& question) {
  if (!question.command.empty()) return Command(question);
  switch (question.method) {
    case Method::kLogThreatUrl:
      Report(question);
      return "0";
    case Method::kResetLog:
      records.clear();
      return "0";
    case Method::kCountRecords:
      return std::to_string(records.size());
    case Method::kGetLogStatus:
      return Status();
    default:
      return Range(question);
  }
}

std::string LogModel::Command(const Question& question) {
  if (question.command == "GetStatus") {
    Json::Value status = Parsed(Status());
    status["operationStatus"] = "success";
    return test::Text(status);
  }
  if (question.command == "UpdateConfig") {
    maxFileSize = question.maxFileSize;
    maxIndex = question.maxIndex;
    return "success";
  }
  records.clear();
  if (question.command == "ResetLogStat") {
    count = 0;
    lastIndex = -1;
    seen.clear();
  }
  return "success";
}

void LogModel::Report(const Question& question) {
  if (lastIndex >= maxIndex) Renumber();
  if (records.size() >= static_cast<size_t>(maxFileSize)) records.erase(records.begin());
  const std::string threat = question.threat.empty() ? "undefined" : question.threat;
  records[++lastIndex] = {question.url, threat};
  ++count;
  ++seen[threat];
}

void LogModel::Renumber() {
  std::map<int, Record> renumbered;
  lastIndex = -1;
  for (const auto& [index, record] : records) renumbered[++lastIndex] = record;
  records = renumbered;
}

std::string LogModel::Range(const Question& question) const {
  const bool forward = question.method == Method::kGetLog;
  const int start = question.range.startIndex;
  const bool given = start >= 0 && start <= maxIndex;
  std::vector<int> indexes;
  for (const auto& [index, record] : records) {
    if (!given || (forward ? index >= start : index <= start)) indexes.push_back(index);
  }
  if (!forward) std::reverse(indexes.begin(), indexes.end());
  const int limit = question.range.maxCount;
  if (limit > 0 && indexes.size() > static_cast<size_t>(limit)) indexes.resize(static_cast<size_t>(limit));
  if (indexes.empty()) return "-1";
  Json::Value found;
  for (const int index : indexes) {
    const Record& record = records.at(index);
    found[std::to_string(index)] = test::Record(record.url, record.threat, 0);
  }
  return std::to_string(indexes.back()) + ":" + RecordsText(found);
}

std::string LogModel::Status() const {
  Json::Value status;
  status["config"]["max_file_size"] = maxFileSize;
  status["config"]["max_index"] = maxIndex;
  for (const auto& [threat, times] : seen) status["state"][threat] = times;
  status["state"]["count"] = count;
  for (const auto& [index, record] : records) {
    Json::Value& tally = status["in_storage"];
    tally[record.threat] = tally[record.threat].asInt() + 1;
    tally["count"] = static_cast<int>(records.size());
  }
  return test::Text(status);
}

std::string LogModel::Text() const {
  std::string text = Status() + std::to_string(lastIndex);
  for (const auto& [index, record] : records) text += RecordText(std::to_string(index), record.url, record.threat);
  return text;
}

}  // namespace zav::test
