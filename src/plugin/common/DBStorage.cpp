#include "common/DBStorage.h"

#include <klay/Exception.h>
#include <klay/database/Statement.h>

#include <algorithm>
#include <new>
#include <string_view>
#include <vector>

#include "common/FileHelper.h"

namespace zav::common {
namespace {

const char* const kDirectory = "/opt/data/dpm/dplugins/zav-pyx-plugin";
const char* const kDatabase = "/opt/data/dpm/dplugins/zav-pyx-plugin/.data.db";
const char* const kBackup = "/opt/data/dpm/dplugins/zav-pyx-plugin/.data.db.bak";
const char* const kJournal = "/opt/data/dpm/dplugins/zav-pyx-plugin/.data.db-journal";
// There from before the database is deleted until the backup stands whole in its place: a restore that was cut short
// is finished at the next opening. Without it an empty database would be made then, and overwrite the backup.
const char* const kRestoring = "/opt/data/dpm/dplugins/zav-pyx-plugin/.data.db.restoring";
// There while the backup on the disk may lack what the database holds: from before the first write until the end of the
// process, which syncs it, or for longer when the last copy failed.
const char* const kStale = "/opt/data/dpm/dplugins/zav-pyx-plugin/.data.db.bak.stale";

// There while a database that has a backup is being opened: if the database is gone at the next opening, it was found
// damaged and set aside, and nobody came to say so.
const char* const kOpening = "/opt/data/dpm/dplugins/zav-pyx-plugin/.data.db.opening";

// SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE
constexpr int kOpenFlags = 6;
// SQLITE_OPEN_READWRITE
constexpr int kOpenExisting = 2;
constexpr bool kCheckAtOpening = true;

// The runs of blanks are part of the schema text that stands in every device's database.
constexpr std::string_view kColumns =
    " (name        TEXT NOT NULL,                                 value       TEXT,                                  "
    "        PRIMARY KEY (name) ON CONFLICT REPLACE)";
static_assert(kColumns.size() == 159);

using klay::database::Connection;
using klay::database::Statement;

bool HasRows(const Connection& database, const Component& component) {
  return Statement(database, "SELECT 1 FROM " + ComponentName(component) + " LIMIT 1").step();
}

/// Whether the database is whole and holds anything.
bool HoldsRows() {
  try {
    FileHelper().discardPipeOrDevice(kJournal);
    const Connection database(kDatabase, kOpenExisting, !kCheckAtOpening);
    Statement check(database, "PRAGMA integrity_check(1)");
    if (!check.step() || check.getColumn(0).getText() != "ok") return false;
    return HasRows(database, PYXPlugin);
  } catch (...) {
    return false;
  }
}

/// What an SQL failure of a read or a write means: a missing table is told by the engine's text alone.
int TableFailure(const char* function, const Component& component, const char* before, const std::string& name,
                 const char* after, std::string_view reason) {
  if (reason.find("no such table") != std::string_view::npos) {
    LogLine(Priority::kWarning, LOG_SITE_OF(function), "Table ", ComponentName(component), " is not created yet");
    return kStorageNoTable;
  }
  LogLine(Priority::kError, LOG_SITE_OF(function), before, name, after, reason);
  return kStorageFailure;
}

}  // namespace

/// The frame of every operation on an open connection: refuses without one, and turns what the database library throws
/// into a line and a code. `report` gets the library's text and returns the code.
template <class Work, class Report>
int DBStorage::Guarded(const char* function, const char* unknownFailure, Work work, Report report) {
  if (!handler) {
    LogLine(Priority::kError, LOG_SITE_OF(function), "Storage handler was not initialized");
    return kStorageFailure;
  }
  try {
    // The engine would open a pipe of that name, and wait.
    FileHelper().discardPipeOrDevice(kJournal);
    return work();
  } catch (const klay::Exception& exception) {
    return report(exception.what());
  } catch (...) {
    LogLine(Priority::kError, LOG_SITE_OF(function), unknownFailure);
    return kStorageFailure;
  }
}

void DBStorage::InitHandler() {
  if (handler) return;
  FileHelper files;
  if (files.createDirectory(kDirectory) != 0) return;
  if (!FinishRestore()) {
    LOG_ERROR("Failed to initialize handler: the backup cannot be put in place");
    return;
  }
  const bool mayBeSetAside = files.fileExist(kDatabase) && files.fileExist(kBackup);
  const bool heldSomething = mayBeSetAside && !files.fileEmpty(kDatabase);
  if (mayBeSetAside) files.makeMark(kOpening);
  try {
    files.discardPipeOrDevice(kJournal);
    handler.reset(new (std::nothrow) Connection(kDatabase, kOpenFlags, kCheckAtOpening));
  } catch (const klay::Exception& exception) {
    LOG_ERROR("Failed to initialize handler: ", exception.what());
  } catch (...) {
    LOG_ERROR("Failed to initialize handler with unknown reason");
  }
  // By a damaged journal it had no page before: what that leaves looks like a new device, and is none.
  if (handler && heldSomething && files.fileEmpty(kDatabase)) {
    LOG_ERROR("Failed to initialize handler: the journal left nothing of the database");
    handler.reset();
    files.discardFile(kDatabase);
  }
  // It was damaged and is set aside: should the process end before the backup is back, the next one sees to that.
  if (!handler && !files.fileExist(kDatabase) && files.fileExist(kBackup)) {
    files.makeMark(kRestoring);
    restoreIsOwed = true;
  }
  if (mayBeSetAside) files.removeMark(kOpening);
}

/// Finishes a restore that an earlier process left unfinished, or that found no room. One that this process owes comes
/// with its owner's steps.
/// @return whether the database may be opened.
bool DBStorage::FinishRestore() {
  FileHelper files;
  if (files.fileExist(kOpening)) {
    if (!files.fileExist(kDatabase) && files.fileExist(kBackup)) files.makeMark(kRestoring);
    files.removeMark(kOpening);
  }
  if (restoreIsOwed || !files.fileExist(kRestoring) || PlaceBackup() || !files.fileExist(kRestoring)) return true;
  // What could be neither deleted nor overwritten is still the database.
  return HoldsRows();
}

/// Copies the backup to where the database was. After a failure the restore remains to be finished, unless there is no
/// backup that could be read.
bool DBStorage::PlaceBackup() {
  FileHelper files;
  const bool readable = files.fileReadable(kBackup);
  // A journal that the old file left would be rolled into the new one.
  if (readable) files.discardFile(kJournal);
  const bool placed = files.replaceFile(kBackup, kDatabase) == 0;
  if (!readable || (placed && files.syncFile(kDatabase))) {
    restoreIsOwed = !files.removeMark(kRestoring);
  } else {
    // Not yet on the disk, it is when the next row is.
    restoreIsOwed = placed;
  }
  if (placed) backup = BackupIs::kComplete;
  return placed;
}

void DBStorage::Reset() {
  handler.reset();
  InitHandler();
}

int DBStorage::RestoreBackup() {
  handler.reset();
  FileHelper files;
  const bool unreadable = files.fileExist(kBackup) && !files.fileReadable(kBackup);
  if (unreadable || (BackupIsBehind() && HoldsRows())) {
    // There is nothing to put in its place, or less than it holds: it stays, and is open for the next step.
    LOG_WARNING("Failed to restore backup");
    InitHandler();
    return kStorageFailure;
  }
  // From here on it is the only copy.
  files.syncFile(kBackup);
  files.makeMark(kRestoring);
  files.deleteFile(kDatabase);
  files.discardFile(kJournal);
  if (!PlaceBackup()) {
    LOG_WARNING("Failed to restore backup");
    return kStorageFailure;
  }
  InitHandler();
  return kStorageOk;
}

int DBStorage::CreateTable(const Component& component) {
  const char* const function = __func__;
  return Guarded(
      function, "Failed to create table, with unknown reason",
      [&] {
        Statement(*handler, "CREATE TABLE IF NOT EXISTS " + ComponentName(component) + std::string(kColumns)).exec();
        return kStorageOk;
      },
      [&](const char* reason) {
        LogLine(Priority::kError, LOG_SITE_OF(function), "Failed to create table: ", reason);
        return kStorageFailure;
      });
}

int DBStorage::CheckTables() {
  const char* const function = __func__;
  const auto check = [&]() -> int {
    std::vector<Component> missing{PYXPlugin};
    {
      Statement tables(*handler, "SELECT name FROM sqlite_master WHERE type = ?");
      tables.bind(1, "table");
      while (tables.step()) {
        const std::string table = tables.getColumn(0).getText();
        const auto found =
            std::find_if(missing.begin(), missing.end(), [&](Component each) { return ComponentName(each) == table; });
        if (found == missing.end()) continue;
        LogLine(Priority::kDebug, LOG_SITE_OF(function), "Table [", table, "] is present");
        missing.erase(found);
      }
    }
    if (missing.empty()) return kStorageOk;
    const bool created =
        std::all_of(missing.begin(), missing.end(), [&](Component each) { return CreateTable(each) == kStorageOk; });
    if (!created) return kStorageFailure;
    // The engine takes one whose name is not written quite alike for the same table: that is not new, and keeps its
    // rows.
    const bool isNew =
        std::none_of(missing.begin(), missing.end(), [&](Component each) { return HasRows(*handler, each); });
    return isNew ? kStorageNoTable : kStorageOk;
  };
  return Guarded(function, "Failed to check tables, with unknown reason", check, [&](const char* reason) {
    LogLine(Priority::kError, LOG_SITE_OF(function), "Failed to check tables: ", reason);
    return kStorageFailure;
  });
}

int DBStorage::RestoreTable(const Component& component) {
  const char* const function = __func__;
  const auto restore = [&]() -> int {
    {
      const std::string name = ComponentName(component);
      Statement table(*handler, "SELECT name FROM sqlite_master WHERE type = ? AND name = ?");
      table.bind(1, "table");
      table.bind(2, name);
      if (table.step()) {
        LogLine(Priority::kDebug, LOG_SITE_OF(function), "Table already exists");
        return kStorageOk;
      }
    }
    return CreateTable(component);
  };
  return Guarded(function, "Failed to restore table, with unknown reason", restore, [&](const char* reason) {
    LogLine(Priority::kError, LOG_SITE_OF(function), "Failed to restore table: ", reason);
    return kStorageFailure;
  });
}

int DBStorage::WritePolicy(const Component& component, const std::string& name, const std::string& value) {
  const char* const function = __func__;
  const auto write = [&]() -> int {
    // The backup of what is written now is complete in memory, but on the disk at the end only.
    MarkBackup();
    {
      Statement insert(*handler, "INSERT INTO " + ComponentName(component) + "(name, value) VALUES(?, ?)");
      insert.bind(1, name);
      insert.bind(2, value);
      if (insert.exec() == 0) {
        LogLine(Priority::kError, LOG_SITE_OF(function), "Failed to write [", name, "], ", insert.getErrorMessage());
        return kStorageNothingWritten;
      }
    }
    // There is something again that no backup may take the place of.
    if (restoreIsOwed) restoreIsOwed = !FileHelper().removeMark(kRestoring);
    // The statement has ended: the file is whole and may be copied.
    Backup();
    return kStorageOk;
  };
  return Guarded(function, "Failed to write data, with unknown reason", write, [&](const char* reason) {
    return TableFailure(function, component, "Failed to write [", name, "], ", reason);
  });
}

// Whatever becomes of the copy, the row is written: nothing that goes wrong here may say otherwise.
void DBStorage::Backup() noexcept {
  int result = kStorageFailure;
  try {
    result = FileHelper().replaceFile(kDatabase, kBackup);
  } catch (...) {
  }
  if (result != 0) LOG_WARNING("Failed to backup DB");
  backup = result == 0 ? BackupIs::kComplete : BackupIs::kBehind;
}

/// Tells the next process that the backup may be behind, however this one ends.
void DBStorage::MarkBackup() {
  if (marked) return;
  FileHelper files;
  // One that no process before has marked is complete; from here on the mark would say otherwise.
  if (backup == BackupIs::kUnknown && files.fileExist(kBackup) && !files.fileExist(kStale)) {
    backup = BackupIs::kComplete;
  }
  marked = files.makeMark(kStale);
}

/// Whether the database may hold what the backup lacks. One that an earlier process left so marked, not having come to
/// its end, is complete if nothing was lost with it.
bool DBStorage::BackupIsBehind() {
  FileHelper files;
  if (backup != BackupIs::kUnknown) return backup == BackupIs::kBehind;
  return files.fileExist(kStale) && !files.sameContent(kBackup, kDatabase);
}

DBStorage::~DBStorage() {
  handler.reset();
  if (backup != BackupIs::kComplete) return;
  try {
    FileHelper files;
    if (files.syncFile(kBackup)) files.removeMark(kStale);
  } catch (...) {
  }
}

int DBStorage::ReadPolicy(const Component& component, const std::string& name, std::string& value) {
  const char* const function = __func__;
  const auto read = [&]() -> int {
    value.clear();
    Statement select(*handler, "SELECT value FROM " + ComponentName(component) + " WHERE name = ?");
    select.bind(1, name);
    if (!select.step() || select.getColumnCount() != 1) return kStorageNoRow;
    value = select.getColumn(0).getText();
    LogLine(Priority::kDebug, LOG_SITE_OF(function), "Successfully read [", name, "]");
    return kStorageOk;
  };
  return Guarded(function, "Failed to read data, with unknown reason", read, [&](const char* reason) {
    return TableFailure(function, component, "Failed to read [", name, "]: ", reason);
  });
}

}  // namespace zav::common
