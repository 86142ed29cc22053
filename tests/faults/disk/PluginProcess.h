#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "faults/disk/SmallLog.h"
#include "integration/Library.h"

namespace zav::test {

/// A process forked from the test, which it does not outlive.
class ForkedProcess {
 public:
  /// @param work  runs there; its result is the exit status.
  explicit ForkedProcess(const std::function<int()>& work);
  /// Kills it if it still runs.
  ~ForkedProcess();
  ForkedProcess(const ForkedProcess&) = delete;
  ForkedProcess& operator=(const ForkedProcess&) = delete;

  pid_t id() const { return process; }
  bool HasEnded() const;
  /// Ends it at once, wherever it is. Any thread.
  void Kill() const;
  /// Waits for its end.
  /// @return the exit status; 128 and the signal's number when a signal ended it; nothing when it did not end in time
  ///         and was killed.
  std::optional<int> Wait(std::chrono::seconds deadline = std::chrono::seconds(60));

 private:
  bool EndsWithin(std::chrono::milliseconds time) const;

  pid_t process = -1;
  int handle = -1;
  std::optional<int> status;
};

/// The plug-in as a daemon has it, in a process that may be killed at any time.
class PluginProcess {
 public:
  /// Nothing of the plug-in runs before `Start`.
  /// @param prepare  runs in the process before that.
  explicit PluginProcess(const std::function<void()>& prepare = {});
  ~PluginProcess();

  /// Lets it ask for the provider. Any thread.
  void Start() const;

  pid_t id() const { return process->id(); }
  bool HasEnded() const { return process->HasEnded(); }
  void Kill() const { process->Kill(); }
  /// Unloads the plug-in and ends. @throws std::runtime_error when that fails.
  void Leave();
  /// Kills it and waits until it is gone.
  void End();

  /// Asks over the socket, again while the service is busy.
  /// @return the answer; nothing when the process ended before there was one. Any thread.
  std::optional<int> Send(const ThreatReport& report) const;
  std::optional<int> SendReset() const;
  /// Waits until the service answers a question that changes nothing. @return whether it did.
  bool Answers() const;

 private:
  template <class Exchange>
  std::optional<int> Ask(Exchange exchange) const;

  int control = -1;
  std::optional<ForkedProcess> process;
};

/// What became of a start of the plug-in on the files as they are, and of a report after it.
struct Trial {
  /// Runs before the library does anything.
  std::function<void()> prepare = [] {};
  /// Runs between the start and the report.
  std::function<void()> between = [] {};
  ThreatReport report;
};

/// What `Try` says of a report that was answered with -1.
inline const std::string kNotSavedText = "the report is not saved";

/// Runs that in a process. @return empty when the report was answered with 0, else what happened.
std::string Try(const Trial& trial);

}  // namespace zav::test
