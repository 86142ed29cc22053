#pragma once

#include <array>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>

#include "Shim.h"

namespace zav::test {

/// What an attempt tells the test: memory that the process of the attempt shares with it, readable also when that
/// process crashed or hangs.
class Report {
 public:
  /// Notes what comes next, for the case that it never ends.
  void At(std::string_view step);
  /// Notes what is wrong; the first one stands.
  void Fail(const std::string& what);
  bool HasFailed() const { return failure[0] != '\0'; }
  std::string Failure() const { return failure.data(); }
  std::string Step() const { return step.data(); }

  /// The lines that the plug-in logged. Adding one neither allocates nor calls what can be made to fail.
  void AddLine(const char* line);
  /// Forgets, for `HasLine`, the lines so far.
  void MarkLines();
  /// Whether a line since the mark holds that text.
  bool HasLine(std::string_view part);
  /// The first lines since the mark, for a reader, when the process of the attempt has ended.
  std::string Lines() const;

  /// Whether calls are being counted: also where the process did not come to their end.
  bool isArmed = false;
  /// Calls that failed by our doing.
  long hits = 0;
  /// Calls counted while armed, by group.
  std::array<long, faults::kCallGroups> counted{};
  /// Operations of the provider that threw at the host.
  long thrown = 0;
  /// Descriptors that the plug-in keeps while it is switched off.
  size_t keptWhenOff = 0;
  /// The plug-in ended its service for good, as it says it does.
  bool isFinal = false;
  /// A damaged log came back as the defaults.
  bool fellBack = false;

 private:
  static constexpr size_t kLines = 400;
  using Line = std::array<char, 220>;

  std::array<char, 200> step{};
  std::array<char, 1000> failure{};
  /// Guards the lines among the threads of the attempt's process, which may end while one of them holds it.
  std::mutex adding;
  std::array<Line, kLines> lines{};
  size_t count = 0;
  size_t mark = 0;
};

/// Runs `attempt` in a child process and waits for its end: a crash, or no end before the deadline, is noted in the
/// report as a failure. `report` is valid until the next call.
const Report& RunInChild(const std::function<void(Report&)>& attempt, std::chrono::seconds deadline);

}  // namespace zav::test
