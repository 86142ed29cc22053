#pragma once

#include <map>
#include <random>
#include <string>

namespace zav::test {

/// Names and contents of the files in the storage directory.
using Files = std::map<std::string, std::string>;

inline const std::string kDatabaseName = ".data.db";
inline const std::string kBackupName = ".data.db.bak";
inline const std::string kJournalName = ".data.db-journal";
inline constexpr size_t kPageSize = 4096;

/// The files that are in the storage directory now.
Files StorageFiles();
/// Puts just these there.
void PutStorageFiles(const Files& files);

/// So many random bytes.
std::string Noise(std::mt19937& random, size_t size);

/// What the database engine finds wrong with the database; "ok" when nothing.
std::string IntegrityOfDatabase();

}  // namespace zav::test
