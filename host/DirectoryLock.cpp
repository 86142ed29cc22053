#include "DirectoryLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace host {
namespace {

constexpr const char* kLockName = "/dpm-host.lock";

}  // namespace

DirectoryLock::DirectoryLock(const std::string& directory) {
  std::filesystem::create_directories(directory);
  const std::string path = directory + kLockName;
  file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (file == -1) throw std::system_error(errno, std::generic_category(), "can't open " + path);
  if (flock(file, LOCK_EX | LOCK_NB) == 0) return;

  const int error = errno;
  close(file);
  if (error == EWOULDBLOCK)
    throw std::runtime_error("another dpm-host already runs on " + directory + "; end it first");
  throw std::system_error(error, std::generic_category(), "can't lock " + path);
}

DirectoryLock::~DirectoryLock() {
  close(file);
}

}  // namespace host
