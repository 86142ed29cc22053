#pragma once

#include <sqlite3.h>

#include <chrono>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace zav::pyxctl::doctor {

/// The engine cannot make anything of the bytes. `what()` is its text.
struct DatabaseError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// A database in memory, made of a file's bytes. The engine never sees the file: it takes no lock that a service would
/// have to wait for, rolls nothing back, and makes no file beside it, whatever the bytes ask for.
class DatabaseCopy {
 public:
  /// @throws DatabaseError  what the engine says at once; the rest comes with the questions.
  explicit DatabaseCopy(std::string bytes);
  DatabaseCopy(const DatabaseCopy&) = delete;
  DatabaseCopy& operator=(const DatabaseCopy&) = delete;

  /// What the engine finds wrong with it, and what the plug-in does not take either; empty when it is sound.
  std::string Damage();

  /// What the schema holds: by type ("table", "view", ...) and name, the SQL text that made it.
  std::map<std::pair<std::string, std::string>, std::string> Schema();

  /// The rows of the policies' table.
  std::map<std::string, std::string> Rows();

 private:
  /// The columns' texts of every row.
  std::vector<std::vector<std::string>> Ask(const std::string& sql);
  std::string FormatDamage() const;
  static int IsTooLong(void* copy);

  struct Close {
    void operator()(sqlite3* database) const { sqlite3_close(database); }
  };

  std::string bytes_;
  /// When the question that is being asked has taken too long.
  std::chrono::steady_clock::time_point end_;
  std::unique_ptr<sqlite3, Close> database_;
};

}  // namespace zav::pyxctl::doctor
