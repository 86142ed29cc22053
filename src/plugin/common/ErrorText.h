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

/// An error number as a piece of a log line. Its text is made where the line is made, so that a want of memory costs no
/// more than the line.
struct ErrorText {
  int number;
};

inline void AppendPiece(std::string& message, ErrorText error) {
  message += errorToString(error.number);
}

}  // namespace zav::common
