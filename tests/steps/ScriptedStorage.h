#pragma once

#include <deque>
#include <map>
#include <string>
#include <vector>

namespace zav::test {

/// What `DBStorage` does in this program: nothing but to record each call and to return what the test laid ready.
struct ScriptedStorage {
  /// The results of an operation, by its name, one after the other; 0 when there are none left.
  std::map<std::string, std::deque<int>> results;
  /// What `ReadPolicy` gives.
  std::string text;
  /// Each call with its arguments, blanks between them.
  std::vector<std::string> calls;

  static ScriptedStorage& Instance();
};

}  // namespace zav::test
