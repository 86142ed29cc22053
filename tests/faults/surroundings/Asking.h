#pragma once

#include <json/value.h>

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "ipc/service/Package.h"

namespace zav::test {

/// What came of a request.
enum class Outcome {
  /// Nobody listens.
  kNobody,
  /// The connection ended before the answer was whole.
  kEnded,
  kAnswered,
  /// Something else than the answer of that method came.
  kMalformed
};

std::ostream& operator<<(std::ostream& out, Outcome outcome);

struct Answer {
  Outcome outcome = Outcome::kNobody;
  /// The switch, the result, the count; of a log its last index.
  int number = -2;
  /// The document of those that carry one.
  Json::Value document;
};

/// Which records a request for the log or its length is about.
struct TimeFrame {
  int from = 0;
  int to = 0;
};

/// One request, made once.
Answer AskOnce(ipc::Method method, const TimeFrame& frame = {});
/// The same, made again as long as the connection ends without an answer: the service is busy with the one before.
Answer Ask(ipc::Method method, const TimeFrame& frame = {});
/// A report, made once. @return its answer; nothing without one.
std::optional<int> ReportOnce(const std::string& url, const std::string& threat = "threat");

/// All the methods; the one that resets the log comes last.
extern const std::vector<ipc::Method> kAllMethods;

/// The urls of the records in a document.
std::vector<std::string> UrlsOf(const Json::Value& records);

}  // namespace zav::test
