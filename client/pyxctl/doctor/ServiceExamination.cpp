#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "doctor/Examination.h"

namespace zav::pyxctl::doctor {
namespace {

using pyxclient::Failure;

struct Meaning {
  Failure failure;
  Severity severity;
  const char* advice;
};

constexpr std::array kMeanings = {
    Meaning{Failure::kNoService, Severity::kProblem,
            "start the daemon, and switch the plug-in on; if both are done, the platform log says why its service does "
            "not run"},
    Meaning{Failure::kRefused, Severity::kProblem,
            "look again, with a longer --timeout; find the program that keeps the service busy"},
    Meaning{Failure::kTimedOut, Severity::kProblem,
            "look again, with a longer --timeout; the platform log may say what the service waits for"},
    Meaning{Failure::kMalformed, Severity::kProblem,
            "find out whose socket it is, and whether the plug-in and pyxctl are of one version"},
    Meaning{Failure::kSystem, Severity::kWarning, "look again when this machine has descriptors and memory to spare"},
};

bool MayConnect(const std::string& socket) {
  return ::faccessat(AT_FDCWD, socket.c_str(), W_OK, AT_EACCESS) == 0 || errno != EACCES;
}

Findings WhyNoAnswer(const Seen& seen) {
  const Service& service = seen.service;
  if (service.failure == Failure::kNoService && !MayConnect(seen.paths.socket)) return {NotExamined(seen.paths.socket)};
  const auto meaning = std::find_if(kMeanings.begin(), kMeanings.end(),
                                    [&](const Meaning& each) { return each.failure == service.failure; });
  if (meaning == kMeanings.end()) return {{Severity::kProblem, "", "it does not answer: " + service.reason, ""}};
  return {{meaning->severity, "", "it does not answer: " + service.reason, meaning->advice}};
}

}  // namespace

Findings ExamineService(const Seen& seen) {
  if (!seen.service.Answers()) return WhyNoAnswer(seen);
  Findings findings;
  if (seen.paths.storageDirectory.starts_with("/proc/")) {
    findings.push_back(
        {Severity::kNote, "", "it answers; it has a root directory of its own, which lies below /proc here", ""});
  }
  if (!seen.service.isEnabled) {
    findings.push_back(
        {Severity::kNote, "", "it answers; the feature is off", "the daemon's command Enable switches it on"});
  }
  if (!seen.service.isLogging) {
    findings.push_back({Severity::kNote, "",
                        "it answers; logging is off, and the next start of the daemon empties the log",
                        "the daemon's command EnableLogging switches it on"});
  }
  return findings;
}

}  // namespace zav::pyxctl::doctor
