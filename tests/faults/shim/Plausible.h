#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "Shim.h"

namespace zav::test {

/// A group of calls and what the system may plausibly refuse them with, the most plausible first.
struct Plausible {
  faults::Call call;
  const char* name;
  /// Error numbers, or `faults::kShort`.
  std::vector<int> errors;
};

extern const std::vector<Plausible> kPlausible;

inline void PrintTo(const Plausible& group, std::ostream* out) {
  *out << group.name;
}

/// "ENOSPC"; "short".
std::string NameOf(int error);

}  // namespace zav::test
