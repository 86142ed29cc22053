#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace zav::ipc {

/// A lock that one thread takes and another one gives back: it stands for one connection at a time, from the accept
/// loop's hand-over to the end of the connection's thread. (A std::mutex must be unlocked by the thread that locked
/// it.) Meets Lockable.
class ServiceToken {
 public:
  /// Waits until it is free and takes it.
  void lock();
  /// @return whether it was free and is taken now.
  bool try_lock();
  /// The same, after waiting for it until `deadline` at most.
  bool try_lock_until(std::chrono::steady_clock::time_point deadline);
  /// Gives it back; one that is not taken stays so.
  void unlock();

  /// The mutex behind it. What goes with the token in one step (`serviceBusy`, a run flag) changes under it.
  std::mutex& inner() { return mutex; }
  /// `unlock` for one who holds `inner` already; the waiting ones are to be told by `announce` after it is released.
  void unlockHoldingInner() { held = false; }
  void announce() { released.notify_one(); }

 private:
  std::mutex mutex;
  std::condition_variable released;
  /// Guarded by `mutex`.
  bool held = false;
};

/// The hand-over between the accept loop, the connection that is being served, and a stop. `serviceBusy` and the token
/// are set free in one step, under the token's inner mutex; `serviceCondition` is waited on with that mutex, so that no
/// notification falls between a look at the flag and the wait.
extern ServiceToken serviceMutex;
extern std::condition_variable serviceCondition;
extern std::atomic<bool> serviceBusy;

/// Ends a hand-over: clears `serviceBusy`, gives the token back and wakes who waits for either. Any thread.
void ReleaseService();

}  // namespace zav::ipc
