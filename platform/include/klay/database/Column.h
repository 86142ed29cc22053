#pragma once

#include <string>

struct sqlite3_stmt;

namespace klay::database {

/// One value of a statement's current row; made by `Statement::getColumn`.
class __attribute__((visibility("default"))) Column {
 public:
  /// @param statement  the statement that stands on a row.
  /// @param index      the column, counted from 0.
  Column(sqlite3_stmt* statement, int index);
  Column(const Column&) = delete;
  Column& operator=(const Column&) = delete;

  /// The value as text, zeros inside it included; NULL reads as the empty string.
  /// @throws klay::Exception when there is no such column, or SQLite has no memory for its text.
  std::string getText() const;

 private:
  sqlite3_stmt* statement;
  int index;
};

}  // namespace klay::database
