// The allocating functions, in front of those that the C library keeps under a second name: to look for the next malloc
// would itself allocate. `free` stays the C library's.

#include <cerrno>
#include <cstddef>

#include "Strike.h"

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* old, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace zav::faults {
namespace {

bool IsRefused() {
  if (Strike(Call::kMemory) == 0) return false;
  errno = ENOMEM;
  return true;
}

}  // namespace

#define ALLOCATION(result, name, ...)                                                          \
  result Shim_##name(__VA_ARGS__) __asm__(#name) __attribute__((visibility("default"), used)); \
  result Shim_##name(__VA_ARGS__)

ALLOCATION(void*, malloc, std::size_t size) {
  return IsRefused() ? nullptr : __libc_malloc(size);
}

ALLOCATION(void*, calloc, std::size_t count, std::size_t size) {
  return IsRefused() ? nullptr : __libc_calloc(count, size);
}

ALLOCATION(void*, realloc, void* old, std::size_t size) {
  return IsRefused() ? nullptr : __libc_realloc(old, size);
}

ALLOCATION(void*, memalign, std::size_t alignment, std::size_t size) {
  return IsRefused() ? nullptr : __libc_memalign(alignment, size);
}

ALLOCATION(void*, aligned_alloc, std::size_t alignment, std::size_t size) {
  return IsRefused() ? nullptr : __libc_memalign(alignment, size);
}

// Gives its error number as its result.
ALLOCATION(int, posix_memalign, void** memory, std::size_t alignment, std::size_t size) {
  if (IsRefused()) return ENOMEM;
  *memory = __libc_memalign(alignment, size);
  return *memory != nullptr ? 0 : ENOMEM;
}

}  // namespace zav::faults
