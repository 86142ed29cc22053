#include "support/LogRecorder.h"

#include <dlog/dlog.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "support/WaitUntil.h"

namespace zav::test {
namespace {

const std::string kHead = "%s: %s(%d) > ";

struct Record {
  std::mutex mutex;
  std::vector<LogEntry> lines;
  bool isKept = true;
};

/// Never ended: threads of the plug-in log until the very end of the process.
Record& TheRecord() {
  static Record& record = *new Record;
  return record;
}

[[gnu::format(printf, 1, 0)]] std::string Format(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = vsnprintf(nullptr, 0, format, again);
  va_end(again);
  std::string text(static_cast<size_t>(std::max(length, 0)), '\0');
  vsnprintf(text.data(), text.size() + 1, format, arguments);
  return text;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const LogEntry& entry) {
  return out << entry.buffer << " " << entry.priority << " " << entry.tag << " " << entry.unit << ": " << entry.function
             << "(" << entry.line << ") > " << entry.message;
}

std::vector<LogEntry> LogRecorder::Lines() {
  const std::lock_guard guard(TheRecord().mutex);
  return TheRecord().lines;
}

void LogRecorder::Clear() {
  const std::lock_guard guard(TheRecord().mutex);
  TheRecord().lines.clear();
}

void LogRecorder::Keep(bool keep) {
  const std::lock_guard guard(TheRecord().mutex);
  TheRecord().isKept = keep;
}

int LogRecorder::Count(const std::string& message) {
  const auto lines = Lines();
  return static_cast<int>(
      std::count_if(lines.begin(), lines.end(), [&](const LogEntry& line) { return line.message == message; }));
}

bool LogRecorder::WaitFor(const std::string& message) {
  return WaitUntil([&] { return Count(message) > 0; });
}

testing::Matcher<LogEntry> PluginLine(int priority, const std::string& unit, const std::string& function,
                                      const testing::Matcher<std::string>& message) {
  using testing::AllOf;
  using testing::Field;
  return AllOf(Field("buffer", &LogEntry::buffer, 2), Field("priority", &LogEntry::priority, priority),
               Field("tag", &LogEntry::tag, "ZAV_PYX_PLUGIN"), Field("format", &LogEntry::format, kHead + "%s"),
               Field("unit", &LogEntry::unit, unit), Field("function", &LogEntry::function, function),
               Field("line", &LogEntry::line, testing::Gt(0)), Field("message", &LogEntry::message, message));
}

testing::Matcher<LogEntry> DpmLine(int priority, const std::string& function, const std::string& text,
                                   const testing::Matcher<std::string>& message) {
  using testing::AllOf;
  using testing::Field;
  const std::string colour = priority == kError ? "\033[31m" : priority == kWarning ? "\033[33m" : "\033[36m";
  return AllOf(Field("buffer", &LogEntry::buffer, 0), Field("priority", &LogEntry::priority, priority),
               Field("tag", &LogEntry::tag, "DPM"),
               Field("format", &LogEntry::format, kHead + colour + "DPM: " + text + "\033[0m"),
               Field("unit", &LogEntry::unit, "zav-pyx-plugin.cpp"), Field("function", &LogEntry::function, function),
               Field("line", &LogEntry::line, testing::Gt(0)), Field("message", &LogEntry::message, message));
}

}  // namespace zav::test

int __dlog_print(int buffer, int priority, const char* tag, const char* format, ...) {
  using namespace zav::test;
  va_list arguments;
  va_start(arguments, format);
  LogEntry entry;
  entry.buffer = buffer;
  entry.priority = priority;
  entry.tag = tag;
  entry.format = format;
  if (entry.format.compare(0, kHead.size(), kHead) == 0) {
    entry.unit = va_arg(arguments, const char*);
    entry.function = va_arg(arguments, const char*);
    entry.line = va_arg(arguments, int);
    entry.message = Format(format + kHead.size(), arguments);
  } else {
    entry.message = Format(format, arguments);
  }
  va_end(arguments);
  const std::lock_guard guard(TheRecord().mutex);
  if (TheRecord().isKept) TheRecord().lines.push_back(std::move(entry));
  // A log may leave any error behind.
  errno = EXFULL;
  return 1;
}
