#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>

namespace zav::pyxctl::doctor {

/// What stands at a path, itself and not where a link leads.
struct Entry {
  /// 0, or the error number that told that nothing can be said of it.
  int error = 0;
  struct stat info {};

  bool IsThere() const { return error == 0; }
  bool IsMissing() const;
  /// The user may not look.
  bool IsForbidden() const;
  bool IsDirectory() const { return IsThere() && S_ISDIR(info.st_mode); }
  bool IsFile() const { return IsThere() && S_ISREG(info.st_mode); }
};

/// Looks at a path; changes nothing, not even a time.
Entry EntryAt(const std::string& path);

/// "a directory", "a symbolic link" and so on.
std::string KindOf(const Entry& entry);

/// The permissions as chmod takes them, such as "0755".
std::string ModeText(mode_t mode);

/// "root", or "user 1000" where the number has no name.
std::string UserName(uid_t user);

/// What was read of a file.
struct Content {
  /// 0, or why there are no bytes: an error number; `kNoFile` for what is no regular file, `kTooLarge`.
  int error = 0;
  std::string bytes;
  struct stat info {};

  static constexpr int kNoFile = -1;
  static constexpr int kTooLarge = -2;

  bool IsRead() const { return error == 0; }
  bool IsMissing() const;
  bool IsForbidden() const;
  /// Why there are no bytes, in words.
  std::string Reason() const;
};

/// Reads a regular file, of at most so many bytes. Where the system lets this user, the time of the last access stays.
/// A pipe or a device is not opened.
Content ReadWhole(const std::string& path, off_t largest);

/// Reads again the first bytes of a file; empty where that fails.
std::string ReadBeginning(const std::string& path, std::size_t size);

}  // namespace zav::pyxctl::doctor
