#pragma once

#include <string>

namespace zav::common {

/// Reads the default policy file, "policy.json" in the storage directory.
///
/// @return its bytes; empty when it cannot be opened (nothing is logged) or cannot be read (logged as an error), such
///         as a directory of that name.
///
/// Any thread.
std::string ReadFromStorage();

}  // namespace zav::common
