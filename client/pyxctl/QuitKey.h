#pragma once

#include <chrono>

namespace zav::pyxctl {

/// The key "q" of the terminal that the program reads from. While there is one, the keys that are pressed are not shown
/// and need no Enter; the terminal is as before once it is gone, also after a signal that ends or stops the program.
/// Without a terminal, or in the background, nothing is changed. One at a time.
class QuitKey {
 public:
  QuitKey();
  ~QuitKey();
  QuitKey(const QuitKey&) = delete;
  QuitKey& operator=(const QuitKey&) = delete;

  /// Waits for the key, for so long; whether it was pressed.
  bool IsPressedWithin(std::chrono::duration<double> time);

 private:
  bool isThere_;
};

}  // namespace zav::pyxctl
