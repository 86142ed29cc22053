#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/TemporaryDirectory.h"

namespace zav::client::test {

/// How a program ended and what it wrote.
struct Outcome {
  /// The exit status, or -1 when it did not end by itself.
  int status = -1;
  std::string out;
  std::string err;
};

/// How a program is started.
struct Surroundings {
  /// The whole environment.
  std::vector<std::string> environment = {"LC_ALL=C.UTF-8", "TZ=UTC"};
  /// Where standard output goes instead of into the outcome.
  std::string outPath;
};

/// Runs the pyxctl that was built, for at most 60 s.
Outcome RunPyxctl(const std::vector<std::string>& arguments, const Surroundings& surroundings = {});

/// A pyxctl that goes on; it is killed with the object, if it has not ended before.
class RunningPyxctl {
 public:
  explicit RunningPyxctl(const std::vector<std::string>& arguments, const Surroundings& surroundings = {});
  ~RunningPyxctl();
  RunningPyxctl(const RunningPyxctl&) = delete;
  RunningPyxctl& operator=(const RunningPyxctl&) = delete;

  /// What it has written so far.
  std::string out() const;
  std::string err() const;
  /// Waits until it has written a text, for at most 60 s; whether it has.
  bool HasWritten(const std::string& text) const;
  bool HasComplained(const std::string& text) const;

  void Signal(int number) const;
  /// Waits for its end, for at most 60 s; as `Outcome::status`.
  int Wait();

 private:
  zav::test::TemporaryDirectory directory_;
  std::string outPath_;
  pid_t pid_;
};

/// A terminal of 24 lines of 60 columns, and a pyxctl on it.
class PyxctlOnATerminal {
 public:
  /// @param outPath  where standard output goes instead of to the terminal.
  explicit PyxctlOnATerminal(const std::vector<std::string>& arguments,
                             std::vector<std::string> environment = {"LC_ALL=C.UTF-8", "TZ=UTC", "TERM=xterm",
                                                                     "PAGER=cat"},
                             const std::string& outPath = "");
  ~PyxctlOnATerminal();
  PyxctlOnATerminal(const PyxctlOnATerminal&) = delete;
  PyxctlOnATerminal& operator=(const PyxctlOnATerminal&) = delete;

  /// Waits until a text has been shown, for at most 60 s; whether it has.
  bool HasShown(const std::string& text);
  void Type(const std::string& text) const;
  /// Whether keys are shown as they are typed, and wait for Enter.
  bool IsUsual() const;
  void Signal(int number) const;
  /// Waits for its end, for at most 60 s; as `Outcome::status`.
  int Wait();
  /// What was shown so far, with "\n" for the ends of its lines.
  const std::string& shown();

 private:
  void Take();

  int terminal_ = -1;
  pid_t pid_ = -1;
  std::string shown_;
};

}  // namespace zav::client::test
