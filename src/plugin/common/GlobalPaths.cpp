#include "common/GlobalPaths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "common/ErrorText.h"
#include "common/Log.h"

namespace zav::common {
namespace {

// Not createDirectory's mode: other users must not be able to put files beside the socket.
constexpr mode_t kRunDirectoryMode = 0755;

constexpr const char* kRunPath = "/tmp/zav-pyx-plugin";

/// While the library is being loaded nobody can catch a want of memory, and the daemon would end.
std::string TextOrNothing(const char* text) {
  try {
    return text;
  } catch (const std::bad_alloc&) {
    return {};
  }
}

}  // namespace

std::string runPath = TextOrNothing(kRunPath);
const std::string dataPath;
const std::string storagePath;

void completePaths() {
  if (runPath.empty()) runPath = kRunPath;
}

bool makeDir(const std::string& path) {
  const int result = mkdir(path.c_str(), kRunDirectoryMode);
  const int error = errno;
  if (result != 0 && error != EEXIST) {
    LOG_ERROR(path, " : ", ErrorText{error});
    return false;
  }
  LOG_DEBUG(path, " : ", result);
  return true;
}

bool isOwnDirectory(const std::string& path) {
  struct stat info {};
  return lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && info.st_uid == geteuid() &&
         (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

}  // namespace zav::common
