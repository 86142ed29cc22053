#pragma once

#include <pyxclient/pyxclient.hpp>

#include <functional>
#include <span>

#include "Output.h"

namespace CLI {
class App;
}

namespace zav::pyxctl {

/// What a verb does once the command line is read: one call of the client, and its result to the output.
using Action = std::function<void(pyxclient::Client&, const Output&)>;

/// A stretch of time, both ends included.
struct TimeRange {
  pyxclient::Time from = pyxclient::kBeginning;
  pyxclient::Time to = pyxclient::kEnd;
};

/// One verb of the command line.
struct Verb {
  const char* name;
  const char* summary;
  /// Adds the verb's arguments to its command; the action that it returns owns what they are read into.
  Action (*declare)(CLI::App& command);
};

/// Every verb, in the order of the help text.
std::span<const Verb> Verbs();

/// The verbs' own functions, each in the file of its name.
Action DeclareState(CLI::App& command);
Action DeclareLogging(CLI::App& command);
Action DeclareReport(CLI::App& command);
Action DeclareStatus(CLI::App& command);
Action DeclareLog(CLI::App& command);
Action DeclareCount(CLI::App& command);
Action DeclareReset(CLI::App& command);

/// Adds an option that takes a number from 0 up.
void DeclareNumber(CLI::App& command, const char* name, std::int32_t& number, const char* unit, const char* meaning);

/// Adds the options --since, --until and --last. What they name is counted from the time when they are added.
void DeclareRange(CLI::App& command, TimeRange& range);

}  // namespace zav::pyxctl
