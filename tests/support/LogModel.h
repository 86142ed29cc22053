#pragma once

#include <map>
#include <optional>
#include <string>

/// The rules of the threat log once more, in their plainest form and with nothing of the plug-in's own code: what the
/// plug-in does to a log is right when this model, told the same, comes to the same.
namespace zav::test {

/// A number as the rules read it: 0 where no integer of 32 bits stands in its place.
struct Number {
  int value = 0;
  /// What stands in its place, as JSON text, where that is anything but the integer ("5.0", "null"); else empty.
  std::string odd = {};

  bool operator==(const Number&) const = default;
};

/// By their names. One that is missing counts as 0.
using Numbers = std::map<std::string, Number>;

/// A record as the rules read it: a text is empty where none stands in its place, a number 0.
struct LogRecord {
  std::string url;
  std::string threat;
  /// Seconds since the epoch.
  int timestamp = 0;
  /// The whole record, as JSON text, where it holds anything but two texts and an integer of these names; else empty.
  std::string odd = {};

  bool operator==(const LogRecord&) const = default;
};

/// All that a log holds, also what the rules only carry along.
struct LogContent {
  /// "max_index", "max_file_size", "max_logging_period"; nothing where it is no object.
  std::optional<Numbers> config;
  /// "count", "last_index", and how often each threat was seen; nothing where it is no object.
  std::optional<Numbers> counters;
  /// All other members by their keys; nothing for one that is no object.
  std::map<std::string, std::optional<LogRecord>> records;

  bool operator==(const LogContent&) const = default;
};

struct LogRange {
  /// Seconds since the epoch, both included. A `to` not after `from` asks for all up to `to`.
  int from = 0;
  int to = 0;
  /// 0 or less: no limit.
  int maxCount = 0;
  /// Negative or above "max_index": the end that the direction begins with.
  int startIndex = -1;
};

/// The records that were found, by their indexes, and the index of the one found last: where there is none, the index
/// that the search started at.
struct LogFinding {
  int lastIndex = -1;
  std::map<int, LogRecord> records;

  bool operator==(const LogFinding&) const = default;
};

struct LogSummary {
  /// How many records there are of each threat, and "count" of all; empty where there is none.
  Numbers inStorage;
  Numbers config;
  /// Without "last_index".
  Numbers counters;

  bool operator==(const LogSummary&) const = default;
};

/// The settings that an update names; 0 keeps what is in force.
struct LogSettings {
  int maxIndex = 0;
  int maxFileSize = 0;
  int maxLoggingPeriod = 0;
};

/// A log and all that can be done to it. `now` is in seconds since the epoch.
class LogModel {
 public:
  /// An empty log with the default configuration.
  LogModel() : LogModel(LogContent{}, true, 0) {}
  /// The log that a start makes of what was stored: an invalid configuration becomes the default one, invalid counters
  /// or logging switched off empty the log, and what is too old is dropped.
  LogModel(LogContent stored, bool loggingIsOn, int now);

  const LogContent& Content() const { return log; }
  int Count() const { return static_cast<int>(log.records.size()); }
  int LastIndex() const { return Counter("last_index"); }
  int MaxFileSize() const { return Setting("max_file_size"); }
  /// The lowest index; -1 where there is no record, or none below 2000.
  int FirstIndex() const;

  /// Whether every record has the plain decimal text of an index for its key, none of them beyond the last index, and
  /// no index reaches 2000 but the last. A log that began empty and was configured by `Configure` stays so.
  bool IsOrderly() const;

  /// Adds a record. @return whether there was one to add: an empty url is none.
  bool Report(const std::string& url, const std::string& threat, int now);
  /// Drops what is malformed or too old.
  void DropOutdated(int now);
  /// Drops all records; the counters stay.
  void DropRecords();
  /// Drops all records and begins to count anew.
  void Reset();
  /// Sets the configuration, each setting brought into its limits.
  void Configure(const LogSettings& settings);

  LogFinding FindForward(const LogRange& range) const;
  LogFinding FindBackward(const LogRange& range) const;
  int CountBetween(int from, int to) const;
  /// Drops what is too old first.
  LogSummary Summarise(int now);

 private:
  int Setting(const std::string& name) const;
  int Counter(const std::string& name) const;
  bool ConfigIsInvalid() const;
  bool CountersAreInvalid() const;
  void Renumber();
  void DropLowest();
  std::map<int, LogRecord> Between(int firstIndex, int lastIndex, int from, int to) const;

  LogContent log;
};

}  // namespace zav::test
