#pragma once

#include <mutex>
#include <string>

/// Where the daemon keeps the status of each policy. The order of the virtual functions is part of the binary
/// interface.
class __attribute__((visibility("default"))) PolicyStorageBackend {
 public:
  PolicyStorageBackend() = default;
  virtual ~PolicyStorageBackend();

  PolicyStorageBackend(const PolicyStorageBackend&) = delete;
  PolicyStorageBackend& operator=(const PolicyStorageBackend&) = delete;

  /// Records a status under a policy's name.
  /// @return 0 on success.
  virtual int store(const std::string& name, int status) = 0;
  /// @return the status recorded under a policy's name.
  virtual int read(const std::string& name) = 0;
};

/// The daemon's policy storage as its plug-ins reach it.
class __attribute__((visibility("default"))) PolicyStorage {
 public:
  /// Set by the daemon before it loads a plug-in, and owned by it.
  static PolicyStorageBackend* backend;
  /// Held around every call on `backend`.
  static std::mutex dbLock;
};
