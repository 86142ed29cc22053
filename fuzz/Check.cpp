#include "Check.h"

#include <cstdio>
#include <cstdlib>

namespace zav::fuzz {

void Fail(const char* property, const std::string& found) {
  std::fprintf(stderr, "\nfinding: it does not hold that %s\n", property);
  if (!found.empty()) std::fprintf(stderr, "  found\n%s\n", found.c_str());
  std::abort();
}

}  // namespace zav::fuzz
