#include <algorithm>
#include <cerrno>
#include <system_error>

#include "doctor/Examination.h"

namespace zav::pyxctl::doctor {
namespace {

Finding Problem(std::string message, std::string advice) {
  return {Severity::kProblem, "", std::move(message), std::move(advice)};
}

/// Whoever can rename a directory above owns what is in it. One that is sticky lets only owners do that.
void JudgeParents(const std::string& path, Findings& findings) {
  for (std::string parent = path; parent.rfind('/') != 0 && parent.rfind('/') != std::string::npos;) {
    parent.resize(parent.rfind('/'));
    const Entry entry = EntryAt(parent);
    if (!entry.IsDirectory() || (entry.info.st_mode & S_ISVTX) != 0 || (entry.info.st_mode & S_IWOTH) == 0) continue;
    findings.push_back(Problem(parent + " above it has mode " + ModeText(entry.info.st_mode) +
                                   ": every user can put a directory of his own in its place",
                               "chmod o-w " + parent));
  }
}

/// Whoever may write a file of the plug-in's decides what is logged.
void JudgeFile(const std::string& path, uid_t owner, Findings& findings) {
  constexpr mode_t kOthersMayWrite = S_IWGRP | S_IWOTH;
  const Entry file = EntryAt(path);
  if (!file.IsThere()) return;
  if (!file.IsFile()) {
    findings.push_back(Problem(path + " is " + KindOf(file) + ", and no file", "put the file itself there"));
    return;
  }
  if ((file.info.st_mode & kOthersMayWrite) != 0) {
    findings.push_back(
        Problem(path + " has mode " + ModeText(file.info.st_mode) + ": others than its owner may write it",
                "chmod go-w " + path));
  }
  if (file.info.st_uid != owner) {
    findings.push_back(
        Problem(path + " belongs to " + UserName(file.info.st_uid) + ", and its directory to " + UserName(owner),
                "find out who made it; chown it to " + UserName(owner)));
  }
}

std::string Amount(std::uint64_t bytes) {
  constexpr std::uint64_t kKiB = 1024;
  if (bytes < kKiB * kKiB) return std::to_string(bytes / kKiB) + " KiB";
  return std::to_string(bytes / (kKiB * kKiB)) + " MiB";
}

}  // namespace

Findings ExamineStorageDirectory(const Seen& seen) {
  const std::string& path = seen.paths.storageDirectory;
  const Entry directory = EntryAt(path);
  if (directory.IsForbidden()) return {NotExamined(path)};
  if (!directory.IsThere() && seen.service.Answers()) {
    return {
        {Severity::kWarning, "",
         "there is no " + path + ", but the service answers: its files lie elsewhere, in a root directory of its own",
         "call pyxctl doctor as root, or name the directory with --storage"}};
  }
  if (!directory.IsThere()) {
    return {Problem("there is no " + path,
                    "make it, owned by the daemon's user and with mode 0700, and put a policy.json into it")};
  }
  if (!directory.IsDirectory()) {
    return {Problem(path + " is " + KindOf(directory) + ", and no directory: the plug-in does not take it",
                    "put the directory itself there, owned by the daemon's user and with mode 0700")};
  }
  Findings findings;
  const mode_t mode = directory.info.st_mode;
  if ((mode & S_IWOTH) != 0) {
    findings.push_back(
        Problem("its mode, " + ModeText(mode) + ", lets every user replace what is stored", "chmod 0700 " + path));
  } else if ((mode & S_IWGRP) != 0) {
    findings.push_back({Severity::kWarning, "",
                        "its mode, " + ModeText(mode) + ", lets its group replace what is stored",
                        "chmod 0700 " + path});
  }
  JudgeParents(path, findings);
  for (const std::string& file : {seen.paths.Database(), seen.paths.Backup(), seen.paths.DefaultPolicy()}) {
    JudgeFile(file, directory.info.st_uid, findings);
  }
  return findings;
}

Findings JudgeRoom(const struct statvfs& disk, const std::string& directory, off_t databaseSize) {
  // A journal, and what a file system keeps for itself.
  constexpr std::uint64_t kSmallChange = 65536;
  if ((disk.f_flag & ST_RDONLY) != 0) {
    return {Problem("the file system of " + directory + " is read-only",
                    "mount it for writing; the log of the kernel "
                    "says if it was an error of the disk that made it so")};
  }
  if (disk.f_files != 0 && disk.f_favail == 0) {
    return {Problem("the file system of " + directory + " has no room for another file", "remove files there")};
  }
  const auto size = static_cast<std::uint64_t>(databaseSize);
  const std::uint64_t free = disk.f_bavail * disk.f_frsize;
  const std::string message = "the file system of " + directory + " has " + Amount(free) + " left";
  if (free < kSmallChange) return {Problem(message + ": reports cannot be stored", "make room there")};
  if (free < size + kSmallChange) {
    return {{Severity::kWarning, "", message + ", less than another copy of the database takes",
             "make room there: a backup is else written over the last one, and lost if the power fails meanwhile"}};
  }
  return {};
}

Findings ExamineRoom(const Seen& seen) {
  Findings findings;
  for (const std::string& directory : {seen.paths.storageDirectory, seen.paths.RunDirectory()}) {
    struct statvfs disk {};
    if (::statvfs(directory.c_str(), &disk) != 0) {
      // What is not there is said elsewhere.
      if (errno != ENOENT && errno != ENOTDIR) findings.push_back(NotExamined(directory));
      continue;
    }
    const bool isStorage = directory == seen.paths.storageDirectory;
    const off_t size = isStorage && seen.database.IsRead() ? seen.database.info.st_size : 0;
    for (Finding& each : JudgeRoom(disk, directory, size)) findings.push_back(std::move(each));
  }
  return findings;
}

}  // namespace zav::pyxctl::doctor
