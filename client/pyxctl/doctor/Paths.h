#pragma once

#include <pyxclient/pyxclient.h>

#include <string>

namespace zav::pyxctl::doctor {

/// Where the plug-in keeps its things: a part of what it is to its users, stated here once for the doctor. Only tests,
/// and who looks at the files of another device, name others.
struct Paths {
  std::string socket = PYX_DEFAULT_SOCKET;
  std::string storageDirectory = "/opt/data/dpm/dplugins/zav-pyx-plugin";

  std::string RunDirectory() const {
    const auto end = socket.rfind('/');
    return end == std::string::npos ? "." : socket.substr(0, end);
  }
  std::string DefaultPolicy() const { return storageDirectory + "/policy.json"; }
  std::string Database() const { return storageDirectory + "/.data.db"; }
  std::string Journal() const { return Database() + "-journal"; }
  std::string WriteAheadLog() const { return Database() + "-wal"; }
  std::string Backup() const { return Database() + ".bak"; }

  /// What the plug-in leaves beside the database: notes to its next process, and files that were set aside.
  std::string Restoring() const { return Database() + ".restoring"; }
  std::string Opening() const { return Database() + ".opening"; }
  std::string StaleBackup() const { return Backup() + ".stale"; }
  std::string NewBackup() const { return Backup() + ".new"; }
  std::string NewDatabase() const { return Database() + ".new"; }
  std::string Damaged() const { return Database() + ".damaged"; }
  std::string DamagedJournal() const { return Damaged() + "-journal"; }
};

}  // namespace zav::pyxctl::doctor
