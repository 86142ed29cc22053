#pragma once

#include <iosfwd>
#include <optional>
#include <string>

#include "dlog/dlog.h"

namespace host {

/// What the command line of `dpm-host` says.
struct Options {
  /// Exit statuses of `dpm-host`.
  static constexpr int kDone = 0;
  static constexpr int kFailed = 1;
  static constexpr int kUsage = 2;

  /// The plug-in's library; an absolute path.
  std::string library;
  /// Where the host keeps its own files; an absolute path. Made when missing.
  std::string stateDirectory;
  /// The log file; empty: standard error.
  std::string logFile;
  /// The least `DlogPriority` that is logged.
  int logLevel = DLOG_INFO;
  /// Whether the host goes on after the end of its input.
  bool serve = false;

  /// Reads the command line.
  ///
  /// @param out  takes the help text.
  /// @param err  takes what is wrong with the command line.
  /// @return nothing when the host is to start with `options`; else the exit status to end with.
  static std::optional<int> Parse(int argc, const char* const* argv, Options& options, std::ostream& out,
                                  std::ostream& err);
};

}  // namespace host
