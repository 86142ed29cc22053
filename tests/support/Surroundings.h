#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <locale>
#include <string>

/// What a test makes of the machine around the code: its disk, its descriptors, its locale. Each is undone at the end.
namespace zav::test {

/// A new, empty directory.
class ScratchDirectory {
 public:
  ScratchDirectory();
  ~ScratchDirectory();
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  /// The path of something in it; `name` begins with "/" or is empty.
  std::string operator+(const std::string& name) const { return path + name; }

 private:
  std::string path;
};

/// A disk of its own, mounted over an existing directory.
class SmallDisk {
 public:
  /// @param size  in bytes; rounded up to whole pages of 4096.
  SmallDisk(const std::string& directory, unsigned size);
  ~SmallDisk();
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  /// False only where the test has the machine's own directories and no right to mount on them.
  bool IsMounted() const { return mounted; }
  void MakeReadOnly();
  void Resize(unsigned size);

 private:
  std::string path;
  bool mounted = false;
};

/// While it lives, a file can be read, but neither written to nor removed nor replaced.
class FixedFile {
 public:
  explicit FixedFile(const std::string& file);
  ~FixedFile();
  FixedFile(const FixedFile&) = delete;
  FixedFile& operator=(const FixedFile&) = delete;

  /// False only where the test has the machine's own directories and no right to mount on them.
  bool IsMounted() const { return mounted; }

 private:
  std::string path;
  bool mounted = false;
};

/// While it lives, the thread has no right to files beyond their permission bits, root though it be.
class WithoutPrivilege {
 public:
  WithoutPrivilege();
  ~WithoutPrivilege();
  WithoutPrivilege(const WithoutPrivilege&) = delete;
  WithoutPrivilege& operator=(const WithoutPrivilege&) = delete;

 private:
  /// The effective capabilities of before.
  std::array<std::uint32_t, 2> previous{};
};

/// While it lives, the process can open just this many more descriptors.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(unsigned more);
  ~DescriptorLimit();
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

 private:
  rlimit previous{};
};

/// While it lives, the process can have just this many more bytes of memory. No sanitizer works with it.
class MemoryLimit {
 public:
  explicit MemoryLimit(std::size_t more);
  ~MemoryLimit();
  MemoryLimit(const MemoryLimit&) = delete;
  MemoryLimit& operator=(const MemoryLimit&) = delete;

 private:
  rlimit previous{};
};

/// The process's mask of permission bits.
class Umask {
 public:
  explicit Umask(mode_t mask);
  ~Umask();
  Umask(const Umask&) = delete;
  Umask& operator=(const Umask&) = delete;

 private:
  mode_t previous;
};

/// Sets a global locale that writes 1234567 as 1.234.567.
class GroupingLocale {
 public:
  GroupingLocale();
  ~GroupingLocale();
  GroupingLocale(const GroupingLocale&) = delete;
  GroupingLocale& operator=(const GroupingLocale&) = delete;

 private:
  std::locale previous;
};

/// A directory that can be opened but not read: the network files of a process that has ended and was not reaped.
class UnreadableDirectory {
 public:
  UnreadableDirectory();
  ~UnreadableDirectory();
  UnreadableDirectory(const UnreadableDirectory&) = delete;
  UnreadableDirectory& operator=(const UnreadableDirectory&) = delete;

  std::string path() const { return "/proc/" + std::to_string(child) + "/net"; }

 private:
  pid_t child;
};

/// The permission bits of a file; a symbolic link is followed.
unsigned PermissionsOf(const std::string& path);

}  // namespace zav::test
