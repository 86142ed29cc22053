#pragma once

#include <string>

#include "klay/database/Column.h"
#include "klay/database/Connection.h"

struct sqlite3_stmt;

namespace klay::database {

/// One prepared SQL statement.
///
/// Every operation throws `klay::Exception` with SQLite's text when SQLite reports an error. One thread at a time; it
/// must end before its connection does.
class __attribute__((visibility("default"))) Statement {
 public:
  /// Prepares `sql`, one statement, on an open connection.
  Statement(const Connection& connection, const std::string& sql);
  ~Statement();

  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  /// Binds a copy of `text` to the parameter `index`, counted from 1. A null pointer binds NULL.
  void bind(int index, const char* text);
  /// Binds a string, zeros inside it included. It is not copied: it has to stay as it is until the statement ends.
  void bind(int index, const std::string& text);
  void bind(int index, std::string&& text) = delete;

  /// Goes to the next row.
  /// @return true while there is one.
  bool step();

  /// Runs the statement to its end.
  /// @return how many rows SQLite reports as changed by the last INSERT, UPDATE or DELETE of the connection; 0 means
  ///         that it did nothing.
  int exec();

  /// How many columns a row of the result has; 0 for a statement without one.
  int getColumnCount() const;

  /// A column of the current row, counted from 0; valid until the next `step` or the end of the statement.
  Column getColumn(int index) const;

  /// SQLite's text for the last error of the connection.
  std::string getErrorMessage() const;

 private:
  void check(int result) const;

  sqlite3* database;
  sqlite3_stmt* statement = nullptr;
};

}  // namespace klay::database
