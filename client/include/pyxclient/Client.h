#pragma once

#include <chrono>
#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "pyxclient/Error.h"

namespace zav::client {

/// Where the plug-in listens.
inline constexpr const char* kDefaultSocketPath = "/tmp/zav-pyx-plugin/.socket";
/// How long a whole request may take, connecting, repeating and reading the answer included.
inline constexpr std::chrono::milliseconds kDefaultTimeout{5000};

struct Options {
  /// 1 to 107 bytes.
  std::string socketPath = kDefaultSocketPath;
  /// Of one call, on the monotonic clock. At most a day, longer is cut to that; with 0 or less every call times out.
  std::chrono::milliseconds timeout = kDefaultTimeout;
};

/// A stretch of time in seconds since the epoch, both ends included, neither negative.
struct TimeRange {
  std::int32_t from = 0;
  std::int32_t to = std::numeric_limits<std::int32_t>::max();
};

/// Which records to read.
struct LogQuery {
  /// An end of 0 is the service's own time.
  TimeRange range;
  /// The most records to read, 0 for all.
  std::int32_t maxCount = 0;
  /// The index to start at. -1, or an index above the log's "max_index" setting, starts at the oldest record, or at the
  /// newest one when going back.
  std::int32_t startIndex = -1;
  /// From the newest record to the oldest.
  bool reverse = false;
};

/// One report as the service keeps it. The texts are what some client reported: whatever shows them must expect control
/// characters.
struct Record {
  std::int32_t index = 0;
  std::string url;
  std::string threat;
  /// Seconds since the epoch.
  std::int32_t timestamp = 0;
};

/// The log in numbers.
struct LogStatus {
  /// The settings: the records are numbered anew when the last index reaches `maxIndex`; at most `maxRecords` are kept,
  /// none longer than `maxPeriod` seconds.
  struct Config {
    std::int32_t maxIndex = 0;
    std::int32_t maxRecords = 0;
    std::int32_t maxPeriod = 0;
  };
  /// A number of reports, in all and by the name of the threat.
  struct Tally {
    std::int32_t total = 0;
    std::map<std::string, std::int32_t> byThreat;
  };

  Config config;
  /// The records that are in the log.
  Tally stored;
  /// The reports since the counters began, also those whose records are gone.
  Tally reported;
};

/// The service of the plug-in, as a program of the device sees it. A call is one request on a connection of its own and
/// leaves nothing open; nothing is kept between calls, so any threads may call at once.
///
/// Every call returns or throws `Error` by its deadline. A connection that the service refuses, because it serves one
/// client at a time, is tried again with a growing pause until then; a report only where it is certain that the service
/// has not taken it whole.
class Client {
 public:
  explicit Client(Options options = {});

  /// Whether the feature is on.
  bool IsEnabled() const;

  /// Whether logging is on.
  bool IsLoggingEnabled() const;

  /// Reports a visit to `url`, whose threat is `threat`; an empty one is logged as "undefined". Each at most 16,777,216
  /// bytes. Returns once the record is stored. `kRejected`: the URL is empty, or the record could not be stored, and
  /// may then be stored with the next report. `kUnknownOutcome`: see there.
  void Report(std::string_view url, std::string_view threat = {}) const;

  LogStatus GetLogStatus() const;

  /// The records that match, in ascending order of their indexes, or descending when reversed; none is no error.
  /// `kOutOfRange`: a negative number (but a start of -1), or a range whose end lies before its beginning.
  std::vector<Record> GetLog(const LogQuery& query = {}) const;

  /// How many records lie in the range.
  std::int32_t CountRecords(const TimeRange& range = {}) const;

  /// Deletes every record; the settings and the counters stay. `kRejected`: the empty log could not be stored.
  void ResetLog() const;

 private:
  Options options_;
};

}  // namespace zav::client
