#include <array>

#include "Times.h"
#include "doctor/Examination.h"

namespace zav::pyxctl::doctor {
namespace {

/// A file that says something by being there.
struct Note {
  std::string (Paths::*path)() const;
  /// A running service has it beside its database as a matter of course.
  bool isUsualWhileRunning;
  Severity severity;
  const char* message;
  const char* advice;
};

constexpr std::array kNotes = {
    Note{&Paths::Restoring, false, Severity::kWarning,
         "the backup was to take the place of the database, and did not yet",
         "see that there is room; the next start of the daemon finishes it; leave the backup where it is, if it is "
         "sound"},
    Note{&Paths::Opening, true, Severity::kNote, "the daemon ended while it opened the database",
         "the next start of the daemon sees to it"},
    Note{&Paths::StaleBackup, true, Severity::kNote,
         "the daemon did not come to its end: the backup on the disk may lack what the database holds",
         "the next start and end of the daemon see to it"},
    Note{&Paths::NewBackup, true, Severity::kNote, "the daemon ended while it wrote the backup",
         "the next one takes its place"},
    Note{&Paths::NewDatabase, true, Severity::kNote, "the daemon ended while it put the backup in the database's place",
         "the next start of the daemon finishes it"},
    Note{&Paths::Damaged, false, Severity::kWarning, "a database was found damaged and set aside",
         "find out why (the disk, a power loss, another program); then remove the file"},
    Note{&Paths::DamagedJournal, false, Severity::kNote, "the journal of a damaged database was set aside with it",
         "remove it together with that"},
};

Finding FindingOf(const Note& note, const std::string& path, const Entry& entry) {
  const std::string since = LocalText(pyxclient::Time(std::chrono::seconds(entry.info.st_mtime)));
  return {note.severity, "", std::string(note.message) + ": " + path + ", of " + since, note.advice};
}

}  // namespace

Findings ExamineNotes(const Seen& seen) {
  Findings findings;
  for (const Note& note : kNotes) {
    const std::string path = (seen.paths.*note.path)();
    const Entry entry = EntryAt(path);
    if (entry.IsForbidden()) return {NotExamined(seen.paths.storageDirectory)};
    if (!entry.IsThere() || (note.isUsualWhileRunning && seen.service.Answers())) continue;
    findings.push_back(FindingOf(note, path, entry));
  }
  return findings;
}

}  // namespace zav::pyxctl::doctor
