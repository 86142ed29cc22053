#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <iostream>
#include <map>

namespace zav::pyxctl {
namespace {

constexpr const char* kDescription = "Talks to the threat log plug-in of the device policy manager.";
constexpr const char* kFooter =
    "Exit status: 0 done, 1 the service said no, 2 usage, 3 no service, no answer within the deadline, or the outcome\n"
    "of a report is unknown, 4 this machine failed (output, memory). 'pyxctl VERB --help' shows a verb's options.";

constexpr double kShortestTimeout = 0.001;
constexpr double kLongestTimeout = 86400;

/// The options of every verb, and what each verb does, by its place in the tree of commands.
struct Declared {
  std::string socketPath = PYX_DEFAULT_SOCKET;
  double timeout = PYX_DEFAULT_TIMEOUT / 1000.0;
  std::string format = "human";
  std::map<const CLI::App*, Action> actions;
};

/// What is no number at all ("nan") is not in range either.
bool IsTimeout(double seconds) {
  return seconds >= kShortestTimeout && seconds <= kLongestTimeout;
}

void DeclareCommon(CLI::App& app, Declared& declared) {
  app.add_option("--socket", declared.socketPath, "The service's socket")->capture_default_str()->type_name("PATH");
  app.add_option("--timeout", declared.timeout, "How long to wait for the answer in all")
      ->capture_default_str()
      ->type_name("SECONDS");
  app.add_option("-o,--output", declared.format, "The result's form: for a person or for a program")
      ->check(CLI::IsMember({"human", "json"}))
      ->capture_default_str()
      ->type_name("FORMAT");
}

void Declare(CLI::App& app, Declared& declared) {
  app.footer(kFooter);
  app.set_version_flag("--version", PYXCTL_VERSION);
  app.get_formatter()->label("SUBCOMMAND", "VERB");
  // The common options may stand after the verb too.
  app.fallthrough();
  app.require_subcommand(0, 1);
  DeclareCommon(app, declared);
  for (const Verb& verb : Verbs()) {
    CLI::App* command = app.add_subcommand(verb.name, verb.summary)->group("Verbs");
    declared.actions[command] = verb.declare(*command);
  }
}

Command CommandOf(const CLI::App& app, const Declared& declared) {
  const auto verbs = app.get_subcommands();
  if (verbs.empty()) throw CLI::RequiredError("A verb");
  if (!IsTimeout(declared.timeout)) throw CLI::ValidationError("--timeout", "not in range 0.001 to 86400 seconds");
  Command command;
  command.options.socket = declared.socketPath;
  command.options.timeout = std::chrono::milliseconds(std::llround(std::ceil(declared.timeout * 1000)));
  command.format = declared.format == "json" ? Format::kJson : Format::kHuman;
  command.action = declared.actions.at(verbs.front());
  return command;
}

Command Leave(const CLI::App& app, const CLI::ParseError& error) {
  Command command;
  if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
    app.exit(error);
    return command;
  }
  Complain(std::string(error.what()) + "; see pyxctl --help");
  command.status = ExitStatus::kUsage;
  return command;
}

}  // namespace

Command ReadCommandLine(int argc, const char* const* argv) {
  CLI::App app(kDescription, "pyxctl");
  Declared declared;
  Declare(app, declared);
  try {
    app.parse(argc, argv);
    return CommandOf(app, declared);
  } catch (const CLI::ParseError& error) {
    return Leave(app, error);
  }
}

void Complain(const std::string& message) {
  std::cerr << "pyxctl: " << Printable(message) << std::endl;
}

}  // namespace zav::pyxctl
