#pragma once

#include <random>
#include <string>

#include "Plausible.h"
#include "Scenarios.h"

namespace zav::test {

/// How calls fail in a campaign.
struct Kind {
  const char* name;
  /// Whether allocations fail; else all other calls, group by group.
  bool isMemory;
  /// How many calls in a row fail.
  long times;
  /// The short form tries every so many-th place.
  long shortStride;
};

/// Has a scenario meet one kind of fault in every place: the first call fails, then the second, on and on until the
/// whole scenario passes without the fault being met.
///
/// The length comes from the variable ZAV_FAULTS. Unset: the short form, with the most plausible error of each group.
/// "all": every error in every place. A number of seconds: so long, faults picked at random, by the seed in
/// ZAV_FAULTS_SEED. "GROUP:ERROR:FIRST", such as "write:ENOSPC:3": that fault alone.
class Campaign {
 public:
  Campaign(const Scenario& of, const Kind& how) : scenario(of), kind(how) {}

  /// Runs it; what is wrong becomes a failure of the test. Prints a line of figures.
  void Run();

 private:
  void TryAll(const Plausible& group, size_t errors, long stride);
  void TryAtRandom(std::chrono::seconds time);
  void TryOne(const std::string& fault);
  const Report& Try(const faults::Fault& fault, const std::string& name);
  /// Nothing fails: shows how many calls there are.
  const Report& TryNone();
  void Blame(const Report& report, const std::string& name);

  const Scenario& scenario;
  const Kind& kind;
  size_t keptWhenOff = 0;
  /// After so many it gives up.
  long mostFailures = 0;
  long attempts = 0;
  long met = 0;
  long failures = 0;
  long final = 0;
  long thrown = 0;
  long fellBack = 0;
};

/// One attempt, in the process that this is called in.
void Attempt(const Scenario& scenario, const faults::Fault& fault, size_t keptWhenOff, Report& report);

}  // namespace zav::test
