#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include "Terminal.h"

namespace zav::pyxctl {

/// A table for a person: columns as wide as their widest cell, but for one that is very wide, which stands out of line;
/// the last column as it comes, and no wider than the terminal. Its texts are printable.
class Table {
 public:
  using Cells = std::vector<std::string>;

  explicit Table(Cells titles) : titles_(std::move(titles)) {}

  void Add(Cells cells) { rows_.push_back(std::move(cells)); }

  /// @param terminal  what it is looked at on.
  void Write(std::ostream& out, const Terminal& terminal) const;

 private:
  std::vector<std::size_t> Widths() const;

  Cells titles_;
  std::vector<Cells> rows_;
};

/// One line of a table.
/// @param widths  of all columns but the last.
std::string TableLine(const Table::Cells& cells, const std::vector<std::size_t>& widths, const Terminal& terminal);

}  // namespace zav::pyxctl
