#pragma once

#include <mutex>
#include <string>
#include <utility>

#include "policy/Policy.h"
#include "pyx/ThreatLog.h"

namespace zav::pyx {

/// Which records of the log a caller asks for.
struct LogQuery {
  /// Seconds since the epoch, both included. A `to` not after `from` asks for all up to `to`.
  int from = 0;
  int to = 0;
  /// The most records wanted; 0 or less: all.
  int maxCount = 0;
  /// Where to start; an index that is negative or above "max_index" starts at the end that the direction begins with.
  int startIndex = -1;
};

enum class LogOrder { kOldestFirst, kNewestFirst };

/// The records that a query found.
struct LogSlice {
  /// The index of the last one; where there is none, the index that the search started at.
  int lastIndex = -1;
  /// The text of the policy that has each of them as a member named by its index; empty where there is none.
  std::string records;
};

/// The feature's state: its two switches, and the threat log with its configuration and counters.
///
/// One object a process, made on first use. It persists itself as the policies "State" (the switches) and "Storage"
/// (all else). The record of index N is the member "N" of the storage, {"url", "threat", "timestamp"}; beside the
/// records stand "config" {"max_index", "max_file_size", "max_logging_period"} and "state" {"count", "last_index",
/// and a counter for each threat}.
///
/// Threads: `Mutex` guards everything. `ApplyPyxState`, `ApplyLoggingState`, `ResetLog`, `GetLogStatus` and
/// `GetLogStatusText` take it themselves; for all else the caller holds it, from its first look to the end of its
/// change, saving included. It is recursive: who holds it may call any operation.
class State {
 public:
  enum Enum : int { Disabled = 0, Enabled = 1 };

  /// The one state. The first call loads and validates it, and drops the records that are too old, or all of them
  /// where logging is disabled.
  ///
  /// @throws std::runtime_error "Default policy is empty" when there is neither a database nor a default policy; the
  ///         next call tries again.
  static State& Instance();

  State(const State&) = delete;
  State& operator=(const State&) = delete;
  ~State() = default;

  std::recursive_mutex& Mutex() { return mutex; }

  Enum PyxState() const { return pyxState; }
  Enum LoggingState() const { return loggingState; }

  /// Sets the feature's switch and persists it; nothing happens where it is set so already.
  /// @return 0, else the storage's negative code; the switch in memory is set all the same.
  int ApplyPyxState(const Enum& value);
  /// The same for the logging switch. The log stays as it is.
  int ApplyLoggingState(const Enum& value);

  /// Drops all records and sets the counters to "count" 0 and "last_index" -1; the configuration stays. Does not save.
  void ResetState();

  /// Writes the storage. @return 0, else the storage's negative code.
  int SaveStorage();

  /// Drops every record that is malformed or older than "max_logging_period", and saves if there was one.
  /// @param now  seconds since the epoch.
  void RemoveOutdatedRecords(int now);

  /// Drops all records; configuration and counters stay, numbering goes on. Saves.
  /// @return 0, else the storage's negative code.
  int ResetLog();

  /// Summarises the log: "in_storage" (records by threat, and "count" of all), "config" and "state" without
  /// "last_index". Drops outdated records first.
  policy::Policy GetLogStatus();
  /// The same as text.
  std::string GetLogStatusText();

  /// @return the lowest record index; -1 when there is no record, none below 2000, or one whose key is no index.
  int GetFirstIndex() const;

  /// Adds a record, after the outdated ones were dropped; renumbers the records when the last index has reached
  /// "max_index", and drops the lowest one when there are "max_file_size" of them. Saves.
  ///
  /// @param url     not empty.
  /// @param threat  empty: "undefined".
  /// @param now     seconds since the epoch.
  /// @return 0 saved; -1 with an empty url (nothing added), or when saving failed: the record then stays in memory and
  ///         is written with the next success.
  int LogThreatUrl(const std::string& url, const std::string& threat, int now);

  /// Looks for records in a range of times.
  LogSlice FindRecords(const LogQuery& query, LogOrder order) const;

  /// @return how many records have a time stamp from `from` to `to`, both included, seconds since the epoch.
  int CountRecords(int from, int to) const;

  /// The configuration of the log. Does not save.
  policy::PolicyView Config() const { return storage.Config().View(); }
  void SetConfig(policy::Policy&& config) { storage.SetConfig(std::move(config)); }

 private:
  State();

  void Load();
  void ValidateStorage();
  bool CountersAreInvalid() const;
  int ApplySwitch(Enum& field, Enum value, const char* key);
  void DropRecords(policy::Policy&& counters);
  void RenumberRecords();
  void AddRecord(const std::string& url, const std::string& threat, int now);

  std::recursive_mutex mutex;
  Enum pyxState = Enabled;
  Enum loggingState = Disabled;
  /// Configuration, counters and records: the one source of truth, ahead of the database after a failed save.
  ThreatLog storage;
};

}  // namespace zav::pyx
