#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zav::pyxctl::doctor {

enum class Severity : std::uint8_t {
  /// It is as it should be.
  kOk,
  /// Worth knowing; nothing has to be done.
  kNote,
  /// It works, but not as somebody may think, or not for long; or it could not be looked at.
  kWarning,
  /// Something does not work, or loses data when the next thing goes wrong.
  kProblem,
};

/// "ok", "note", "warning", "problem".
const char* NameOf(Severity severity);

/// One thing that an examination found. Its texts may hold what stands in a file, any bytes: who shows them makes them
/// printable.
struct Finding {
  Severity severity = Severity::kOk;
  /// What was examined, such as "socket".
  std::string subject;
  /// How it is, in words, without a full stop.
  std::string message;
  /// What to do about it; empty where there is nothing to do.
  std::string advice;

  bool operator==(const Finding&) const = default;
};

using Findings = std::vector<Finding>;

/// Whether nothing is a problem.
bool IsSound(const Findings& findings);

}  // namespace zav::pyxctl::doctor
