#pragma once

#include <ostream>
#include <set>

namespace zav::test {

/// What this process occupies.
struct Footprint {
  std::set<int> threads;
  std::set<int> descriptors;
  /// Mappings of files.
  int files = 0;
  /// All mappings, and resident memory that stands for no file, KiB. Under a sanitizer these are mostly the
  /// sanitizer's.
  int mappings = 0;
  long anonymous = 0;

  static Footprint Now();
};

std::ostream& operator<<(std::ostream& out, const Footprint& footprint);

/// Waits until there are no more threads and descriptors than before, and expects that nothing else has grown either,
/// but for what an allocator keeps back: it is given 1 MiB and 8 mappings.
/// @param before  taken when the code had worked already.
/// @return what there is now.
Footprint ExpectNoGrowth(const Footprint& before);

}  // namespace zav::test
