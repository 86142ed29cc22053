#pragma once

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "support/LogRecorder.h"

namespace zav::test {

/// What the database library does in this program: it writes each of its calls into the log, among the plug-in's own
/// lines, and answers what the test laid ready.
///
/// The calls: "open PATH FLAGS CHECK" and "close" of a connection; "prepare SQL", "bind INDEX TEXT", "step", "exec",
/// "column INDEX" and "end" of a statement.
struct ScriptedDatabase {
  enum class Failure { kNone, kKlayException, kStandardException, kOther };

  /// The call that fails: the first word of one of the above.
  std::string failingCall;
  Failure failure = Failure::kNone;
  /// The text of the exception.
  std::string reason = "reason";

  /// The rows that a statement gives, each of one column.
  std::vector<std::string> rows;
  /// Whether a look for any row of a table finds one.
  bool tableIsEmpty = true;
  int columns = 1;
  int changed = 1;
  std::string errorMessage = "message";
  /// Whether there is no memory for a connection.
  bool outOfMemory = false;

  static ScriptedDatabase& Instance();
};

testing::Matcher<LogEntry> DatabaseCall(const testing::Matcher<std::string>& call);

}  // namespace zav::test
