#include "TestClock.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/time.h>

#include <atomic>
#include <ctime>
#include <limits>

namespace zav::test {
namespace {

constexpr std::int64_t kAsItIs = std::numeric_limits<std::int64_t>::min();

std::atomic<std::int64_t> timeOfDay{kAsItIs};
/// How far the monotonic clock is ahead, seconds.
std::atomic<std::int64_t> ahead{0};

}  // namespace

TestClock::~TestClock() {
  timeOfDay = kAsItIs;
  ahead = 0;
}

void TestClock::Set(std::int64_t seconds) {
  timeOfDay = seconds;
}

void TestClock::Pass(std::chrono::seconds time) {
  ahead += time.count();
}

// Under the C library's names by an assembler label, as its own declarations get in the way otherwise.
#define INTERPOSED(name) __asm__(#name) __attribute__((visibility("default"), used))

time_t Time(time_t* result) INTERPOSED(time);
int GetTimeOfDay(timeval* result, void* zone) INTERPOSED(gettimeofday);
int ClockGetTime(clockid_t clock, timespec* result) INTERPOSED(clock_gettime);
int CondClockWait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock, const timespec* until)
    INTERPOSED(pthread_cond_clockwait);

namespace {

template <class Function>
Function* Find(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

time_t Time(time_t* result) {
  static auto* const next = Find<decltype(Time)>("time");
  const std::int64_t set = timeOfDay;
  const time_t now = set != kAsItIs ? set : next(nullptr);
  if (result != nullptr) *result = now;
  return now;
}

int GetTimeOfDay(timeval* result, void* zone) {
  static auto* const next = Find<decltype(GetTimeOfDay)>("gettimeofday");
  const std::int64_t set = timeOfDay;
  const int code = next(result, zone);
  if (set != kAsItIs) *result = timeval{set, 0};
  return code;
}

int ClockGetTime(clockid_t clock, timespec* result) {
  static auto* const next = Find<decltype(ClockGetTime)>("clock_gettime");
  const std::int64_t set = timeOfDay;
  const int code = next(clock, result);
  if (clock == CLOCK_REALTIME && set != kAsItIs) *result = timespec{set, 0};
  if (clock == CLOCK_MONOTONIC) result->tv_sec += ahead;
  return code;
}

int CondClockWait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock, const timespec* until) {
  static auto* const next = Find<decltype(CondClockWait)>("pthread_cond_clockwait");
  timespec kernels = *until;
  if (clock == CLOCK_MONOTONIC) kernels.tv_sec -= ahead;
  return next(condition, mutex, clock, &kernels);
}

}  // namespace zav::test
