#include "Clock.h"

#include <ctime>

namespace zav::fuzz {
namespace {

int now = 0;

}  // namespace

void Clock::Set(int seconds) {
  now = seconds;
}

int Clock::Now() {
  return now;
}

}  // namespace zav::fuzz

extern "C" std::time_t __wrap_time(std::time_t* result);

extern "C" std::time_t __wrap_time(std::time_t* result) {
  const std::time_t now = zav::fuzz::Clock::Now();
  if (result != nullptr) *result = now;
  return now;
}
