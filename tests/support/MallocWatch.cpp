#include "support/MallocWatch.h"

#include <cerrno>
#include <utility>

namespace {

thread_local bool failNext = false;
thread_local std::size_t lastSize = 0;

/// Whether a call for so many bytes is to go on.
bool MayHave(std::size_t size) {
  lastSize = size;
  if (!std::exchange(failNext, false)) return true;
  errno = ENOMEM;
  return false;
}

}  // namespace

namespace zav::test {

void MallocWatch::FailNext() {
  failNext = true;
}

std::size_t MallocWatch::LastSize() {
  return lastSize;
}

}  // namespace zav::test

// The linker leads every call of malloc here, and `__real_malloc` to malloc (--wrap); so with calloc.
extern "C" {
void* __real_malloc(std::size_t size);
void* __wrap_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __wrap_calloc(std::size_t count, std::size_t size);

void* __wrap_malloc(std::size_t size) {
  return MayHave(size) ? __real_malloc(size) : nullptr;
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
  return MayHave(count * size) ? __real_calloc(count, size) : nullptr;
}
}
