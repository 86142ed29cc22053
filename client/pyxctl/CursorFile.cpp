#include "CursorFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <pyxclient/pyxclient.hpp>
#include <stdexcept>
#include <system_error>

namespace zav::pyxctl {
namespace {

[[noreturn]] void Refuse(const std::string& path, const char* what) {
  throw std::runtime_error("the cursor file " + path + ' ' + what + " (" + std::generic_category().message(errno) +
                           ")");
}

/// Closes what it holds.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ != -1) ::close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return fd_; }

 private:
  int fd_;
};

bool WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(fd, text.data(), text.size());
    if (count == -1 && errno != EINTR) return false;
    if (count > 0) text.remove_prefix(static_cast<std::size_t>(count));
  }
  return ::fsync(fd) == 0;
}

/// Brings the new name in a directory to the disk. A directory that cannot be opened for it, or a file system that has
/// no such thing, leaves it to the system.
void SyncDirectoryOf(const std::string& path) {
  const std::filesystem::path parent = std::filesystem::path(path).parent_path();
  const Descriptor directory(::open(parent.empty() ? "." : parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory.get() != -1) ::fsync(directory.get());
}

}  // namespace

std::string CursorFile::Read() const {
  std::ifstream file(path_);
  if (!file) {
    if (errno == ENOENT) return {};
    Refuse(path_, "cannot be read");
  }
  std::string cursor;
  std::getline(file, cursor);
  if (file.bad() || cursor.size() >= PYX_CURSOR_SIZE) {
    throw std::runtime_error("the file " + path_ + " holds no cursor; remove it to read the log from its beginning");
  }
  return cursor;
}

void CursorFile::Write(const std::string& cursor) const {
  const std::string next = path_ + ".new";
  {
    const Descriptor file(::open(next.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (file.get() == -1 || !WriteAll(file.get(), cursor + '\n')) Refuse(path_, "cannot be written");
  }
  if (std::rename(next.c_str(), path_.c_str()) != 0) Refuse(path_, "cannot be replaced");
  SyncDirectoryOf(path_);
}

}  // namespace zav::pyxctl
