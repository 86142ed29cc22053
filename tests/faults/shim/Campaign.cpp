#include "Campaign.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "Checks.h"
#include "support/ThisProcess.h"

namespace zav::test {
namespace {

using faults::Call;
using faults::Fault;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr long kNever = std::numeric_limits<long>::max();
/// For an attempt whose every step may have to wait.
constexpr seconds kAttemptDeadline{90};
/// What one fault delays ends by itself; what fails for good ends when the fault does.
constexpr milliseconds kPatience{2000};
constexpr milliseconds kPatienceForGood{200};
/// So many calls of a group are all tried, in the short form too.
constexpr long kFewCalls = 20;
/// More of one kind say nothing new.
constexpr long kShownFailures = 10;
// The first places are all tried: while a library is being loaded there is nobody yet who could catch anything.
constexpr long kEachOf = 50;

std::string Setting(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : "";
}

bool IsNumber(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == text.npos;
}

const Plausible& GroupNamed(const std::string& name) {
  const auto found =
      std::find_if(kPlausible.begin(), kPlausible.end(), [&](const Plausible& each) { return each.name == name; });
  if (found == kPlausible.end()) throw std::runtime_error("no group of calls is named " + name);
  return *found;
}

int ErrorNamed(const Plausible& group, const std::string& name) {
  const auto found =
      std::find_if(group.errors.begin(), group.errors.end(), [&](int each) { return NameOf(each) == name; });
  if (found == group.errors.end()) throw std::runtime_error("no error of that group is named " + name);
  return *found;
}

/// A signal comes between a call or two, but not for ever: who is interrupted may well try again until it is not.
bool IsPossible(int error, const Kind& kind) {
  return error != EINTR || kind.times == 1;
}

std::vector<Plausible> GroupsOf(const Kind& kind) {
  std::vector<Plausible> groups;
  std::copy_if(kPlausible.begin(), kPlausible.end(), std::back_inserter(groups),
               [&](const Plausible& each) { return (each.call == Call::kMemory) == kind.isMemory; });
  return groups;
}

std::string FaultName(const Plausible& group, int error, long first) {
  return std::string(group.name) + ":" + NameOf(error) + ":" + std::to_string(first);
}

}  // namespace

void Attempt(const Scenario& scenario, const Fault& fault, size_t keptWhenOff, Report& report) {
  const faults::Counting uncounted(false);
  faults::HurrySleeps(true);
  // Never ended: a plug-in whose service has ended for good ends the process that unloads it.
  Session& session = *new Session(report, fault, fault.times == kNever ? kPatienceForGood : kPatience);
  scenario.prepare(session);
  report.MarkLines();
  report.isArmed = true;
  faults::Arm(fault);
  scenario.act(session);
  report.hits = faults::Disarm();
  report.isArmed = false;
  for (size_t call = 0; call < report.counted.size(); ++call) {
    report.counted[call] = faults::Counted(static_cast<Call>(call));
  }
  scenario.settle(session);
  CheckAll(session, keptWhenOff);
}

const Report& Campaign::Try(const Fault& fault, const std::string& name) {
  LayOutDevice(scenario);
  const Report& report = RunInChild([&](Report& to) { Attempt(scenario, fault, keptWhenOff, to); }, kAttemptDeadline);
  ++attempts;
  met += report.hits > 0 ? 1 : 0;
  final += report.isFinal ? 1 : 0;
  thrown += report.thrown;
  fellBack += report.fellBack ? 1 : 0;
  if (report.HasFailed()) Blame(report, name);
  return report;
}

const Report& Campaign::TryNone() {
  return Try({Call::kOpen, EMFILE, kNever, 1}, "none");
}

void Campaign::Blame(const Report& report, const std::string& name) {
  ++failures;
  if (failures > kShownFailures) return;
  ADD_FAILURE() << "ZAV_FAULTS=" << name << ' ' << scenario.name << ", " << kind.name << ": " << report.Failure()
                << "\n  the plug-in's lines from there on:\n"
                << report.Lines();
}

void Campaign::TryAll(const Plausible& group, size_t errors, long stride) {
  for (size_t index = 0; index < std::min(errors, group.errors.size()); ++index) {
    const int error = group.errors[index];
    if (!IsPossible(error, kind)) continue;
    for (long first = 1;; first += first < kEachOf ? 1 : stride) {
      const Report& report = Try({group.call, error, first, kind.times}, FaultName(group, error, first));
      // Where the host is gone before it could tell, the fault was met.
      if (report.hits == 0 && !report.isArmed) break;
      if (failures >= mostFailures) return;
    }
  }
}

void Campaign::TryAtRandom(seconds time) {
  const std::string given = Setting("ZAV_FAULTS_SEED");
  const unsigned seed = IsNumber(given) ? static_cast<unsigned>(std::stoul(given)) : std::random_device()();
  std::cout << "faults: seed " << seed << '\n';
  std::mt19937 random(seed);
  const std::vector<Plausible> groups = GroupsOf(kind);
  const auto counted = TryNone().counted;
  const auto end = steady_clock::now() + time;
  while (steady_clock::now() < end) {
    const Plausible& group = groups[random() % groups.size()];
    const long calls = counted[static_cast<size_t>(group.call)];
    const int error = group.errors[random() % group.errors.size()];
    if (calls == 0 || !IsPossible(error, kind)) continue;
    const long first = 1 + static_cast<long>(random() % static_cast<unsigned long>(calls));
    Try({group.call, error, first, kind.times}, FaultName(group, error, first));
  }
}

void Campaign::TryOne(const std::string& fault) {
  std::istringstream text(fault);
  std::string group;
  std::string error;
  long first = 0;
  std::getline(text, group, ':');
  std::getline(text, error, ':');
  text >> first;
  const Plausible& found = GroupNamed(group);
  const Report& report = Try({found.call, ErrorNamed(found, error), first, kind.times}, fault);
  std::cout << "faults: met " << report.hits << " times; the plug-in's lines from there on:\n" << report.Lines();
}

void Campaign::Run() {
  const auto start = steady_clock::now();
  const std::string length = Setting("ZAV_FAULTS");
  keptWhenOff = kNever;
  const Report& untouched = TryNone();
  keptWhenOff = untouched.keptWhenOff;
  const auto calls = untouched.counted;
  if (untouched.HasFailed()) return;
  if (length.find(':') != length.npos) {
    TryOne(length);
  } else if (IsNumber(length)) {
    TryAtRandom(seconds(std::stol(length)));
  } else {
    const bool isAll = length == "all";
    mostFailures = isAll ? kNever : kShownFailures;
    for (const Plausible& group : GroupsOf(kind)) {
      const bool isEvery = isAll || calls[static_cast<size_t>(group.call)] <= kFewCalls;
      TryAll(group, isAll ? group.errors.size() : 1, isEvery ? 1 : kind.shortStride);
    }
  }
  const auto time = std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
  std::cout << "faults: " << scenario.name << ", " << kind.name << ": " << attempts << " attempts, " << met
            << " met the fault, " << final << " ended for good, " << thrown << " threw at the host, " << fellBack
            << " fell back to defaults, " << failures << " failed, " << time.count() << " ms\n";
}

}  // namespace zav::test
