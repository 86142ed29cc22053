#pragma once

#include <optional>
#include <string>
#include <vector>

#include "support/LogModel.h"

/// The log of the campaigns on the plug-in's files: so small that a few reports fill it and have it renumbered. Its
/// records never get too old, and their times are not looked at: in the model all of them are 0.
namespace zav::test {

/// A report as a client sends it.
struct ThreatReport {
  std::string url;
  std::string threat;
};

/// The N-th report of a campaign. Some are so long that the log takes several pages of the database.
ThreatReport NumberedReport(int number);

/// The default policies of a device with such a log.
/// @param withService  whether there is one for every row.
std::string DefaultPolicies(bool withService = true);

/// The log of that device before the first report.
LogModel EmptyLog();
/// A log after one more report.
LogModel After(LogModel log, const ThreatReport& report);
LogModel AfterReset(LogModel log);

/// What the log may be: as it was after the last answer, or with what has been asked for since.
using AllowedLogs = std::vector<LogModel>;

/// The log in the database, every time of a record set to 0; nothing when it cannot be read.
std::optional<LogContent> LogInDatabase();

/// What a log holds, on one line.
std::string Summary(const std::optional<LogContent>& log);

}  // namespace zav::test
