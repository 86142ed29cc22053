#pragma once

#include <pyxclient/pyxclient.hpp>

#include <functional>
#include <map>
#include <string>

#include "Verbs.h"

namespace zav::pyxctl {

/// What the command line asks for.
struct Command {
  pyxclient::Options options;
  Format format = Format::kHuman;
  bool isPaged = true;
  /// Empty when there is nothing to do but to leave with `status`: the help was shown, or an error.
  Action action;
  ExitStatus status = ExitStatus::kDone;
};

/// What --output takes, and the word that stands for that in the help.
const std::map<std::string, Format>& FormatNames();
inline constexpr const char* kFormatUnit = "FORMAT";

/// Reads the command line; shows the help on standard output and what is wrong with it on standard error.
Command ReadCommandLine(int argc, const char* const* argv);

/// Gives `look` the whole tree of commands, as it is declared.
void ShowCommandLine(const std::function<void(const CLI::App&)>& look);

}  // namespace zav::pyxctl
