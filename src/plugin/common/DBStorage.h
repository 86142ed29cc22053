#pragma once

#include <klay/database/Connection.h>

#include <cstdint>
#include <memory>
#include <string>

#include "common/Component.h"
#include "common/Log.h"

namespace zav::common {

/// The result codes of `DBStorage`.
enum StorageCode : int {
  kStorageOk = 0,
  /// No row with that name.
  kStorageNoRow = -46,
  /// The INSERT ran but wrote nothing.
  kStorageNothingWritten = -47,
  /// Not initialised, an SQL error, a failed copy, an unknown exception.
  kStorageFailure = -50,
  /// The table does not exist; from `CheckTables`: it was missing and has been created.
  kStorageNoTable = -51,
  /// Never produced here; `Manager` guards against a storage that tells an empty default policy by it.
  kStorageEmptyDefault = -52,
};

/// The policy database: named rows of text in an SQLite file, one table for each component, and a copy of the file
/// that is refreshed after every write.
///
/// Every operation reports a code and repairs nothing by itself; `Manager`, its one owner, builds its recovery from
/// them. None lets an exception of the database library out: each is logged and becomes a code. One thread at a time.
/// Without an open connection every operation but `InitHandler`, `Reset` and `RestoreBackup` logs so and returns
/// `kStorageFailure`.
class DBStorage {
 public:
  DBStorage() = default;
  /// Closes the database, and brings its backup to the disk.
  ~DBStorage();
  DBStorage(const DBStorage&) = delete;
  DBStorage& operator=(const DBStorage&) = delete;

  /// Opens the database if it is not open: makes the storage directory (its parents must exist) and the file where
  /// they are missing, and first finishes a restore of the backup that was cut short. After a failure, which is logged,
  /// the connection stays closed.
  void InitHandler();

  /// Closes the database and opens it again; closed after a failure.
  void Reset();

  /// Puts the backup in the database's place: closes and deletes the database, copies the backup over it, opens it.
  ///
  /// @return 0 when the backup was put in place, open or not; `kStorageFailure` when it could not be: the database file
  ///         is then gone and the connection closed, unless the backup is there but cannot be read, or the database is
  ///         sound and holds what the backup lacks; it is left in place then, and open.
  ///         One that could not be deleted stays as well; `Reset` opens it.
  int RestoreBackup();

  /// Makes sure that the table of every component exists.
  ///
  /// @return 0 all were there; `kStorageNoTable` some were missing and are there now, empty; `kStorageFailure`.
  int CheckTables();

  /// Creates a component's table if it does not exist. @return 0 or `kStorageFailure`.
  int CreateTable(const Component& component);

  /// The same, after a look whether it is there, which is logged. @return 0 or `kStorageFailure`.
  int RestoreTable(const Component& component);

  /// Inserts a row, or replaces the one of that name, durably, and refreshes the backup.
  ///
  /// @return 0 written, whatever became of the backup; `kStorageNothingWritten`, `kStorageNoTable` or
  ///         `kStorageFailure`: the row is as it was.
  int WritePolicy(const Component& component, const std::string& name, const std::string& value);

  /// Reads a row.
  ///
  /// @param value  the row's text; emptied where there is no such row or the read fails, left alone where the
  ///               database is not open.
  /// @return 0, `kStorageNoRow`, `kStorageNoTable` or `kStorageFailure`.
  int ReadPolicy(const Component& component, const std::string& name, std::string& value);

 private:
  template <class Work, class Report>
  int Guarded(const char* function, const char* unknownFailure, Work work, Report report);

  bool FinishRestore();
  bool PlaceBackup();
  void Backup() noexcept;
  void MarkBackup();
  bool BackupIsBehind();

  std::unique_ptr<klay::database::Connection> handler;
  /// The mark of a restore is to be left alone until something is written: the database was set aside as damaged and
  /// the backup has yet to take its place, or it has and may not be on the disk yet.
  bool restoreIsOwed = false;
  /// What is known of the backup since this object wrote or restored it.
  enum class BackupIs : std::uint8_t { kUnknown, kComplete, kBehind };
  BackupIs backup = BackupIs::kUnknown;
  /// The note to the next process was made.
  bool marked = false;
};

}  // namespace zav::common
