#pragma once

#include <dpm/PolicyStorage.h>

#include <map>
#include <mutex>
#include <string>

/// The device root that a test runs on: the plug-in's directories and files, and the daemon's policy storage.
namespace zav::test {

inline const std::string kStorageParent = "/opt/data/dpm/dplugins";
inline const std::string kStorageDirectory = kStorageParent + "/zav-pyx-plugin";
inline const std::string kDatabase = kStorageDirectory + "/.data.db";
inline const std::string kBackup = kDatabase + ".bak";
inline const std::string kJournal = kDatabase + "-journal";
inline const std::string kDefaultPolicy = kStorageDirectory + "/policy.json";
inline const std::string kRunDirectory = "/tmp/zav-pyx-plugin";
inline const std::string kSocketFile = kRunDirectory + "/.socket";

/// Makes what the plug-in expects to find: the parents of its storage directory.
void MakeStorageParent();
/// The same and the storage directory itself.
void MakeStorageDirectory();
void MakeRunDirectory();

void WriteFile(const std::string& path, const std::string& content);
/// The bytes of a file; empty when there is none.
std::string ReadFile(const std::string& path);
bool FileExists(const std::string& path);

/// Writes "policy.json"; `policies` is the JSON text of the "PYXPlugin" member.
void WriteDefaultPolicy(const std::string& policies);
/// The defaults that most tests start with: logging enabled, room for 10 records, 30 s restart delay.
std::string UsualPolicies();

/// Runs SQL on a database file with SQLite itself. @return the first column of the first row; empty without one.
std::string Sql(const std::string& sql, const std::string& file = kDatabase);
/// The rows of the policy table.
std::map<std::string, std::string> Rows(const std::string& file = kDatabase);
/// Replaces a row behind the plug-in's back, making the table first where there is none.
void SetRow(const std::string& name, const std::string& value);

/// The daemon's policy storage, in memory. It is the backend as long as it lives.
class MemoryStorage : public PolicyStorageBackend {
 public:
  MemoryStorage();
  ~MemoryStorage() override;

  int store(const std::string& name, int status) override;
  int read(const std::string& name) override;

  std::map<std::string, int> statuses;
  /// What `store` returns.
  int storeResult = 0;
  /// Whether `dbLock` was free at any call, which it must not be.
  bool calledWithoutLock = false;
};

}  // namespace zav::test
