#pragma once

#include <json/value.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace zav::test {

/// A report as a client sends it.
struct ThreatReport {
  std::string url;
  std::string threat;
};

/// The N-th report of a campaign. Some are so long that the log takes several pages of the database.
ThreatReport NumberedReport(int number);

/// The log as it has to be: a model of its rules of size and numbering. Its records never get too old.
class LogModel {
 public:
  static constexpr int kMaxIndex = 7;
  static constexpr int kMaxFileSize = 4;

  /// The default policies of a device whose empty log has these limits.
  static std::string DefaultPolicies(bool withService = true);

  /// The log after one more report.
  LogModel After(const ThreatReport& report) const;
  /// The log after a reset.
  LogModel AfterReset() const;

  /// The stored log without the times of its records.
  Json::Value Value() const;

 private:
  void Renumber();

  int count = 0;
  int lastIndex = -1;
  std::map<std::string, int> threats;
  std::map<int, ThreatReport> records;
};

/// What the log may be: as it was after the last answer, or with what has been asked for since.
using AllowedLogs = std::vector<LogModel>;

/// What a log holds, on one line.
std::string Summary(const Json::Value& log);

/// The log in the database without the times of its records; null when there is none, or a record lacks its time.
Json::Value LogInDatabase();

}  // namespace zav::test
