#pragma once

#include <cstdio>

#include "CommandTable.h"
#include "LineSource.h"
#include "ServiceManager.h"
#include "Signals.h"

namespace host {

/// The host's main loop: waits for a command or a signal, answers each command with one line, and gives the service
/// manager its signs of life. One thread.
class Console {
 public:
  /// @param serve   whether it goes on after the end of the input.
  /// @param output  where the answers go, each at once.
  /// All but `serve` must outlive it.
  Console(LineSource& input, CommandTable& commands, const Signals& signals, ServiceManager& manager, bool serve,
          std::FILE* output);

  /// Returns after `quit`, a signal, or the end of the input when it does not serve on. A signal is looked at between
  /// two commands.
  /// @throws std::system_error when an answer cannot be written.
  void Run();

 private:
  struct Wake {
    bool input;
    bool signal;
  };

  Wake Wait() const;
  void Answer();

  LineSource& input;
  CommandTable& commands;
  const Signals& signals;
  ServiceManager& manager;
  const bool serve;
  std::FILE* output;
};

}  // namespace host
