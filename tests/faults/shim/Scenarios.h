#pragma once

#include <chrono>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "Attempt.h"
#include "Host.h"
#include "Requests.h"

namespace zav::test {

/// The course of one attempt, in a process of its own.
struct Session {
  Session(Report& to, const faults::Fault& with, std::chrono::milliseconds wait)
      : report(to), fault(with), patience(wait), host(to) {}

  Report& report;
  faults::Fault fault;
  /// How long to wait for something while calls fail.
  std::chrono::milliseconds patience;
  // Before the plug-in was loaded.
  std::set<int> descriptors;
  std::set<int> threads;
  Host host;
  /// What the log must hold from here on.
  std::vector<std::string> acknowledged;
  /// The request that was made while calls failed.
  std::optional<Request> request;
  std::string reply;
};

/// What a device holds when the plug-in comes to it.
enum class Device {
  /// Nothing but the default policies.
  kNew,
  /// A log with some records, and its backup.
  kUsed,
  /// The same after the power failed in the middle of a write: a part of it stands in the database, and the journal
  /// holds what was there before.
  kCutOff
};

/// Something that a daemon has its plug-in do.
struct Scenario {
  /// As it stands in a test's name.
  const char* name;
  Device device;
  /// What comes before, while nothing fails.
  void (*prepare)(Session& session);
  /// The part in which calls fail.
  void (*act)(Session& session);
  /// What is to be seen right after, when nothing fails any more.
  void (*settle)(Session& session);
};

extern const std::vector<Scenario> kScenarios;

inline void PrintTo(const Scenario& scenario, std::ostream* out) {
  *out << scenario.name;
}

/// Lays out the device that a scenario starts with; in the process of the test, before the attempt's.
void LayOutDevice(const Scenario& scenario);

}  // namespace zav::test
