#include <system_error>

#include "doctor/Examination.h"

namespace zav::pyxctl::doctor {
namespace {

constexpr mode_t kOthersMayWrite = S_IWGRP | S_IWOTH;

/// A service that could not make its directory has ended for good: to switch the plug-in on once more would end the
/// daemon, and nothing here tells whether it has.
constexpr const char* kStartAnew =
    "see that the daemon's user may write in the directory above, and start the daemon anew, or for the first time: "
    "its service makes it; do not switch the plug-in on in one whose service could not make its directory, which "
    "ends it";

Finding Problem(std::string message, std::string advice) {
  return {Severity::kProblem, "", std::move(message), std::move(advice)};
}

/// What keeps a path from being looked at; nothing where it is there.
Findings WhyNotThere(const Entry& entry, const std::string& path, const std::string& advice) {
  if (entry.IsThere()) return {};
  if (entry.IsMissing()) return {Problem("there is no " + path, advice)};
  if (entry.IsForbidden()) return {NotExamined(path)};
  return {{Severity::kWarning, "", path + " cannot be looked at: " + std::generic_category().message(entry.error), ""}};
}

/// Who may reach the socket through its directory.
Findings JudgeReach(const Entry& directory) {
  const mode_t mode = directory.info.st_mode;
  if ((mode & S_IXOTH) != 0) return {};
  if ((mode & S_IXGRP) != 0) {
    return {{Severity::kNote, "", "its mode, " + ModeText(mode) + ", admits the programs of its group alone",
             "if every user is to report threats: chmod 0755"}};
  }
  return {{Severity::kWarning, "", "its mode, " + ModeText(mode) + ", admits no program but its owner's",
           "chmod 0755, or 0750 to admit its group"}};
}

}  // namespace

Findings ExamineRunDirectory(const Seen& seen) {
  const std::string path = seen.paths.RunDirectory();
  const Entry directory = EntryAt(path);
  Findings findings = WhyNotThere(directory, path, kStartAnew);
  if (!findings.empty()) return findings;
  if (!directory.IsDirectory()) {
    return {Problem(path + " is " + KindOf(directory) + ", and no directory",
                    "remove it, and start the daemon anew: its service makes the directory")};
  }
  findings = JudgeReach(directory);
  if ((directory.info.st_mode & kOthersMayWrite) != 0) {
    findings.push_back(Problem("its mode, " + ModeText(directory.info.st_mode) +
                                   ", lets others than its owner put a socket of theirs in the place of the service's",
                               "chmod 0755 " + path));
  }
  const Entry storage = EntryAt(seen.paths.storageDirectory);
  if (storage.IsThere() && storage.info.st_uid != directory.info.st_uid) {
    findings.push_back(
        Problem("it belongs to " + UserName(directory.info.st_uid) + ", and the storage directory to " +
                    UserName(storage.info.st_uid) + ": whoever owns it owns the name of the socket",
                "let the start-up of the daemon make it, before anybody else can, as the daemon's user"));
  }
  return findings;
}

Findings ExamineSocket(const Seen& seen) {
  constexpr mode_t kEverybody = S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;
  const std::string& path = seen.paths.socket;
  const Entry socket = EntryAt(path);
  Findings findings = WhyNotThere(socket, path, kStartAnew);
  if (!findings.empty()) return findings;
  if (!S_ISSOCK(socket.info.st_mode)) {
    return {Problem(path + " is " + KindOf(socket) + ", and no socket",
                    "remove it, and start the daemon anew: its service makes the socket")};
  }
  if ((socket.info.st_mode & kEverybody) != kEverybody) {
    findings.push_back({Severity::kWarning, "",
                        "its mode, " + ModeText(socket.info.st_mode) + ", keeps users of the device from connecting",
                        "switch the plug-in off and on: its service opens the socket to every user; where the run "
                        "directory is not the daemon's own it needs /proc for that"});
  }
  const Entry directory = EntryAt(seen.paths.RunDirectory());
  if (directory.IsThere() && directory.info.st_uid != socket.info.st_uid) {
    findings.push_back(Problem("it belongs to " + UserName(socket.info.st_uid) + ", and its directory to " +
                                   UserName(directory.info.st_uid) + ": it may not be the service's",
                               "find out who made it; the directory should be the daemon's user's, with mode 0755"));
  }
  return findings;
}

}  // namespace zav::pyxctl::doctor
