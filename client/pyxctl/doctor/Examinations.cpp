#include <array>

#include "doctor/Examination.h"

namespace zav::pyxctl::doctor {
namespace {

constexpr bool kOfStorage = true;

constexpr std::array kExaminations = {
    Examination{"run directory", ExamineRunDirectory, "it is there, and its owner alone may change it"},
    Examination{"socket", ExamineSocket, "it is there, and every user may connect"},
    Examination{"service", ExamineService, "it answers; the feature and its log are on"},
    Examination{"storage directory", ExamineStorageDirectory,
                "it is there, and its owner alone may change it and what is in it"},
    Examination{"disk", ExamineRoom, "there is room", kOfStorage},
    Examination{"database", ExamineDatabase, "it is whole, and of the plug-in's making", kOfStorage},
    Examination{"backup", ExamineBackup, "it is whole, and holds what the database holds", kOfStorage},
    Examination{"notes", ExamineNotes, "no restore is unfinished, and nothing was set aside as damaged", kOfStorage},
    Examination{"stored policies", ExamineStoredPolicies, "they keep their rules", kOfStorage},
    Examination{"policy.json", ExamineDefaultPolicy, "it keeps its rules", kOfStorage},
};

}  // namespace

std::span<const Examination> Examinations() {
  return kExaminations;
}

Findings Carry(const Examination& examination, const Seen& seen) {
  Findings findings;
  try {
    // What was not seen is not said to be sound; why it is not there is said of the directory.
    if (examination.isOfStorage && EntryAt(seen.paths.storageDirectory).IsMissing()) {
      findings = {{Severity::kWarning, "", "not examined: there is no storage directory here", ""}};
    } else {
      findings = examination.examine(seen);
    }
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& error) {
    findings = {{Severity::kWarning, "", std::string("it cannot be examined: ") + error.what(), ""}};
  }
  if (findings.empty()) findings.push_back({Severity::kOk, "", examination.sound, ""});
  for (Finding& each : findings) {
    if (each.subject.empty()) each.subject = examination.subject;
  }
  return findings;
}

Findings ExamineDevice(const Paths& paths, const pyxclient::Options& options) {
  const Seen seen = LookAt(paths, options);
  Findings all;
  for (const Examination& examination : Examinations()) {
    for (Finding& each : Carry(examination, seen)) all.push_back(std::move(each));
  }
  return all;
}

Finding NotExamined(const std::string& path) {
  return {Severity::kWarning, "", "not examined: this user may not look at " + path,
          "call pyxctl doctor as the daemon's user or as root"};
}

}  // namespace zav::pyxctl::doctor
