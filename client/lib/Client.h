#pragma once

#include <chrono>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Deadline.h"
#include "Error.h"
#include "pyxclient/pyxclient.h"

namespace zav::client {

struct Options {
  /// 1 to 107 bytes.
  std::string socketPath = PYX_DEFAULT_SOCKET;
  /// Of one call, on the monotonic clock.
  std::chrono::milliseconds timeout{PYX_DEFAULT_TIMEOUT};
  /// Whether a report is repeated where nothing tells if the service has logged it.
  bool atLeastOnce = false;
};

/// A stretch of time in seconds since the epoch, both ends included, neither negative.
struct TimeRange {
  std::int32_t from = 0;
  std::int32_t to = std::numeric_limits<std::int32_t>::max();
};

/// One report as the service keeps it.
struct Record {
  std::int32_t index = 0;
  std::string url;
  std::string threat;
  /// Seconds since the epoch.
  std::int32_t timestamp = 0;
};

/// The log in numbers.
struct LogStatus {
  /// A number of reports, in all and by the name of the threat.
  struct Tally {
    std::int32_t total = 0;
    /// In the order of the names' bytes.
    std::vector<std::pair<std::string, std::int32_t>> byThreat;
  };

  pyx_settings settings{};
  /// The records that are in the log.
  Tally stored;
  /// The reports since the counters began, also those whose records are gone.
  Tally reported;
};

/// Which records to read, in which order: what one request asks for, or a whole walk.
struct LogQuery {
  TimeRange range;
  /// The most records, 0 for all.
  std::int32_t maxCount = 0;
  /// -1, or an index above the log's "max_index" setting: that of the oldest record, or of the newest in reverse.
  std::int32_t startIndex = -1;
  /// From the newest record to the oldest.
  bool reverse = false;
};

/// What came of it.
struct Piece {
  /// In the order of the query. Some may lie outside its range of time: the service takes one of a single second for
  /// one from time 0 on.
  std::vector<Record> records;
  /// The records are more than an answer can hold; there are none here.
  bool isTooLarge = false;
  /// Of a piece that is too large: the index of the record that would have been its last.
  std::int32_t lastIndex = -1;
};

/// The requests of one client, each on a connection of its own; nothing is kept between them. Every call returns or
/// throws `Error` by its deadline.
class Client {
 public:
  explicit Client(const Options& settings) : options(settings) {}

  bool IsEnabled() const;
  bool IsLoggingEnabled() const;
  void Report(std::string_view url, std::string_view threat) const;
  LogStatus GetLogStatus() const;
  /// For a call that takes several requests.
  Deadline MakeDeadline() const { return Deadline(options.timeout); }
  Piece GetPiece(const LogQuery& query, const Deadline& deadline) const;
  std::int32_t CountRecords(const TimeRange& range) const;
  void ResetLog() const;

 private:
  const Options& options;
};

/// Throws `kOutOfRange` unless no end is negative and the range does not end before it begins.
void Check(const TimeRange& range);

}  // namespace zav::client
