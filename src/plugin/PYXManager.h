#pragma once

#include <atomic>
#include <memory>
#include <thread>

#include "ipc/service/Service.h"
#include "policy/Policy.h"

namespace zav::plugin {

/// Owns the service thread: starts it, stops it, and rebuilds the service after a failure.
///
/// One object a process, made on first use and ended at exit or unload, where it stops a service that still runs.
/// `Start` and `Stop` are not to be called at the same time; `IsRunning` and `ApplyPolicy` may be called by any thread
/// at any time.
class PYXManager {
 public:
  /// The one manager. The first call reads the "Service" policy.
  /// @throws std::runtime_error as `policy::Manager::Instance`; the next call tries again.
  static PYXManager& Instance();

  PYXManager(const PYXManager&) = delete;
  PYXManager& operator=(const PYXManager&) = delete;

  /// Starts the service thread and returns at once; nothing happens where it runs.
  ///
  /// @throws std::exception when no thread can be had; the manager is not running then.
  /// After the thread ended by itself (the run directory could not be made) this ends the process: that failure is
  /// final for the plug-in's life.
  void Start();

  /// Stops the service and returns when its thread has ended; nothing happens where it does not run. A request that
  /// was received whole is answered first.
  void Stop();

  bool IsRunning() const { return running; }

  /// The limits of the restart delay, seconds.
  static constexpr int kMinRestartDelay = 30;
  static constexpr int kMaxRestartDelay = 3600;

  /// Takes the service settings: "restart_delay", brought into its limits; the least one when missing. A wait that has
  /// begun is not changed.
  void ApplyPolicy(const policy::Policy& policy);

  /// Seconds from the end of a service that was not stopped to the next attempt.
  int RestartDelay() const { return restartDelay; }

 private:
  PYXManager();
  ~PYXManager();

  void ThreadProc();
  bool waitForRestart(int seconds) const;

  std::thread thread;
  std::atomic<bool> running{false};
  std::atomic<int> restartDelay;
  /// Made by the first `Start`, and kept.
  std::shared_ptr<ipc::Service> service;
};

}  // namespace zav::plugin
