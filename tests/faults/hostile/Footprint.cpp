#include "Footprint.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <fstream>
#include <string>

#include "support/ThisProcess.h"
#include "support/WaitUntil.h"

namespace zav::test {
namespace {

#ifndef ZAV_MEMORY_IS_THE_SANITIZERS
constexpr int kSpareMappings = 8;
constexpr long kSpareKibibytes = 1024;
#endif

void CountMappings(Footprint& footprint) {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    ++footprint.mappings;
    if (line.find('/') != std::string::npos) ++footprint.files;
  }
}

long AnonymousKibibytes() {
  const std::string name = "RssAnon:";
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name)) return std::stol(line.substr(name.size()));
  }
  return 0;
}

}  // namespace

Footprint Footprint::Now() {
#ifndef ZAV_MEMORY_IS_THE_SANITIZERS
  // What malloc keeps for later is nobody's.
  malloc_trim(0);
#endif
  Footprint now;
  now.threads = ThreadIds();
  now.descriptors = Descriptors();
  CountMappings(now);
  now.anonymous = AnonymousKibibytes();
  return now;
}

std::ostream& operator<<(std::ostream& out, const Footprint& footprint) {
  return out << footprint.threads.size() << " threads, " << footprint.descriptors.size() << " descriptors, "
             << footprint.mappings << " mappings (" << footprint.files << " of files), " << footprint.anonymous
             << " KiB";
}

Footprint ExpectNoGrowth(const Footprint& before) {
  EXPECT_TRUE(WaitUntil([&] {
    return ThreadIds().size() <= before.threads.size() && Descriptors().size() <= before.descriptors.size();
  }));
  Footprint after = Footprint::Now();
  EXPECT_LE(after.threads.size(), before.threads.size());
  EXPECT_LE(after.descriptors.size(), before.descriptors.size()) << testing::PrintToString(after.descriptors);
  EXPECT_LE(after.files, before.files);
#ifndef ZAV_MEMORY_IS_THE_SANITIZERS
  EXPECT_LE(after.mappings, before.mappings + kSpareMappings);
  EXPECT_LE(after.anonymous, before.anonymous + kSpareKibibytes);
#endif
  return after;
}

}  // namespace zav::test
