#include "Deadline.h"

#include <algorithm>
#include <thread>

namespace zav::client {
namespace {

/// Keeps the sum of now and any timeout, and any poll() timeout, in range.
constexpr std::chrono::milliseconds kLongestTimeout = std::chrono::hours(24);

}  // namespace

Deadline::Deadline(std::chrono::milliseconds timeout)
    : end_(Clock::now() + std::clamp(timeout, std::chrono::milliseconds::zero(), kLongestTimeout)) {}

int Deadline::PollTimeout() const {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - Clock::now());
  return static_cast<int>(std::max(left, std::chrono::milliseconds::zero()).count());
}

void Deadline::Pause(std::chrono::milliseconds duration) const {
  std::this_thread::sleep_until(std::min(Clock::now() + duration, end_));
}

void GrowingPause::Take(const Deadline& deadline) {
  deadline.Pause(next_);
  next_ = std::min(next_ * 2, kLongest);
}

}  // namespace zav::client
