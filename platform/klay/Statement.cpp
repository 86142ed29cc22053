#include "klay/database/Statement.h"

#include <sqlite3.h>

#include <cstring>

#include "klay/Exception.h"

namespace klay::database {

Statement::Statement(const Connection& connection, const std::string& sql) : database(connection.handle()) {
  check(sqlite3_prepare_v2(database, sql.data(), static_cast<int>(sql.size()), &statement, nullptr));
}

Statement::~Statement() {
  sqlite3_finalize(statement);
}

void Statement::bind(int index, const char* text) {
  if (text == nullptr) {
    check(sqlite3_bind_null(statement, index));
  } else {
    check(sqlite3_bind_text64(statement, index, text, std::strlen(text), SQLITE_TRANSIENT, SQLITE_UTF8));
  }
}

void Statement::bind(int index, const std::string& text) {
  check(sqlite3_bind_text64(statement, index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8));
}

bool Statement::step() {
  const int result = sqlite3_step(statement);
  if (result == SQLITE_ROW) return true;
  if (result == SQLITE_DONE) return false;
  throw Exception(sqlite3_errmsg(database));
}

int Statement::exec() {
  while (step()) {
  }
  return sqlite3_changes(database);
}

int Statement::getColumnCount() const {
  return sqlite3_column_count(statement);
}

Column Statement::getColumn(int index) const {
  return {statement, index};
}

std::string Statement::getErrorMessage() const {
  return sqlite3_errmsg(database);
}

void Statement::check(int result) const {
  if (result != SQLITE_OK) throw Exception(sqlite3_errmsg(database));
}

}  // namespace klay::database
