#pragma once

#include <string>
#include <system_error>
#include <vector>

namespace host {

/// What a device root is made of.
struct DeviceRootOptions {
  /// What one of the two directories becomes.
  struct Replacement {
    /// Whether it is replaced at all.
    bool wanted = false;
    /// The directory that is mounted over it; empty: a new, empty tmpfs.
    std::string directory;
  };

  Replacement opt;
  Replacement tmp;
  /// Directories that stay reachable under their own path although a mount would hide them.
  std::vector<std::string> keep;
};

/// A private view of the file system: something else stands at /opt and /tmp for this process and its children, and
/// nothing changes for anybody else.
///
/// The process moves into a mount namespace of its own; a caller without the right to have one gets a user namespace
/// as well, in which it is uid and gid 0. That needs a process with one thread.
class DeviceRoot {
 public:
  /// Moves the calling process into a device root. The current directory stays what it was by its path, or becomes /
  /// when that path is hidden and not kept.
  ///
  /// @throws std::system_error or std::runtime_error, naming the step, when a part of it cannot be had; the process
  ///         may then stand in a half-made root of its own and had better end.
  static void Enter(const DeviceRootOptions& options);
};

}  // namespace host
