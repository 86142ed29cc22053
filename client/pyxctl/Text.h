#pragma once

#include <string>
#include <string_view>

namespace zav::pyxctl {

/// What a text from outside may show on a terminal: whatever is not printable in the system's locale, or changes the
/// direction or the visibility of what follows, stands as \xNN a byte, and a backslash as two.
std::string Printable(std::string_view text);

/// `text` with U+FFFD in place of each byte that is none of a character of the system's locale.
std::string Valid(std::string_view text);

/// A byte as `Printable` writes one that is not printable.
std::string Escaped(char byte);

/// The columns of a terminal that `text`, which is printable, takes.
std::size_t Width(const std::string& text);

/// Fills `text` with blanks to `width` columns; a wider one is left as it is.
std::string Padded(const std::string& text, std::size_t width);

/// `text`, or as much of its beginning as fits into `width` columns with three dots behind it.
std::string Shortened(const std::string& text, std::size_t width);

}  // namespace zav::pyxctl
