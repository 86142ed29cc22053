#pragma once

#include <pyxclient/pyxclient.hpp>

#include <functional>
#include <span>

#include "Exit.h"
#include "Output.h"

namespace CLI {
class App;
}

namespace zav::pyxctl {

/// What a verb has to work with.
struct Session {
  const pyxclient::Options& options;
  pyxclient::Client client;
  Output output;
};

/// What a verb does once the command line is read. A request that fails leaves it by its exception.
using Action = std::function<ExitStatus(Session&)>;

/// One verb of the command line.
struct Verb {
  const char* name;
  const char* summary;
  /// Adds the verb's arguments to its command; the action that it returns owns what they are read into.
  Action (*declare)(CLI::App& command);
  /// The form of its result unless one is asked for.
  Format format = Format::kHuman;
  /// Not for people.
  bool isHidden = false;
};

/// Every verb, in the order of the help text.
std::span<const Verb> Verbs();

/// The verbs' own functions, each in the file of its name.
Action DeclareState(CLI::App& command);
Action DeclareLogging(CLI::App& command);
Action DeclareReport(CLI::App& command);
Action DeclareStatus(CLI::App& command);
Action DeclareLog(CLI::App& command);
Action DeclareFollow(CLI::App& command);
Action DeclareTop(CLI::App& command);
Action DeclareCount(CLI::App& command);
Action DeclareExport(CLI::App& command);
Action DeclarePing(CLI::App& command);
Action DeclareDoctor(CLI::App& command);
Action DeclareReset(CLI::App& command);
Action DeclareReportPage(CLI::App& command);
Action DeclareComplete(CLI::App& command);

}  // namespace zav::pyxctl
