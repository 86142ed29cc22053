#include "support/MallocWatch.h"

#include <cerrno>
#include <utility>

namespace {

thread_local bool failNext = false;
thread_local std::size_t lastSize = 0;

}  // namespace

namespace zav::test {

void MallocWatch::FailNext() {
  failNext = true;
}

std::size_t MallocWatch::LastSize() {
  return lastSize;
}

}  // namespace zav::test

// The linker leads every call of malloc here, and `__real_malloc` to malloc (--wrap).
extern "C" {
void* __real_malloc(std::size_t size);
void* __wrap_malloc(std::size_t size);

void* __wrap_malloc(std::size_t size) {
  lastSize = size;
  if (!std::exchange(failNext, false)) return __real_malloc(size);
  errno = ENOMEM;
  return nullptr;
}
}
