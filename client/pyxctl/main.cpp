#include <unistd.h>

#include <array>
#include <clocale>
#include <exception>
#include <iostream>

#include "CommandLine.h"

namespace zav::pyxctl {
namespace {

using pyxclient::Failure;

/// How the program ends after a failed request, and what the person can do about it.
struct Consequence {
  Failure kind;
  ExitStatus status;
  const char* advice;
};

constexpr std::array kConsequences = {
    Consequence{Failure::kNoService, ExitStatus::kNoAnswer,
                "check that the plug-in is loaded and switched on, or name its socket with --socket"},
    Consequence{Failure::kRefused, ExitStatus::kNoAnswer, "try again, or wait longer with --timeout"},
    Consequence{Failure::kTimedOut, ExitStatus::kNoAnswer, "try again, or wait longer with --timeout"},
    Consequence{Failure::kMalformed, ExitStatus::kNoAnswer,
                "check that the socket is the plug-in's and that both are of one version"},
    Consequence{Failure::kRejected, ExitStatus::kRejected, "the platform log may say more"},
    Consequence{Failure::kUnknownOutcome, ExitStatus::kNoAnswer,
                "look with 'pyxctl log -n 10' before asking for it again"},
    Consequence{Failure::kTooLarge, ExitStatus::kNoAnswer, "look at the rest with 'pyxctl log'"},
    Consequence{Failure::kOutOfRange, ExitStatus::kUsage, "see pyxctl --help"},
    Consequence{Failure::kSystem, ExitStatus::kLocalFailure, "try again"},
};

ExitStatus Explain(const pyxclient::Error& error) {
  for (const Consequence& consequence : kConsequences) {
    if (consequence.kind != error.failure()) continue;
    Complain(std::string(error.what()) + "; " + consequence.advice);
    return consequence.status;
  }
  Complain(error.what());
  return ExitStatus::kLocalFailure;
}

ExitStatus Run(const Command& command) {
  if (!command.action) return command.status;
  // A table for programs is in Unicode wherever it is made.
  if (command.format != Format::kHuman) std::setlocale(LC_CTYPE, "C.UTF-8");
  Session session{command.options, pyxclient::Client(command.options),
                  Output(std::cout, command.format, TerminalOf(STDOUT_FILENO), command.isPaged)};
  return command.action(session);
}

ExitStatus Main(int argc, const char* const* argv) try {
  const ExitStatus status = Run(ReadCommandLine(argc, argv));
  if (std::cout.flush()) return status;
  Complain("the output cannot be written; check where it goes");
  return ExitStatus::kLocalFailure;
} catch (const pyxclient::Error& error) {
  return Explain(error);
} catch (const std::exception& error) {
  Complain(error.what());
  return ExitStatus::kLocalFailure;
}

}  // namespace
}  // namespace zav::pyxctl

int main(int argc, char** argv) {
  std::setlocale(LC_CTYPE, "");
  return static_cast<int>(zav::pyxctl::Main(argc, argv));
}
