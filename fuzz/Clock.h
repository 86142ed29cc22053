#pragma once

namespace zav::fuzz {

/// The time that the plug-in sees, in seconds since the epoch: it stands still until it is set, so that an input leads
/// to the same at any time.
///
/// (The linker leads every call of `time` here.)
struct Clock {
  /// What every input begins with.
  static constexpr int kStart = 100000;

  static void Set(int seconds);
  static int Now();
};

}  // namespace zav::fuzz
