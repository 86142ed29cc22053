#pragma once

#include <chrono>
#include <cstdint>

namespace zav::test {

/// The clocks of the process, the plug-in's looks at them included, while it lives: the test program stands in front of
/// the C library's functions. One at a time.
class TestClock {
 public:
  /// The time of day stands still at so many seconds since the epoch.
  explicit TestClock(std::int64_t seconds) { Set(seconds); }
  ~TestClock();
  TestClock(const TestClock&) = delete;
  TestClock& operator=(const TestClock&) = delete;

  /// The time of day jumps; no clock that only goes on does.
  void Set(std::int64_t seconds);
  /// So much time passes at once on the clock that only goes on. What sleeps already does not notice.
  void Pass(std::chrono::seconds time);
};

}  // namespace zav::test
