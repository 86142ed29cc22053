#include "ServiceManager.h"

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>

#include "dlog/dlog.h"

namespace host {
namespace {

// The environment stays: a plug-in may ask it as well.
constexpr int kKeepEnvironment = 0;

void Say(const char* state) {
  const int result = sd_notify(kKeepEnvironment, state);
  if (result >= 0) return;
  __dlog_print(DLOG_BUFFER_MAIN, DLOG_WARN, "DPM", "can't say %s to the service manager: %s", state,
               std::strerror(-result));
}

}  // namespace

ServiceManager::ServiceManager() : due(Clock::now()) {
  uint64_t limitUs = 0;
  if (sd_watchdog_enabled(kKeepEnvironment, &limitUs) <= 0) return;
  // Twice as often as it has to be: one that comes late is no end of the host.
  constexpr uint64_t kLongestUs = std::numeric_limits<int>::max();
  interval = std::chrono::microseconds(std::min(limitUs, kLongestUs) / 2);
}

void ServiceManager::Ready() {
  Say("READY=1");
}

void ServiceManager::Stopping() {
  Say("STOPPING=1");
}

void ServiceManager::GiveSignOfLife() {
  if (!interval || Clock::now() < due) return;
  due = Clock::now() + *interval;
  Say("WATCHDOG=1");
}

int ServiceManager::MayWaitMs() const {
  constexpr int kForever = -1;
  if (!interval) return kForever;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now());
  return static_cast<int>(std::max<int64_t>(left.count(), 0));
}

}  // namespace host
