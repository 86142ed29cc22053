#pragma once

#include <gmock/gmock.h>

#include <ostream>
#include <string>
#include <vector>

namespace zav::test {

/// One line as it was handed to the platform's log.
struct LogEntry {
  int buffer = 0;
  int priority = 0;
  std::string tag;
  /// The format as the caller gave it.
  std::string format;
  /// The three arguments of "%s: %s(%d) > " that every line of the plug-in begins with.
  std::string unit;
  std::string function;
  int line = 0;
  /// What follows that, formatted.
  std::string message;
};

std::ostream& operator<<(std::ostream& out, const LogEntry& entry);

// Priorities.
inline constexpr int kDebug = 3;
inline constexpr int kInfo = 4;
inline constexpr int kWarning = 5;
inline constexpr int kError = 6;

/// The platform's log of a test program: `__dlog_print` is defined here, in place of the platform's, and keeps every
/// line. Any thread.
class LogRecorder {
 public:
  /// All lines since the start or the last `Clear`.
  static std::vector<LogEntry> Lines();
  static void Clear();
  /// Whether lines are kept from here on, as they are at first. A long run has no memory for them.
  static void Keep(bool keep);
  /// How many lines have this message.
  static int Count(const std::string& message);
  /// Waits for a line with this message. @return whether it came.
  static bool WaitFor(const std::string& message);
};

/// Matches a line of the plug-in's own units: tag "ZAV_PYX_PLUGIN", system buffer, format "%s: %s(%d) > %s".
testing::Matcher<LogEntry> PluginLine(int priority, const std::string& unit, const std::string& function,
                                      const testing::Matcher<std::string>& message);

/// Matches a host-facing line: tag "DPM", buffer 0, unit "zav-pyx-plugin.cpp". `text` is the format between "DPM: " and
/// the closing escape, `message` the whole formatted line after "> ".
testing::Matcher<LogEntry> DpmLine(int priority, const std::string& function, const std::string& text,
                                   const testing::Matcher<std::string>& message);

}  // namespace zav::test
