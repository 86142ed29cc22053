#include "Table.h"

#include <algorithm>

#include "Text.h"

namespace zav::pyxctl {
namespace {

/// The widest that a cell makes its column.
constexpr std::size_t kWidestColumn = 32;

constexpr const char* kGap = "  ";

}  // namespace

std::string TableLine(const Table::Cells& cells, const std::vector<std::size_t>& widths, const Terminal& terminal) {
  std::string line;
  for (std::size_t column = 0; column < widths.size(); ++column) line += Padded(cells[column], widths[column]) + kGap;
  line += cells.back();
  return terminal.width == 0 ? line : Shortened(line, terminal.width);
}

std::vector<std::size_t> Table::Widths() const {
  std::vector<std::size_t> widths(titles_.size() - 1);
  for (std::size_t column = 0; column < widths.size(); ++column) {
    widths[column] = Width(titles_[column]);
    for (const Cells& row : rows_) {
      widths[column] = std::max(widths[column], std::min(kWidestColumn, Width(row[column])));
    }
  }
  return widths;
}

void Table::Write(std::ostream& out, const Terminal& terminal) const {
  const auto widths = Widths();
  out << terminal.Painted(Colour::kBold, TableLine(titles_, widths, terminal)) << '\n';
  for (const Cells& row : rows_) out << TableLine(row, widths, terminal) << '\n';
}

}  // namespace zav::pyxctl
