#pragma once

#include <chrono>

namespace zav::client {

/// The point in time by which one request has to be over, whatever it waits for.
class Deadline {
 public:
  using Clock = std::chrono::steady_clock;

  /// From now on; at most a day ahead.
  explicit Deadline(std::chrono::milliseconds timeout);

  bool Passed() const { return Clock::now() >= end_; }

  /// What is left, for poll(): milliseconds, rounded up, 0 when nothing is left.
  int PollTimeout() const;

  /// Sleeps, but not beyond the deadline.
  void Pause(std::chrono::milliseconds duration) const;

 private:
  Clock::time_point end_;
};

/// The pauses between the attempts of one request: each is twice as long as the one before, up to a limit.
class GrowingPause {
 public:
  void Take(const Deadline& deadline);

 private:
  static constexpr std::chrono::milliseconds kLongest{64};
  std::chrono::milliseconds next_{1};
};

}  // namespace zav::client
