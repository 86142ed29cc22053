#include "Records.h"

#include <array>
#include <cstdio>

namespace bench {
namespace {

/// A step of Marsaglia's xorshift: cheap beside what is measured.
std::uint64_t Next(std::uint64_t state) {
  state ^= state << 13U;
  state ^= state >> 7U;
  return state ^ (state << 17U);
}

}  // namespace

std::string Records::Url(unsigned client, unsigned sequence) const {
  constexpr char letters[] = "abcdefghijklmnopqrstuvwxyz0123456789-_~.ABCDEFGHIJKLMNOPQRSTUVWX";
  std::array<char, kShortestUrl> head{};
  const int length = snprintf(head.data(), head.size(), "http://c%u.r%u.example/%u/", client, run, sequence);
  std::string url(head.data(), static_cast<std::size_t>(length));
  std::uint64_t state = seed * 1000003 + (std::uint64_t{client} << 32U) + sequence + 1;
  // Eight letters a step: a url of a megabyte must not take longer to make than to report.
  while (url.size() < urlSize) {
    state = Next(state);
    std::array<char, 8> some{};
    for (std::size_t at = 0; at < some.size(); ++at) some[at] = letters[(state >> (8 * at)) & 63U];
    url.append(some.data(), some.size());
  }
  url.resize(urlSize);
  return url;
}

std::string Records::Threat(unsigned sequence) {
  constexpr std::array threats{"phishing", "malware", "tracker"};
  return threats[sequence % threats.size()];
}

}  // namespace bench
