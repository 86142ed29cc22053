#include "StatusStorage.h"

#include <sqlite3.h>

#include <charconv>

#include "dlog/dlog.h"
#include "klay/Exception.h"
#include "klay/database/Statement.h"

namespace host {
namespace {

using klay::database::Connection;
using klay::database::Statement;

std::unique_ptr<Connection> Open(const std::string& path) {
  return std::make_unique<Connection>(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, true);
}

/// A damaged file is out of the way after the first attempt.
std::unique_ptr<Connection> OpenOrHeal(const std::string& path) {
  try {
    return Open(path);
  } catch (const klay::Exception& error) {
    __dlog_print(DLOG_BUFFER_MAIN, DLOG_WARN, "DPM", "can't open %s: %s; trying once more", path.c_str(), error.what());
    return Open(path);
  }
}

}  // namespace

StatusStorage::StatusStorage(const std::string& path) : database(OpenOrHeal(path)) {
  Statement(*database, "CREATE TABLE IF NOT EXISTS status (name TEXT PRIMARY KEY, value INTEGER NOT NULL)").exec();
  PolicyStorage::backend = this;
}

StatusStorage::~StatusStorage() {
  PolicyStorage::backend = nullptr;
}

int StatusStorage::store(const std::string& name, int status) {
  const std::string value = std::to_string(status);
  Statement statement(*database, "INSERT OR REPLACE INTO status (name, value) VALUES (?, ?)");
  statement.bind(1, name);
  statement.bind(2, value);
  return statement.exec() == 1 ? 0 : -1;
}

int StatusStorage::read(const std::string& name) {
  Statement statement(*database, "SELECT value FROM status WHERE name = ?");
  statement.bind(1, name);
  if (!statement.step()) return kNoStatus;
  const std::string text = statement.getColumn(0).getText();
  int status = kNoStatus;
  std::from_chars(text.data(), text.data() + text.size(), status);
  return status;
}

}  // namespace host
