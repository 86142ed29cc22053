#pragma once

#include <map>
#include <string>

namespace zav::fuzz {

/// The policy database of this program, in memory: what `DBStorage` writes goes here, and no disk is touched. There is
/// no backup.
struct MemoryDatabase {
  std::map<std::string, std::string> rows;
  /// Whether writes fail.
  bool refuses = false;

  static MemoryDatabase& Instance();
};

}  // namespace zav::fuzz
