#include "klay/database/Column.h"

#include <sqlite3.h>

#include "klay/Exception.h"

namespace klay::database {

Column::Column(sqlite3_stmt* row, int position) : statement(row), index(position) {}

std::string Column::getText() const {
  const unsigned char* text = sqlite3_column_text(statement, index);
  if (text != nullptr) {
    return {reinterpret_cast<const char*>(text), static_cast<size_t>(sqlite3_column_bytes(statement, index))};
  }
  sqlite3* database = sqlite3_db_handle(statement);
  const int error = sqlite3_errcode(database);
  if (sqlite3_column_type(statement, index) != SQLITE_NULL || error == SQLITE_NOMEM || error == SQLITE_RANGE) {
    throw Exception(sqlite3_errmsg(database));
  }
  return {};
}

}  // namespace klay::database
