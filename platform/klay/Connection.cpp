#include "klay/database/Connection.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <optional>

#include "klay/Exception.h"
#include "klay/database/Statement.h"

namespace klay::database {
namespace {

using Handle = std::unique_ptr<sqlite3, decltype(&sqlite3_close)>;

constexpr int kBusyTimeoutMs = 5000;
constexpr const char* kDamagedSuffix = ".damaged";
constexpr const char* kJournalSuffix = "-journal";

using Prepared = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;

/// A number that the engine has of the database; nothing where it does not tell.
std::optional<std::int64_t> NumberOf(sqlite3* database, const char* pragma) {
  sqlite3_stmt* raw = nullptr;
  const int result = sqlite3_prepare_v2(database, pragma, -1, &raw, nullptr);
  const Prepared statement(raw, sqlite3_finalize);
  if (result != SQLITE_OK || sqlite3_step(raw) != SQLITE_ROW) return std::nullopt;
  return sqlite3_column_int64(raw, 0);
}

/// What is wrong with the file's length, in which the engine finds nothing wrong; empty where nothing is. It reads the
/// rest of a page that the file ends in as zeros. And it takes no notice of what follows the last page, which a damaged
/// journal may have put so far away that the file is larger than the disk: who copies it does not come to its end.
std::string DamageOfLength(const std::string& path, sqlite3* database) {
  const auto size = NumberOf(database, "PRAGMA page_size");
  const auto count = NumberOf(database, "PRAGMA page_count");
  struct stat info {};
  if (!size || !count || stat(path.c_str(), &info) != 0) return "";
  if (info.st_size % *size != 0) return "the file ends within a page";
  return info.st_size / *size > *count ? "the file goes on behind its last page" : "";
}

/// Whether the file's header names a format that the engine reads but never writes, as the flip of a bit makes it do.
bool CanNeverBeWritten(const std::string& path) {
  constexpr std::streamoff kWriteVersion = 18;
  constexpr int kHighestVersion = 2;
  std::ifstream file(path, std::ios::binary);
  file.seekg(kWriteVersion);
  const int version = file.get();
  return file && version > kHighestVersion;
}

/// What is wrong with the file; empty when it is sound. Throws when it cannot be told.
std::string Damage(const std::string& path, sqlite3* database) {
  sqlite3_stmt* raw = nullptr;
  int result = sqlite3_prepare_v2(database, "PRAGMA integrity_check(1)", -1, &raw, nullptr);
  const Prepared statement(raw, sqlite3_finalize);
  if (result == SQLITE_OK) result = sqlite3_step(raw);
  if (result == SQLITE_ROW) {
    std::string finding = Column(raw, 0).getText();
    if (finding != "ok") return finding;
    if (CanNeverBeWritten(path)) return "the file is of a format that cannot be written";
    return DamageOfLength(path, database);
  }
  const int primary = result & 0xff;
  // The general error is that of a schema in no known format, and what is too big is a text of the schema whose length
  // was damaged.
  for (const int damage : {SQLITE_CORRUPT, SQLITE_NOTADB, SQLITE_ERROR, SQLITE_TOOBIG}) {
    if (primary == damage) return sqlite3_errmsg(database);
  }
  throw Exception(sqlite3_errmsg(database));
}

/// Whatever happens, nothing is left at `from`.
void Move(const std::string& from, const std::string& to) {
  if (std::rename(from.c_str(), to.c_str()) != 0) std::remove(from.c_str());
}

/// The journal goes along: left behind, it would be rolled into the file that comes next. One that was set aside
/// earlier belongs to another file.
void SetAside(const std::string& path) {
  const std::string aside = path + kDamagedSuffix;
  std::remove((aside + kJournalSuffix).c_str());
  Move(path + kJournalSuffix, aside + kJournalSuffix);
  Move(path, aside);
}

void Configure(sqlite3* database, const char* sql) {
  if (sqlite3_exec(database, sql, nullptr, nullptr, nullptr) != SQLITE_OK) throw Exception(sqlite3_errmsg(database));
}

}  // namespace

Connection::Connection(const std::string& path, int flags, bool check) {
  sqlite3* raw = nullptr;
  const int result = sqlite3_open_v2(path.c_str(), &raw, flags, nullptr);
  Handle opened(raw, sqlite3_close);
  if (result != SQLITE_OK) throw Exception(raw != nullptr ? sqlite3_errmsg(raw) : sqlite3_errstr(result));

  // Another process may look into the file for a moment (a copy, a diagnosis): wait for it, do not fail the write.
  sqlite3_busy_timeout(raw, kBusyTimeoutMs);

  if (check) {
    const std::string damage = Damage(path, raw);
    if (!damage.empty()) {
      opened.reset();
      SetAside(path);
      throw Exception(damage);
    }
  }

  // The end of a transaction is made durable: the default journal mode deletes the journal without syncing its
  // directory, so that after a power loss the journal may be back and roll a finished transaction back. A persistent
  // journal is ended by overwriting and syncing its header, at the same price.
  Configure(raw, "PRAGMA journal_mode = PERSIST");
  // Each transaction is on the disk when its statement returns.
  Configure(raw, "PRAGMA synchronous = FULL");
  database = opened.release();
}

Connection::~Connection() {
  sqlite3_close(database);
}

}  // namespace klay::database
