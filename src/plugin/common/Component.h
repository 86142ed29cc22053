#pragma once

#include <string>

namespace zav::common {

/// Who keeps policies in the database; each has a table of its own there and a member in the default policy file.
enum Component : int {
  PYXPlugin = 0,
};

/// The name of a component's table; empty for an unknown component, which makes every statement for it fail.
std::string ComponentName(const Component& component);

}  // namespace zav::common
