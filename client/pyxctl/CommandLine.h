#pragma once

#include <pyxclient/pyxclient.hpp>

#include "Verbs.h"

namespace zav::pyxctl {

/// The exit statuses of the program.
enum class ExitStatus {
  kDone = 0,
  /// The service answered that it did not do what was asked.
  kRejected = 1,
  kUsage = 2,
  /// No service, no answer within the deadline, an answer that cannot be read, or a report whose outcome is not known.
  kNoAnswer = 3,
  /// This machine could not do its part: the output could not be written, or it is out of memory or descriptors.
  kLocalFailure = 4,
};

/// What the command line asks for.
struct Command {
  pyxclient::Options options;
  Format format = Format::kHuman;
  /// Empty when there is nothing to do but to leave with `status`: the help was shown, or an error.
  Action action;
  ExitStatus status = ExitStatus::kDone;
};

/// Reads the command line; shows the help on standard output and what is wrong with it on standard error.
Command ReadCommandLine(int argc, const char* const* argv);

/// Writes `message`, made printable, as one line on standard error.
void Complain(const std::string& message);

}  // namespace zav::pyxctl
