#include "Options.h"

#include <CLI/CLI.hpp>
#include <filesystem>
#include <map>

namespace host {
namespace {

const std::map<std::string, int> kLevels{
    {"debug", DLOG_DEBUG}, {"info", DLOG_INFO}, {"warning", DLOG_WARN}, {"error", DLOG_ERROR}};

void Describe(CLI::App& app, Options& options) {
  app.add_option("--library", options.library, "The plug-in's library")->required()->type_name("PATH");
  app.add_option("--state-dir", options.stateDirectory, "Where the recorded statuses are kept; one host at a time")
      ->required()
      ->type_name("DIR");
  app.add_option("--log", options.logFile, "Where the log goes (default: standard error)")->type_name("FILE");
  app.add_option_function<std::string>(
         "--log-level", [&options](const std::string& name) { options.logLevel = kLevels.at(name); },
         "The least urgent lines that are logged (default: info)")
      ->check(CLI::IsMember(kLevels))
      ->type_name("LEVEL");
  app.add_flag("--serve", options.serve, "Go on after the end of the input, until SIGINT or SIGTERM");
  app.footer(
      "Reads one command a line from standard input and answers each with one line; \"help\" lists them.\n"
      "Exit status: 0 ended cleanly, 1 the plug-in could not be loaded or started, 2 usage.");
}

}  // namespace

std::optional<int> Options::Parse(int argc, const char* const* argv, Options& options, std::ostream& out,
                                  std::ostream& err) {
  CLI::App app("Loads a plug-in as the device policy manager does and drives it.", "dpm-host");
  Describe(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error, out, err) == kDone ? kDone : kUsage;
  }

  // dlopen looks a bare name up in the system's directories; here it means a file.
  options.library = std::filesystem::absolute(options.library);
  options.stateDirectory = std::filesystem::absolute(options.stateDirectory);
  return std::nullopt;
}

}  // namespace host
