#include "Question.h"

#include <climits>
#include <cstring>
#include <iterator>

#include "support/LogText.h"
#include "support/StoredState.h"

namespace zav::test {

using ipc::Method;

namespace {

std::int32_t IntAt(const std::string& bytes, size_t offset) {
  std::int32_t value = 0;
  if (bytes.size() >= offset + sizeof(value)) std::memcpy(&value, bytes.data() + offset, sizeof(value));
  return value;
}

/// Records by their indexes, and the last of them.
std::string RecordsText(int lastIndex, const Json::Value& records) {
  std::string text = std::to_string(lastIndex) + ":";
  for (const auto& index : records.getMemberNames()) {
    text += " " + index + "=" + records[index]["url"].asString() + "/" + records[index]["threat"].asString();
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

/// When everything happens to the model.
constexpr int kNow = 0;

std::string FindingText(const LogFinding& finding) {
  return finding.records.empty() ? "-1" : RecordsText(finding.lastIndex, ToJson(finding.records));
}

std::string AskServiceOf(LogModel& log, const Question& question) {
  const LogRange range{kNow, INT_MAX, question.range.maxCount, question.range.startIndex};
  switch (question.method) {
    case Method::kLogThreatUrl:
      return log.Report(question.url, question.threat, kNow) ? "0" : "-1";
    case Method::kResetLog:
      log.DropRecords();
      return "0";
    case Method::kCountRecords:
      return std::to_string(log.CountBetween(kNow, INT_MAX));
    case Method::kGetLogStatus:
      return StatusText(ToJson(log.Summarise(kNow)));
    default:
      return FindingText(question.method == Method::kGetLog ? log.FindForward(range) : log.FindBackward(range));
  }
}

std::string AskHostOf(LogModel& log, const Question& question) {
  if (question.command == "GetStatus") {
    Json::Value status = ToJson(log.Summarise(kNow));
    status["operationStatus"] = "success";
    return StatusText(status);
  }
  if (question.command == "UpdateConfig") log.Configure({question.maxIndex, question.maxFileSize, 0});
  if (question.command == "ResetLog") log.DropRecords();
  if (question.command == "ResetLogStat") log.Reset();
  return "success";
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
  return RecordsText(IntAt(answer, 4), Parsed(answer.substr(12)));
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

std::string AskModel(LogModel& log, const Question& question) {
  return question.command.empty() ? AskServiceOf(log, question) : AskHostOf(log, question);
}

}  // namespace zav::test
