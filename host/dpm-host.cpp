// dpm-host: loads a plug-in as the device policy manager does and drives it.

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <memory>
#include <stdexcept>

#include "CommandTable.h"
#include "Console.h"
#include "DirectoryLock.h"
#include "Options.h"
#include "Plugin.h"
#include "ServiceManager.h"
#include "Signals.h"
#include "StatusStorage.h"
#include "StreamSource.h"
#include "TerminalSource.h"
#include "dlog/control.h"

namespace {

constexpr const char* kPrompt = "dpm> ";
constexpr const char* kStatusFile = "/status.db";

void SetUpLog(const host::Options& options) {
  dlog::SetLevel(options.logLevel);
  if (options.logFile.empty()) return;
  const int error = dlog::SetFile(options.logFile.c_str());
  if (error != 0) throw std::runtime_error("can't open the log " + options.logFile + ": " + std::strerror(error));
}

/// The line editor needs a terminal at both ends.
std::unique_ptr<host::LineSource> MakeInput() {
  if (isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1) {
    return std::make_unique<host::TerminalSource>(kPrompt, host::CommandTable::Words());
  }
  return std::make_unique<host::StreamSource>(STDIN_FILENO, host::CommandTable::kMaxLine + 1);
}

void Run(const host::Options& options) {
  const host::Signals signals;
  // An answer that nobody reads is an error to report, not a reason to die.
  std::signal(SIGPIPE, SIG_IGN);
  SetUpLog(options);

  const host::DirectoryLock lock(options.stateDirectory);
  host::StatusStorage storage(options.stateDirectory + kStatusFile);
  host::Plugin plugin(options.library);
  host::CommandTable commands(plugin);
  const std::unique_ptr<host::LineSource> input = MakeInput();
  host::ServiceManager manager;
  host::ServiceManager::Ready();
  host::Console(*input, commands, signals, manager, options.serve, stdout).Run();
  host::ServiceManager::Stopping();
}

}  // namespace

int main(int argc, char** argv) {
  host::Options options;
  if (const auto status = host::Options::Parse(argc, argv, options, std::cout, std::cerr)) return *status;
  try {
    Run(options);
    return host::Options::kDone;
  } catch (const std::exception& error) {
    std::cerr << "dpm-host: " << error.what() << '\n';
    return host::Options::kFailed;
  }
}
