#pragma once

#include <sys/statvfs.h>

#include <span>

#include "doctor/Finding.h"
#include "doctor/Seen.h"

namespace zav::pyxctl::doctor {

/// One thing that the doctor looks at.
struct Examination {
  /// What the findings are about that name nothing else.
  const char* subject;
  /// What there is to be said; nothing where it is as it should be. May look at the device itself, and changes nothing.
  Findings (*examine)(const Seen& seen);
  /// What is said when there is nothing to be said.
  const char* sound;
  /// It looks into the storage directory.
  bool isOfStorage = false;
};

/// Every examination, in the order in which a person asks.
std::span<const Examination> Examinations();

/// Carries out one examination: at least one finding. One that cannot be carried out is a finding, too.
Findings Carry(const Examination& examination, const Seen& seen);

/// Looks at a device, and carries out every examination.
Findings ExamineDevice(const Paths& paths, const pyxclient::Options& options);

/// Examines a default policy file alone; the subject is its path.
Findings ExaminePolicyFile(const std::string& path);

Findings ExamineRunDirectory(const Seen& seen);
Findings ExamineSocket(const Seen& seen);
Findings ExamineService(const Seen& seen);
Findings ExamineStorageDirectory(const Seen& seen);
Findings ExamineRoom(const Seen& seen);
Findings ExamineDatabase(const Seen& seen);
Findings ExamineBackup(const Seen& seen);
Findings ExamineNotes(const Seen& seen);
Findings ExamineStoredPolicies(const Seen& seen);
Findings ExamineDefaultPolicy(const Seen& seen);

/// Judges a file system by its numbers.
/// @param databaseSize  in bytes.
Findings JudgeRoom(const struct statvfs& disk, const std::string& directory, off_t databaseSize);

/// Judges the text of a default policy file.
Findings JudgePolicy(const std::string& text);

/// A finding for what this user may not look at.
Finding NotExamined(const std::string& path);

}  // namespace zav::pyxctl::doctor
