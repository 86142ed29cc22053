#pragma once

#include <string>

namespace zav::common {

/// The system's text for an error number.
///
/// @param errnum  an `errno` value; an unknown one gives the system's text for unknown ones.
/// @return the text, at most 4096 characters; empty when the system has none.
///
/// Any thread. `errno` is left as it was.
std::string errorToString(int errnum);

}  // namespace zav::common
