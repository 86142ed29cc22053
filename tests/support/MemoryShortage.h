#pragma once

namespace zav::test {

/// While it lives, the calling thread gets so many more pieces of memory from `operator new`, and then none.
class MemoryShortage {
 public:
  explicit MemoryShortage(int more);
  ~MemoryShortage();
  MemoryShortage(const MemoryShortage&) = delete;
  MemoryShortage& operator=(const MemoryShortage&) = delete;
};

}  // namespace zav::test
