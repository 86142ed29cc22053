#include <unistd.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <memory>
#include <string>

#include "Verbs.h"

namespace zav::pyxctl {
namespace {

/// Whether the person at the terminal says so. The question is no part of the result.
bool IsConfirmed() {
  std::cerr << "Delete every record of the log? [y/N] " << std::flush;
  std::string answer;
  std::getline(std::cin, answer);
  return answer == "y" || answer == "Y" || answer == "yes";
}

ExitStatus Reset(Session& session) {
  static constexpr const char* kColumns[] = {"reset"};
  session.client.Reset();
  Json::Value row;
  row["reset"] = true;
  session.output.WriteRow(kColumns, row, [](std::ostream& out) { out << "The log is empty.\n"; });
  return ExitStatus::kDone;
}

}  // namespace

Action DeclareReset(CLI::App& command) {
  auto isSure = std::make_shared<bool>(false);
  command.add_flag("-y,--yes", *isSure, "Do not ask");
  return [isSure](Session& session) {
    if (*isSure) return Reset(session);
    if (::isatty(STDIN_FILENO) == 0) {
      Complain("reset deletes every record; say --yes where nobody can be asked");
      return ExitStatus::kUsage;
    }
    if (IsConfirmed()) return Reset(session);
    Complain("nothing was deleted");
    return ExitStatus::kRejected;
  };
}

}  // namespace zav::pyxctl
