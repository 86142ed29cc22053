#include "Progress.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <string>

namespace zav::pyxctl {
namespace {

constexpr std::chrono::milliseconds kPatience{500};
constexpr std::chrono::milliseconds kBetweenDrawings{100};
constexpr std::size_t kWidest = 40;
constexpr std::size_t kBesideTheBar = 40;

}  // namespace

Progress::Progress(std::size_t whole)
    : isWanted_(::isatty(STDERR_FILENO) == 1 && ::isatty(STDOUT_FILENO) == 0),
      terminal_(TerminalOf(STDERR_FILENO)),
      whole_(whole),
      next_(Clock::now() + kPatience) {}

Progress::~Progress() {
  if (isDrawn_) std::cerr << "\r\x1b[K" << std::flush;
}

void Progress::Advance() {
  ++done_;
  if (!isWanted_ || Clock::now() < next_) return;
  Draw();
  isDrawn_ = true;
  next_ = Clock::now() + kBetweenDrawings;
}

void Progress::Draw() const {
  if (whole_ == 0) {
    std::cerr << "\r\x1b[K" << done_ << " records" << std::flush;
    return;
  }
  const std::size_t whole = std::max(whole_, done_);
  const std::size_t columns = std::max(terminal_.width, kBesideTheBar + 1) - kBesideTheBar;
  const std::size_t width = std::min(kWidest, columns);
  const std::size_t filled = width * done_ / whole;
  std::cerr << "\r\x1b[K[" << std::string(filled, '#') << std::string(width - filled, ' ') << "] " << done_ << " of "
            << whole << " records" << std::flush;
}

}  // namespace zav::pyxctl
