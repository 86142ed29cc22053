#pragma once

#include <chrono>
#include <optional>

namespace host {

/// What started the host as a service and wants to know how it is: systemd, or what speaks as it does. Where nothing
/// has started it so, nothing is said. One thread.
///
/// What cannot be said is a warning in the log.
class ServiceManager {
 public:
  /// Finds out whether somebody waits for signs of life, and how often.
  ServiceManager();

  /// Says that the plug-in is loaded and that commands are taken.
  static void Ready();
  /// Says that the host is about to end.
  static void Stopping();

  /// Says that the host lives, where that is due again. The main loop calls it each time that it comes round, and
  /// nobody else does: a host that hangs is to be found out.
  void GiveSignOfLife();
  /// How long the main loop may wait until it has to come round, in the milliseconds of poll(2); -1: for ever.
  int MayWaitMs() const;

 private:
  using Clock = std::chrono::steady_clock;

  /// Between two signs of life.
  std::optional<Clock::duration> interval;
  Clock::time_point due;
};

}  // namespace host
