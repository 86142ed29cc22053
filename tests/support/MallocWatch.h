#pragma once

#include <cstddef>

/// The calls of `malloc` and `calloc` that the product's own objects make (not those within libraries), as the calling
/// thread sees them.
namespace zav::test {

class MallocWatch {
 public:
  /// The next call fails.
  static void FailNext();
  /// How many bytes the last call asked for.
  static std::size_t LastSize();
};

}  // namespace zav::test
