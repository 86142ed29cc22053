#pragma once

#include <string>

namespace zav::pyxctl::doctor {

/// Where the root directory of the process that serves a socket lies, where that is another one than this process's: a
/// service in a container, say. Empty where they have the same, and where this user may not know. It connects, and asks
/// nothing.
std::string RootOfService(const std::string& socket);

}  // namespace zav::pyxctl::doctor
