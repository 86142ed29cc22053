#include "Shim.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <utility>

#include "Strike.h"

namespace zav::faults {
namespace {

std::array<std::atomic<long>, kCallGroups> counters{};
std::atomic<bool> armed{false};
std::atomic<bool> hurried{false};
std::atomic<long> hits{0};
/// Written while not armed.
Fault fault{};

// This model needs no memory on a thread's first look, which may come from within malloc.
__attribute__((tls_model("initial-exec"))) thread_local bool isCounted = true;

std::atomic<long>& CounterOf(Call call) {
  return counters[static_cast<size_t>(call)];
}

}  // namespace

void Arm(const Fault& next) {
  fault = next;
  hits = 0;
  for (auto& counter : counters) counter = 0;
  armed.store(true, std::memory_order_release);
}

long Disarm() {
  armed = false;
  return hits;
}

long Counted(Call call) {
  return CounterOf(call);
}

void HurrySleeps(bool hurry) {
  hurried = hurry;
}

int Strike(Call call) {
  if (!isCounted || !armed.load(std::memory_order_acquire)) return 0;
  const long number = ++CounterOf(call);
  if (call != fault.call || number < fault.first || number - fault.first >= fault.times) return 0;
  ++hits;
  return fault.error;
}

bool IsCounted() {
  return isCounted;
}

bool IsHurried() {
  return isCounted && hurried;
}

Counting::Counting(bool counted) : previous(std::exchange(isCounted, counted)) {}

Counting::~Counting() {
  isCounted = previous;
}

}  // namespace zav::faults
