#include "klay/database/Connection.h"

#include <sqlite3.h>

#include <cstdio>
#include <memory>

#include "klay/Exception.h"
#include "klay/database/Statement.h"

namespace klay::database {
namespace {

using Handle = std::unique_ptr<sqlite3, decltype(&sqlite3_close)>;

constexpr int kBusyTimeoutMs = 5000;
constexpr const char* kDamagedSuffix = ".damaged";
constexpr const char* kJournalSuffix = "-journal";

/// What is wrong with the file; empty when it is sound. Throws when it cannot be told.
std::string Damage(sqlite3* database) {
  sqlite3_stmt* raw = nullptr;
  int result = sqlite3_prepare_v2(database, "PRAGMA quick_check(1)", -1, &raw, nullptr);
  const std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> statement(raw, sqlite3_finalize);
  if (result == SQLITE_OK) result = sqlite3_step(raw);
  if (result == SQLITE_ROW) {
    const std::string finding = Column(raw, 0).getText();
    return finding == "ok" ? std::string() : finding;
  }
  const int primary = result & 0xff;
  if (primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB) return sqlite3_errmsg(database);
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
    const std::string damage = Damage(raw);
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
