#include "ipc/service/ServiceToken.h"

namespace zav::ipc {

ServiceToken serviceMutex;
std::condition_variable serviceCondition;
std::atomic<bool> serviceBusy{false};

void ServiceToken::lock() {
  std::unique_lock guard(mutex);
  released.wait(guard, [this] { return !held; });
  held = true;
}

bool ServiceToken::try_lock() {
  const std::lock_guard guard(mutex);
  if (held) return false;
  held = true;
  return true;
}

bool ServiceToken::try_lock_until(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock guard(mutex);
  if (!released.wait_until(guard, deadline, [this] { return !held; })) return false;
  held = true;
  return true;
}

void ServiceToken::unlock() {
  {
    const std::lock_guard guard(mutex);
    unlockHoldingInner();
  }
  announce();
}

void ReleaseService() {
  {
    const std::lock_guard guard(serviceMutex.inner());
    serviceBusy = false;
    serviceMutex.unlockHoldingInner();
  }
  serviceMutex.announce();
  serviceCondition.notify_all();
}

}  // namespace zav::ipc
