#pragma once

#include <chrono>
#include <cstddef>

#include "Terminal.h"

namespace zav::pyxctl {

/// A bar on standard error, where that is a terminal and standard output is none: it appears when the work takes
/// longer than a person likes to wait, and is gone when the work is done.
class Progress {
 public:
  /// @param whole  how much there is to do; 0 where that is not known: then there is no bar, only how much is done.
  explicit Progress(std::size_t whole);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Advance();

 private:
  using Clock = std::chrono::steady_clock;

  void Draw() const;

  bool isWanted_;
  Terminal terminal_;
  std::size_t whole_;
  std::size_t done_ = 0;
  Clock::time_point next_;
  bool isDrawn_ = false;
};

}  // namespace zav::pyxctl
