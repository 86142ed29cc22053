#pragma once

#include <cstddef>
#include <string>

namespace zav::pyxctl {

enum class Colour { kBold, kRed, kGreen, kYellow, kDim };

/// What a person looks at. What goes elsewhere, into a file say, has no colours and lines of any width.
struct Terminal {
  bool isTerminal = false;
  /// Whether what is shown can be replaced.
  bool canMove = false;
  /// Not where NO_COLOR is set, or the terminal knows none.
  bool hasColours = false;
  /// The columns of a line, 0 for as many as it takes.
  std::size_t width = 0;
  /// Its lines, 0 where that is not known.
  std::size_t height = 0;

  /// `text` in a colour, where there are colours.
  std::string Painted(Colour colour, const std::string& text) const;
};

/// What is behind a descriptor, such as that of standard output.
Terminal TerminalOf(int fd);

}  // namespace zav::pyxctl
