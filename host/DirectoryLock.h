#pragma once

#include <string>

namespace host {

/// Keeps a state directory for one process: a second lock on the same directory is refused as long as the first one
/// lives. It goes with the process, however that ends.
class DirectoryLock {
 public:
  /// Makes the directory when it is missing and locks it.
  ///
  /// @throws std::runtime_error when another process has it; std::system_error when it cannot be made or locked.
  explicit DirectoryLock(const std::string& directory);
  ~DirectoryLock();

  DirectoryLock(const DirectoryLock&) = delete;
  DirectoryLock& operator=(const DirectoryLock&) = delete;

 private:
  int file;
};

}  // namespace host
