#include "PYXManager.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <exception>

#include "common/GlobalPaths.h"
#include "common/Log.h"
#include "common/SignalBlock.h"
#include "pyx/PolicyHandler.h"

namespace zav::plugin {
namespace {

void SleepOneSecond() {
  timespec rest{1, 0};
  while (nanosleep(&rest, &rest) == -1 && errno == EINTR) {
  }
}

}  // namespace

PYXManager& PYXManager::Instance() {
  static PYXManager instance;
  return instance;
}

PYXManager::PYXManager() : restartDelay(kMinRestartDelay) {
  ApplyPolicy(pyx::PolicyHandler.GetPolicy("Service"));
}

PYXManager::~PYXManager() {
  try {
    Stop();
  } catch (const std::exception& exception) {
    LOG_ERROR(exception.what());
  }
}

void PYXManager::ApplyPolicy(const policy::Policy& policy) {
  restartDelay = std::clamp(policy.GetIntValue("restart_delay"), kMinRestartDelay, kMaxRestartDelay);
}

void PYXManager::Start() {
  if (running) return;
  // A thread that ended by itself: no second one is to run by the time that the process ends.
  if (thread.joinable()) std::terminate();
  common::completePaths();
  if (!service) service = std::make_shared<ipc::Service>();
  service->prepare();
  running = true;
  try {
    const common::SignalBlock signals;
    thread = std::thread(&PYXManager::ThreadProc, this);
  } catch (...) {
    running = false;
    throw;
  }
}

void PYXManager::Stop() {
  if (!running.exchange(false)) return;
  if (service) service->stop();
  if (thread.joinable()) thread.join();
}

void PYXManager::ThreadProc() {
  while (running) {
    if (!common::makeDir(common::runPath) || !service) {
      running = false;
      LOG_ERROR("Could not make directory for PYX service");
      return;
    }
    try {
      service->start();
    } catch (const std::exception& exception) {
      LOG_ERROR("PYX service throw exception: ", exception.what());
    }
    if (!running) return;
    const int delay = restartDelay;
    LOG_WARNING("Something went wrong. Will wait ", delay, " sec. to try again.");
    if (!waitForRestart(delay)) return;
  }
}

/// @return false as soon as the manager was stopped.
bool PYXManager::waitForRestart(int seconds) const {
  for (int second = 0; second < seconds; ++second) {
    if (!running) return false;
    SleepOneSecond();
  }
  return true;
}

}  // namespace zav::plugin
