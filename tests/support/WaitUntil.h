#pragma once

#include <chrono>
#include <thread>

namespace zav::test {

/// Waits for a condition; the deadline is for a machine that is busy, not for how long it should take.
///
/// @return whether it came true in time.
template <class Condition>
bool WaitUntil(Condition condition, std::chrono::milliseconds deadline = std::chrono::seconds(20)) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace zav::test
