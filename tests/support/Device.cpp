#include "support/Device.h"

#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

namespace zav::test {
namespace {

using Row = std::map<std::string, std::string>;

/// A connection of the tests' own; throws with SQLite's text.
class Database {
 public:
  explicit Database(const std::string& file) {
    if (sqlite3_open(file.c_str(), &handle) != SQLITE_OK) Fail();
    sqlite3_busy_timeout(handle, 5000);
  }
  ~Database() { sqlite3_close(handle); }
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  template <class Visit>
  void Run(const std::string& sql, Visit visit, std::initializer_list<std::string> values = {}) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(handle, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) Fail();
    int index = 0;
    for (const auto& value : values) {
      sqlite3_bind_text64(statement, ++index, value.data(), value.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
    }
    int result = SQLITE_ROW;
    while ((result = sqlite3_step(statement)) == SQLITE_ROW) visit(statement);
    sqlite3_finalize(statement);
    if (result != SQLITE_DONE) Fail();
  }

 private:
  [[noreturn]] void Fail() { throw std::runtime_error(sqlite3_errmsg(handle)); }

  sqlite3* handle = nullptr;
};

std::string Text(sqlite3_stmt* statement, int column) {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
  return text != nullptr ? std::string(text, static_cast<size_t>(sqlite3_column_bytes(statement, column))) : "";
}

}  // namespace

void MakeStorageParent() {
  std::filesystem::create_directories(kStorageParent);
}

void MakeStorageDirectory() {
  std::filesystem::create_directories(kStorageDirectory);
}

void MakeRunDirectory() {
  std::filesystem::create_directories(kRunDirectory);
}

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  file.close();
  if (!file) throw std::runtime_error("cannot write " + path);
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return {};
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

bool FileExists(const std::string& path) {
  return std::filesystem::exists(std::filesystem::symlink_status(path));
}

void WriteDefaultPolicy(const std::string& policies) {
  MakeStorageDirectory();
  WriteFile(kDefaultPolicy, "{\"PYXPlugin\":" + policies + "}");
}

std::string UsualPolicies() {
  return R"({"Service":{"restart_delay":30},)"
         R"("State":{"pyx_state":"enabled","logging_state":"enabled"},)"
         R"("Storage":{"config":{"max_index":2000,"max_file_size":10,"max_logging_period":3600},)"
         R"("state":{"count":0,"last_index":-1}}})";
}

std::string Sql(const std::string& sql, const std::string& file) {
  std::string first;
  bool seen = false;
  Database(file).Run(sql, [&](sqlite3_stmt* row) {
    if (!seen) first = Text(row, 0);
    seen = true;
  });
  return first;
}

std::map<std::string, std::string> Rows(const std::string& file) {
  Row rows;
  Database(file).Run("SELECT name, value FROM PYXPlugin",
                     [&](sqlite3_stmt* row) { rows[Text(row, 0)] = Text(row, 1); });
  return rows;
}

void SetRow(const std::string& name, const std::string& value) {
  Database database(kDatabase);
  const auto nothing = [](sqlite3_stmt*) {};
  database.Run(
      "CREATE TABLE IF NOT EXISTS PYXPlugin (name TEXT NOT NULL, value TEXT, "
      "PRIMARY KEY (name) ON CONFLICT REPLACE)",
      nothing);
  database.Run("INSERT INTO PYXPlugin(name, value) VALUES(?, ?)", nothing, {name, value});
}

MemoryStorage::MemoryStorage() {
  PolicyStorage::backend = this;
}

MemoryStorage::~MemoryStorage() {
  PolicyStorage::backend = nullptr;
}

namespace {

/// Asked from another thread: the one that holds the lock may not try it.
bool LockIsFree() {
  bool isFree = false;
  std::thread([&] {
    isFree = PolicyStorage::dbLock.try_lock();
    if (isFree) PolicyStorage::dbLock.unlock();
  }).join();
  return isFree;
}

}  // namespace

int MemoryStorage::store(const std::string& name, int status) {
  calledWithoutLock = calledWithoutLock || LockIsFree();
  if (storeResult == 0) statuses[name] = status;
  return storeResult;
}

int MemoryStorage::read(const std::string& name) {
  calledWithoutLock = calledWithoutLock || LockIsFree();
  const auto found = statuses.find(name);
  return found != statuses.end() ? found->second : -1;
}

}  // namespace zav::test
