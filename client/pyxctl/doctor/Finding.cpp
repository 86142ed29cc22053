#include "doctor/Finding.h"

#include <algorithm>
#include <array>

namespace zav::pyxctl::doctor {

const char* NameOf(Severity severity) {
  constexpr std::array kNames = {"ok", "note", "warning", "problem"};
  return kNames.at(static_cast<std::size_t>(severity));
}

bool IsSound(const Findings& findings) {
  return std::none_of(findings.begin(), findings.end(),
                      [](const Finding& each) { return each.severity == Severity::kProblem; });
}

}  // namespace zav::pyxctl::doctor
