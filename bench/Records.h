#pragma once

#include <cstdint>
#include <string>

namespace bench {

/// What the clients of one run report. Each record tells which one it is, and all of its text follows from that: what
/// is read back can be compared whole.
struct Records {
  /// Tells the records of one run from those of another.
  std::uint32_t run = 0;
  std::uint64_t seed = 0;
  /// The length of every url, bytes; at least `kShortestUrl`.
  std::size_t urlSize = 100;

  static constexpr std::size_t kShortestUrl = 64;

  std::string Url(unsigned client, unsigned sequence) const;
  static std::string Threat(unsigned sequence);
};

}  // namespace bench
