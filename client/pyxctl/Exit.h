#pragma once

#include <string>

namespace zav::pyxctl {

/// The exit statuses of the program. They stay what they are.
enum class ExitStatus {
  kDone = 0,
  /// It was not done, and it is clear that it was not: the service said no, the person did, or `doctor` found a
  /// problem.
  kRejected = 1,
  kUsage = 2,
  /// No service, no answer within the deadline, an answer that cannot be read, or a report whose outcome is not known.
  kNoAnswer = 3,
  /// This machine could not do its part: the output could not be written, or it is out of memory or descriptors.
  kLocalFailure = 4,
};

/// The statuses in words, for the help.
constexpr const char* kExitStatusHelp =
    "Exit status: 0 done, 1 not done (the service said no, you did, or doctor found a problem), 2 usage, 3 no "
    "service,\n"
    "no answer within the deadline, or the outcome of a report is unknown, 4 this machine failed (output, memory).\n"
    "'pyxctl VERB --help' shows a verb's options.";

/// Writes `message`, made printable, as one line on standard error.
void Complain(const std::string& message);

}  // namespace zav::pyxctl
