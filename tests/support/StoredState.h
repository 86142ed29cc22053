#pragma once

#include <json/value.h>
#include <json/writer.h>

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "policy/Policy.h"
#include "pyx/State.h"
#include "support/Device.h"
#include "support/LogRecorder.h"
#include "support/SystemCalls.h"

/// What the tests of the feature's state start from and look at: the stored policies, whole and as JSON values, faults
/// of the database, and the lock of the state.
namespace zav::test {

/// A text as a JSON value. @throws std::runtime_error when it is no JSON.
Json::Value Parsed(const std::string& text);
/// A value as compact text on one line.
std::string Text(const Json::Value& value);

/// Seconds since the epoch, as the plug-in takes them.
int Now();

/// A record of the log.
Json::Value Record(const std::string& url, const std::string& threat, int timestamp);

/// The "Storage" policy that a test starts with.
struct StoredLog {
  int maxIndex = 2000;
  int maxFileSize = 10;
  /// Ten days: no record of these tests is too old unless it means to be.
  int maxLoggingPeriod = 864000;
  int count = 0;
  int lastIndex = -1;
  /// Further members of "state".
  std::map<std::string, int> counters = {};
  std::map<std::string, Json::Value> records = {};

  Json::Value Value() const;
};

/// A device that was in use: its database with all three policies, its backup and the usual defaults. The feature is
/// on.
/// @param storage  the text of the "Storage" row.
void PrepareDevice(const std::string& storage, const std::string& logging = "enabled");
void PrepareDevice(const StoredLog& log = {}, const std::string& logging = "enabled");

/// A row of the database as JSON; null when there is none.
Json::Value Row(const std::string& name);

/// From here on the database notes every row that is written.
void NoteWrites();
/// The names of the rows written since, in order.
std::vector<std::string> Writes();

/// From here on the database and its backup refuse to write that row, with the text "refused".
void RefuseWrites(const std::string& name);
/// Takes `RefuseWrites` back.
void AllowWrites();

/// While it lives, every save stops at its end, after the row was written: where the backup is put into its place.
class HeldSave {
 public:
  HeldSave();
  ~HeldSave();
  HeldSave(const HeldSave&) = delete;
  HeldSave& operator=(const HeldSave&) = delete;

  /// Lets saves end.
  void Release() { released = true; }

 private:
  std::atomic<bool> released{false};
  CallHook rename;
};

/// While it lives, nobody can lock the state, the calling thread neither: locking fails with EAGAIN.
class UnlockableState {
 public:
  explicit UnlockableState(pyx::State& state);
  ~UnlockableState();
  UnlockableState(const UnlockableState&) = delete;
  UnlockableState& operator=(const UnlockableState&) = delete;

 private:
  pyx::State& state;
  unsigned depth;
};

/// The lines of some units, in order.
std::vector<LogEntry> LinesOf(const std::vector<std::string>& units);
/// The lines of one level or above, in order.
std::vector<LogEntry> LinesFrom(int priority);

}  // namespace zav::test
