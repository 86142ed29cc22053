#pragma once

#include <string>

struct sqlite3;

namespace klay::database {

/// An open SQLite database file.
///
/// Durable: a statement whose execution returned survives a power loss. Rolled back through a journal file
/// (`<path>-journal`) and never a write-ahead log: between two statements the one file is the whole database, so a
/// plain copy of it is a backup.
///
/// One thread at a time. It must outlive every `Statement` made from it.
class __attribute__((visibility("default"))) Connection {
 public:
  /// Opens a database file.
  ///
  /// @param path   the file.
  /// @param flags  SQLite's open flags, such as SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE.
  /// @param check  whether the file is checked first (SQLite's `integrity_check`). A file that is no database or does
  ///               not pass is renamed to `<path>.damaged` (an earlier one is replaced), its journal along with it, and
  ///               the constructor throws: the evidence stays and the next opening starts clean. A file that merely
  ///               cannot be opened or read stays where it is.
  /// @throws klay::Exception with SQLite's text; nothing stays open.
  Connection(const std::string& path, int flags, bool check);
  ~Connection();

  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// SQLite's handle, for `Statement`.
  sqlite3* handle() const { return database; }

 private:
  sqlite3* database = nullptr;
};

}  // namespace klay::database
