#pragma once

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <map>
#include <string>
#include <vector>

#include "doctor/Examination.h"
#include "support/TemporaryDirectory.h"

namespace zav::client::test {

using pyxctl::doctor::Finding;
using pyxctl::doctor::Findings;
using pyxctl::doctor::Severity;

/// Names of the three policies, and their texts.
using Policies = std::map<std::string, std::string>;

/// The policies of a device that is as it should be.
Policies SoundPolicies();

/// Makes a database as the plug-in makes it, in place of what is there.
void MakeDatabase(const std::string& path, const Policies& policies = SoundPolicies());

/// The files of a device that is as it should be, but for its service, in a directory of their own.
class DeviceFiles {
 public:
  DeviceFiles();

  /// The findings of an examination, after a look at the device.
  Findings Examined(Findings (*examine)(const pyxctl::doctor::Seen&)) const;
  /// All findings.
  Findings Examined() const;

  /// Makes a database and a backup of it.
  void Store(const Policies& policies) const;

  pyxctl::doctor::Paths paths;
  /// Where there is a service, its socket stands at `paths.socket`.
  pyxclient::Options options;

 private:
  zav::test::TemporaryDirectory directory_;
};

/// All that can be told of the things below some directories without changing it: names, kinds, modes, sizes, times,
/// and bytes. Take the bytes before the first times and after the last ones.
std::vector<std::string> NamesBelow(const std::vector<std::string>& directories);
std::vector<std::string> BytesOf(const std::vector<std::string>& names);
std::vector<std::string> TimesOf(const std::vector<std::string>& names);
/// Sets the times of the last access back, so that every reading that may change them does.
void AgeAccess(const std::vector<std::string>& names);

/// Expects that nothing changes in some directories while `work` is done.
void ExpectNoChange(const std::vector<std::string>& directories, const std::function<void()>& work);

MATCHER_P2(Finds, severity, message, "") {
  return arg.severity == severity &&
         testing::ExplainMatchResult(testing::HasSubstr(message), arg.message, result_listener);
}

inline testing::Matcher<Finding> IsProblem(const std::string& message) {
  return Finds(Severity::kProblem, message);
}
inline testing::Matcher<Finding> IsWarning(const std::string& message) {
  return Finds(Severity::kWarning, message);
}
inline testing::Matcher<Finding> IsNote(const std::string& message) {
  return Finds(Severity::kNote, message);
}

}  // namespace zav::client::test

namespace zav::pyxctl::doctor {

inline void PrintTo(const Finding& finding, std::ostream* out) {
  *out << NameOf(finding.severity) << ' ' << finding.subject << ": " << finding.message;
}

}  // namespace zav::pyxctl::doctor
