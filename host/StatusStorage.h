#pragma once

#include <memory>
#include <string>

#include "dpm/PolicyStorage.h"
#include "klay/database/Connection.h"

namespace host {

/// The host's policy storage: the status of each policy, in an SQLite file of its own.
///
/// While it lives it is `PolicyStorage::backend`; there is one at a time. Calls need `PolicyStorage::dbLock`, as those
/// of every backend do.
class StatusStorage : public PolicyStorageBackend {
 public:
  /// What `read` answers for a policy that has no recorded status.
  static constexpr int kNoStatus = -1;

  /// Opens the file and makes it when missing. A damaged one is set aside and started anew, with a warning in the log.
  /// @throws klay::Exception when it cannot be opened.
  explicit StatusStorage(const std::string& path);
  ~StatusStorage() override;

  /// @return 0, or -1 when nothing was written.
  /// @throws klay::Exception when the file cannot be written; the earlier status stays.
  int store(const std::string& name, int status) override;

  /// @return the recorded status, or `kNoStatus`.
  /// @throws klay::Exception when the file cannot be read.
  int read(const std::string& name) override;

 private:
  std::unique_ptr<klay::database::Connection> database;
};

}  // namespace host
