#include "support/MemoryShortage.h"

#include <cstdlib>
#include <new>

namespace zav::test {
namespace {

constexpr int kNoShortage = -1;
thread_local int left = kNoShortage;

bool TakeOne() {
  if (left == 0) return false;
  if (left > 0) --left;
  return true;
}

}  // namespace

MemoryShortage::MemoryShortage(int more) {
  left = more;
}

MemoryShortage::~MemoryShortage() {
  left = kNoShortage;
}

}  // namespace zav::test

// In the place of the standard library's own, for the whole process. The forms for arrays, and those that do not throw,
// come to these.
void* operator new(std::size_t size) {
  // Not by malloc, whose calls a test may watch.
  void* const memory = zav::test::TakeOne() ? std::calloc(1, size != 0 ? size : 1) : nullptr;
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
