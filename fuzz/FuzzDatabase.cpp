// The bytes of a database file that a start finds, with no backup, the same one, or a sound one: the plug-in opens it,
// or does without it, and a report that comes then is logged and leaves a sound database with a backup that is its
// copy; the start after that, where the input asks for one, finds the log as it was stored.
//
// Input: a byte that chooses what lies beside the database; where it asks for a journal, the size of that in two bytes
// and the journal; then the database.

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Check.h"
#include "Clock.h"
#include "Input.h"
#include "Restart.h"
#include "Target.h"
#include "support/Device.h"
#include "support/DeviceRootEntry.h"
#include "support/LogModel.h"
#include "support/LogText.h"

namespace zav::fuzz {
namespace {

using namespace test;

const std::string kUrl = "http://reported.example/after";

/// What lies beside the database.
constexpr unsigned kSameBackup = 1;
constexpr unsigned kSoundBackup = 2;
constexpr unsigned kBackupBits = 3;
constexpr unsigned kWithJournal = 4;
constexpr unsigned kBackupIsStale = 8;
constexpr unsigned kRestoreIsOwed = 16;
constexpr unsigned kStartAgain = 32;

/// Nothing in the way: the process is alone with its files, and a process never meets its own locks.
int GetEveryLock(int /*file*/, int command, ...) {
  if (command == F_GETLK) {
    va_list rest;
    va_start(rest, command);
    va_arg(rest, flock*)->l_type = F_UNLCK;
    va_end(rest);
  }
  return 0;
}

/// Lets SQLite do without what takes a good part of the time and nobody asks for here: one thread, one process, one
/// user, and no link on the way to the files. It still believes in its locks: the ways of the system that have none
/// also have no log ahead of the writes, which damage may turn on.
void UsePlainFiles() {
  CheckEqual(sqlite3_config(SQLITE_CONFIG_SINGLETHREAD), SQLITE_OK, "SQLite was not in use before");
  sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
  static sqlite3_vfs plain = *sqlite3_vfs_find("unix");
  const auto replace = [](const char* name, auto* function) {
    const int result = plain.xSetSystemCall(&plain, name, reinterpret_cast<sqlite3_syscall_ptr>(function));
    CheckEqual(result, SQLITE_OK, "SQLite lets its calls of the system be replaced");
  };
  replace("fcntl", GetEveryLock);
  // Root would give each file to the owner of the database.
  replace(
      "geteuid", +[]() -> uid_t { return 1; });
  plain.zName = "plain";
  plain.xFullPathname = [](sqlite3_vfs* /*vfs*/, const char* path, int size, char* full) {
    return std::snprintf(full, static_cast<std::size_t>(size), "%s", path) < size ? SQLITE_OK : SQLITE_CANTOPEN;
  };
  sqlite3_vfs_register(&plain, 1);
}

/// A database of the plug-in's own making.
std::string MakeSoundDatabase() {
  Check(CurrentDeviceRoot() != DeviceRoot::kNone, "the process has the plug-in's directories to itself");
  UsePlainFiles();
  MakeStorageDirectory();
  WriteDefaultPolicy(UsualPolicies());
  // The first use seeds the tables.
  pyx::State::Instance().SaveStorage();
  return ReadFile(kDatabase);
}

void RemoveFiles() {
  for (const auto& file : std::filesystem::directory_iterator(kStorageDirectory)) {
    if (file.path() != kDefaultPolicy) std::filesystem::remove(file);
  }
}

struct Files {
  explicit Files(Input& input)
      : beside(input.Byte()),
        journal((beside & kWithJournal) != 0 ? input.Bytes(input.Size()) : std::string()),
        database(input.Rest()) {}

  unsigned beside;
  std::string journal;
  std::string database;
};

void LayOut(const Files& files, const std::string& sound) {
  RemoveFiles();
  const auto& [beside, journal, database] = files;
  if (!journal.empty()) WriteFile(kJournal, journal);
  WriteFile(kDatabase, database);
  if ((beside & kBackupBits) == kSameBackup) WriteFile(kBackup, database);
  if ((beside & kBackupBits) == kSoundBackup) WriteFile(kBackup, sound);
  if ((beside & kBackupIsStale) != 0) WriteFile(kDatabase + ".bak.stale", "");
  if ((beside & kRestoreIsOwed) != 0) WriteFile(kDatabase + ".restoring", "");
}

Json::Value StoredLog() {
  return ParseObject(Sql("SELECT value FROM PYXPlugin WHERE name = 'Storage'"));
}

void CheckReportIsStored() {
  const Json::Value storage = StoredLog();
  const int lastIndex = IntOf(ObjectOf(storage, "state"), "last_index");
  const Json::Value& record = ObjectOf(storage, std::to_string(lastIndex));
  CheckEqual(TextOf(record, "url"), kUrl, "a report that was acknowledged is stored");
}

/// Whether a file takes no row and is not damaged all the same, by the library's own account: it is sound, but another
/// program's or of another layout; or the library wants memory to read it, as it says of some values that it cannot
/// read.
bool IsUnfit(const std::string& database) {
  const std::string copy = kDatabase + ".copy";
  WriteFile(copy, database);
  bool isSound = false;
  try {
    isSound = Sql("PRAGMA integrity_check", copy) == "ok";
    Sql("INSERT INTO PYXPlugin(name, value) VALUES('name', '')", copy);
    return false;
  } catch (const std::runtime_error& error) {
    return isSound || std::string_view(error.what()).find("out of memory") != std::string_view::npos;
  }
}

/// Nothing tells an unfit database from one that cannot be read or written for the moment: it goes only where a sound
/// backup may take its place.
bool MayRefuse(unsigned beside, const std::string& database) {
  const bool keepsIt = (beside & kBackupIsStale) != 0 || (beside & kBackupBits) != kSoundBackup;
  return keepsIt && IsUnfit(database);
}

void CheckNextStart() {
  const LogContent stored = ReadContent(StoredLog());
  const pyx::State& state = RestartAll([] {});
  const LogModel expected(stored, state.LoggingState() == pyx::State::Enabled, Clock::Now());
  CheckEqual(ReadContent(StoredLog()), Rewritten(expected.Content()), "the next start finds the log as it was stored");
}

void Run(Input& input) {
  static const std::string sound = MakeSoundDatabase();
  Clock::Set(Clock::kStart);
  const Files files(input);
  pyx::State& state = RestartAll([&] { LayOut(files, sound); });
  if (state.LogThreatUrl(kUrl, "phishing", Clock::Now()) != 0) {
    Check(MayRefuse(files.beside, files.database), "a report succeeds, whatever the database was");
    return;
  }
  CheckEqual<std::string>(Sql("PRAGMA integrity_check"), "ok", "the database is sound after a report");
  Check(ReadFile(kBackup) == ReadFile(kDatabase), "the backup is a copy of the database");
  CheckReportIsStored();
  if ((files.beside & kStartAgain) != 0) CheckNextStart();
}

}  // namespace
}  // namespace zav::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zav::fuzz::Input input(data, size);
  zav::fuzz::Run(input);
  return 0;
}
