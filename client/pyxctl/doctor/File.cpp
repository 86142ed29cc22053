#include "doctor/File.h"

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <limits>
#include <system_error>

namespace zav::pyxctl::doctor {
namespace {

constexpr mode_t kPermissionBits = 07777;

bool MeansMissing(int error) {
  return error == ENOENT || error == ENOTDIR;
}

bool MeansForbidden(int error) {
  return error == EACCES || error == EPERM;
}

/// A file that is open for reading.
class Reader {
 public:
  explicit Reader(const std::string& path) : fd_(Open(path)) {}
  ~Reader() {
    if (fd_ != -1) ::close(fd_);
  }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  int fd() const { return fd_; }

  /// Adds what follows to `bytes`, until the end or until it holds so many. @return 0 or an error number.
  int Append(std::string& bytes, std::size_t most) const {
    constexpr std::size_t kChunk = 1 << 16;
    while (bytes.size() < most) {
      const std::size_t before = bytes.size();
      bytes.resize(std::min(most, before + kChunk));
      const ssize_t got = ::read(fd_, bytes.data() + before, bytes.size() - before);
      const int error = errno;
      bytes.resize(before + static_cast<std::size_t>(got > 0 ? got : 0));
      if (got == 0) return 0;
      if (got < 0 && error != EINTR) return error;
    }
    return 0;
  }

 private:
  static int Open(const std::string& path) {
    constexpr int kFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const int fd = ::open(path.c_str(), kFlags | O_NOATIME);
    // Only the owner may leave the time of the last access alone.
    return fd == -1 && errno == EPERM ? ::open(path.c_str(), kFlags) : fd;
  }

  int fd_;
};

/// What can be told before it is opened: opening a pipe or a device may do something.
int ReasonNotToOpen(const std::string& path, off_t largest, struct stat& info) {
  if (::stat(path.c_str(), &info) != 0) return errno;
  if (!S_ISREG(info.st_mode)) return Content::kNoFile;
  return info.st_size > largest ? Content::kTooLarge : 0;
}

}  // namespace

bool Entry::IsMissing() const {
  return MeansMissing(error);
}

bool Entry::IsForbidden() const {
  return MeansForbidden(error);
}

Entry EntryAt(const std::string& path) {
  Entry entry;
  if (::lstat(path.c_str(), &entry.info) != 0) entry.error = errno;
  return entry;
}

std::string KindOf(const Entry& entry) {
  switch (entry.info.st_mode & S_IFMT) {
    case S_IFDIR:
      return "a directory";
    case S_IFREG:
      return "a file";
    case S_IFLNK:
      return "a symbolic link";
    case S_IFSOCK:
      return "a socket";
    case S_IFIFO:
      return "a pipe";
    default:
      return "a device";
  }
}

std::string ModeText(mode_t mode) {
  std::array<char, 8> text{};
  std::snprintf(text.data(), text.size(), "%04o", static_cast<unsigned>(mode & kPermissionBits));
  return text.data();
}

std::string UserName(uid_t user) {
  constexpr std::size_t kRoom = 16384;
  std::string room(kRoom, '\0');
  passwd entry{};
  passwd* found = nullptr;
  ::getpwuid_r(user, &entry, room.data(), room.size(), &found);
  return found != nullptr ? entry.pw_name : "user " + std::to_string(user);
}

bool Content::IsMissing() const {
  return MeansMissing(error);
}

bool Content::IsForbidden() const {
  return MeansForbidden(error);
}

std::string Content::Reason() const {
  if (error == kNoFile) return "it is no regular file";
  if (error == kTooLarge) return "it is too large to be looked at (" + std::to_string(info.st_size) + " bytes)";
  return std::generic_category().message(error);
}

Content ReadWhole(const std::string& path, off_t largest) {
  Content content;
  content.error = ReasonNotToOpen(path, largest, content.info);
  if (!content.IsRead()) return content;
  const Reader file(path);
  if (file.fd() == -1 || ::fstat(file.fd(), &content.info) != 0) {
    content.error = errno;
    return content;
  }
  content.error = file.Append(content.bytes, static_cast<std::size_t>(largest));
  return content;
}

std::string ReadBeginning(const std::string& path, std::size_t size) {
  struct stat info {};
  std::string bytes;
  if (ReasonNotToOpen(path, std::numeric_limits<off_t>::max(), info) != 0) return bytes;
  const Reader file(path);
  if (file.fd() != -1) file.Append(bytes, size);
  return bytes;
}

}  // namespace zav::pyxctl::doctor
