#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <iostream>
#include <map>

#include "Text.h"

namespace zav::pyxctl {
namespace {

constexpr const char* kDescription = "Talks to the threat log plug-in of the device policy manager.";
constexpr double kShortestTimeout = 0.001;
constexpr double kLongestTimeout = 86400;

/// The options of every verb, and what each verb does, by its place in the tree of commands.
struct Declared {
  std::string socketPath = PYX_DEFAULT_SOCKET;
  double timeout = PYX_DEFAULT_TIMEOUT / 1000.0;
  std::string format;
  bool isUnpaged = false;
  struct OfVerb {
    Action action;
    Format format;
  };
  std::map<const CLI::App*, OfVerb> verbs;
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
  app.add_option("-o,--output", declared.format, "The result's form: human (default), json, ndjson or csv")
      ->check(CLI::IsMember(FormatNames()).description(""))
      ->type_name(kFormatUnit);
  app.add_flag("--no-pager", declared.isUnpaged, "Show a long result on the terminal as it is");
}

void Declare(CLI::App& app, Declared& declared) {
  app.footer(kExitStatusHelp);
  app.set_version_flag("-V,--version", PYXCTL_VERSION);
  app.get_formatter()->label("SUBCOMMAND", "VERB");
  // The common options may stand after the verb too.
  app.fallthrough();
  app.require_subcommand(0, 1);
  DeclareCommon(app, declared);
  for (const Verb& verb : Verbs()) {
    CLI::App* command = app.add_subcommand(verb.name, verb.summary)->group(verb.isHidden ? "" : "Verbs");
    declared.verbs[command] = {verb.declare(*command), verb.format};
  }
}

Command CommandOf(const CLI::App& app, const Declared& declared) {
  const auto verbs = app.get_subcommands();
  if (verbs.empty()) throw CLI::RequiredError("A verb");
  if (!IsTimeout(declared.timeout)) throw CLI::ValidationError("--timeout", "not in range 0.001 to 86400 seconds");
  Command command;
  command.options.socket = declared.socketPath;
  command.options.timeout = std::chrono::milliseconds(std::llround(std::ceil(declared.timeout * 1000)));
  const auto& [action, usualFormat] = declared.verbs.at(verbs.front());
  command.format = declared.format.empty() ? usualFormat : FormatNames().at(declared.format);
  command.isPaged = !declared.isUnpaged;
  command.action = action;
  return command;
}

Command Leave(const CLI::App& app, const CLI::ParseError& error) {
  Command command;
  if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
    app.exit(error);
    return command;
  }
  const auto verbs = app.get_subcommands();
  const std::string verb = verbs.empty() ? "" : verbs.front()->get_name() + " ";
  Complain(std::string(error.what()) + "; see pyxctl " + verb + "--help");
  command.status = ExitStatus::kUsage;
  return command;
}

constexpr const char* kName = "pyxctl";

/// The words behind the program's name, the last one first as the library takes them. "help log" is "log --help".
std::vector<std::string> WordsOf(int argc, const char* const* argv) {
  std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
  if (!words.empty() && words.front() == "help") {
    words.erase(words.begin());
    words.emplace_back("--help");
  }
  std::reverse(words.begin(), words.end());
  return words;
}

}  // namespace

const std::map<std::string, Format>& FormatNames() {
  static const std::map<std::string, Format> kNames = {
      {"human", Format::kHuman}, {"json", Format::kJson}, {"ndjson", Format::kNdjson}, {"csv", Format::kCsv}};
  return kNames;
}

Command ReadCommandLine(int argc, const char* const* argv) {
  CLI::App app(kDescription, kName);
  Declared declared;
  Declare(app, declared);
  try {
    app.parse(WordsOf(argc, argv));
    return CommandOf(app, declared);
  } catch (const CLI::ParseError& error) {
    return Leave(app, error);
  }
}

void ShowCommandLine(const std::function<void(const CLI::App&)>& look) {
  CLI::App app(kDescription, kName);
  Declared declared;
  Declare(app, declared);
  look(app);
}

void Complain(const std::string& message) {
  std::cerr << "pyxctl: " << Printable(message) << std::endl;
}

}  // namespace zav::pyxctl
