#include "doctor/DatabaseCopy.h"

#include <algorithm>

namespace zav::pyxctl::doctor {
namespace {

// Places in the header of a database file.
constexpr std::size_t kWriteVersion = 18;
constexpr std::size_t kReadVersion = 19;
constexpr char kWithJournal = 1;
constexpr char kWithWriteAheadLog = 2;

constexpr std::chrono::seconds kPatience{10};
constexpr int kStepsBetweenLooks = 100000;

struct Finalize {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

/// Without the line that names the database, which is no news.
std::string OnOneLine(std::string said) {
  constexpr std::string_view kHeading = "*** in database main ***\n";
  if (said.starts_with(kHeading)) said.erase(0, kHeading.size());
  std::replace(said.begin(), said.end(), '\n', ';');
  return said;
}

std::string TextAt(sqlite3_stmt* statement, int column) {
  const void* text = sqlite3_column_blob(statement, column);
  const int size = sqlite3_column_bytes(statement, column);
  return text != nullptr ? std::string(static_cast<const char*>(text), static_cast<std::size_t>(size)) : "";
}

}  // namespace

DatabaseCopy::DatabaseCopy(std::string bytes) : bytes_(std::move(bytes)) {
  // In memory there is no log ahead of the writes; what lies in the file itself can be read all the same.
  if (bytes_.size() > kReadVersion && bytes_[kReadVersion] == kWithWriteAheadLog) {
    bytes_[kReadVersion] = kWithJournal;
    if (bytes_[kWriteVersion] == kWithWriteAheadLog) bytes_[kWriteVersion] = kWithJournal;
  }
  sqlite3* raw = nullptr;
  int result = sqlite3_open_v2(":memory:", &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_MEMORY, nullptr);
  database_.reset(raw);
  const auto size = static_cast<sqlite3_int64>(bytes_.size());
  // With no bytes it stays the empty database that it is.
  if (result == SQLITE_OK && size > 0) {
    auto* data = reinterpret_cast<unsigned char*>(bytes_.data());
    result = sqlite3_deserialize(raw, "main", data, size, size, SQLITE_DESERIALIZE_READONLY);
  }
  if (result != SQLITE_OK) throw DatabaseError(sqlite3_errstr(result));
  // What a file's schema says is not carried out, and nothing goes to the disk.
  sqlite3_db_config(raw, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  Ask("PRAGMA temp_store = MEMORY");
  // A schema may make a question of a few words take for ever.
  sqlite3_progress_handler(raw, kStepsBetweenLooks, IsTooLong, this);
}

int DatabaseCopy::IsTooLong(void* copy) {
  return std::chrono::steady_clock::now() > static_cast<const DatabaseCopy*>(copy)->end_ ? 1 : 0;
}

std::vector<std::vector<std::string>> DatabaseCopy::Ask(const std::string& sql) {
  end_ = std::chrono::steady_clock::now() + kPatience;
  sqlite3_stmt* raw = nullptr;
  int result = sqlite3_prepare_v2(database_.get(), sql.c_str(), -1, &raw, nullptr);
  const Statement statement(raw);
  std::vector<std::vector<std::string>> rows;
  if (result == SQLITE_OK) {
    while ((result = sqlite3_step(raw)) == SQLITE_ROW) {
      std::vector<std::string>& row = rows.emplace_back();
      for (int column = 0; column < sqlite3_column_count(raw); ++column) row.push_back(TextAt(raw, column));
    }
  }
  if (result == SQLITE_INTERRUPT) throw DatabaseError("it takes too long to be read");
  if (result != SQLITE_DONE) throw DatabaseError(sqlite3_errmsg(database_.get()));
  return rows;
}

/// What the engine finds nothing wrong with, but the plug-in does.
std::string DatabaseCopy::FormatDamage() const {
  if (bytes_.size() > kWriteVersion && bytes_[kWriteVersion] > kWithWriteAheadLog) {
    return "the file is of a format that cannot be written";
  }
  return "";
}

std::string DatabaseCopy::Damage() {
  try {
    std::string said = Ask("PRAGMA integrity_check(1)").at(0).at(0);
    if (said != "ok") return OnOneLine(said);
    const std::size_t pageSize = std::stoul(Ask("PRAGMA page_size").at(0).at(0));
    if (bytes_.size() % pageSize != 0) return "the file ends within a page";
    return FormatDamage();
  } catch (const DatabaseError& error) {
    return error.what();
  }
}

std::map<std::pair<std::string, std::string>, std::string> DatabaseCopy::Schema() {
  std::map<std::pair<std::string, std::string>, std::string> schema;
  for (const auto& row : Ask("SELECT type, name, sql FROM sqlite_master")) schema[{row[0], row[1]}] = row[2];
  return schema;
}

std::map<std::string, std::string> DatabaseCopy::Rows() {
  // A view of that name may have any number of rows.
  if (!Schema().contains({"table", "PYXPlugin"})) throw DatabaseError("there is no table PYXPlugin");
  std::map<std::string, std::string> rows;
  for (const auto& row : Ask("SELECT name, value FROM PYXPlugin")) rows[row[0]] = row[1];
  return rows;
}

}  // namespace zav::pyxctl::doctor
