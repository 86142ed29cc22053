#include "WholeFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace zav::pyxctl {
namespace {

namespace fs = std::filesystem;

void Check(bool done, const fs::path& path) {
  if (!done) throw std::system_error(errno, std::generic_category(), "cannot write " + path.string());
}

/// The file to replace, or to make.
fs::path TargetOf(const std::string& path) {
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (!fs::exists(status)) return path;
  if (!fs::is_regular_file(status)) throw std::runtime_error("cannot write " + path + ": it is no regular file");
  return fs::canonical(path);
}

/// A file beside its target, which it takes the place of, or goes. Its name is always the same, so that what is killed
/// leaves one at most; who else writes the same target waits for the lock on it.
class NewFile {
 public:
  explicit NewFile(const fs::path& path) : target(path), name(path.string() + ".new") {
    do {
      if (fd != -1) ::close(fd);
      fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
      Check(fd != -1 && ::flock(fd, LOCK_EX) == 0, target);
    } while (!IsStillThere());
    Check(::ftruncate(fd, 0) == 0, target);
  }
  ~NewFile() {
    if (!name.empty()) ::unlink(name.c_str());
    ::close(fd);
  }
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  void Write(std::string_view content) {
    while (!content.empty()) {
      const ssize_t written = ::write(fd, content.data(), content.size());
      if (written == -1 && errno == EINTR) continue;
      Check(written > 0, target);
      content.remove_prefix(static_cast<std::size_t>(written));
    }
  }

  void TakeItsPlace() {
    SetRights();
    Check(::fsync(fd) == 0, target);
    Check(::rename(name.c_str(), target.c_str()) == 0, target);
    name.clear();
  }

 private:
  /// Whoever had the lock before may have put the file in its target's place, or removed it.
  bool IsStillThere() const {
    struct stat opened {};
    struct stat named {};
    Check(::fstat(fd, &opened) == 0, target);
    return ::lstat(name.c_str(), &named) == 0 && named.st_ino == opened.st_ino && named.st_dev == opened.st_dev;
  }

  /// Those of the file that is replaced; of a new one, those that the process gives its files.
  void SetRights() const {
    struct stat before {};
    if (::stat(target.c_str(), &before) == 0) {
      // Only root gives files away.
      const int given = ::fchown(fd, before.st_uid, before.st_gid);
      Check(given == 0 || errno == EPERM, target);
      Check(::fchmod(fd, before.st_mode & 07777) == 0, target);
      return;
    }
    // The only way to learn the mask is to set it.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    Check(::fchmod(fd, 0666 & ~mask) == 0, target);
  }

  fs::path target;
  std::string name;
  int fd = -1;
};

/// The name of a file is in its directory. Some file systems cannot bring one to the disk; the file is whole without
/// it.
void SyncDirectoryOf(const fs::path& path) {
  const fs::path parent = path.has_parent_path() ? path.parent_path() : ".";
  const int fd = ::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd == -1) return;
  ::fsync(fd);
  ::close(fd);
}

}  // namespace

void WriteWholeFile(const std::string& path, std::string_view content) {
  const fs::path target = TargetOf(path);
  NewFile file(target);
  file.Write(content);
  file.TakeItsPlace();
  SyncDirectoryOf(target);
}

}  // namespace zav::pyxctl
