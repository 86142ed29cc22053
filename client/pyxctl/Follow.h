#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "Selection.h"
#include "Verbs.h"

namespace zav::pyxctl {

/// What is followed, and how.
struct Following {
  Selection selection;
  /// The newest so many of those that are there already are shown first; ten, or all with a cursor file, unless given.
  std::optional<std::size_t> lines;
  /// Empty for none.
  std::string cursorPath;
  /// Between two looks, in seconds.
  double interval = 1;
};

/// Shows records as they come, until nobody reads the output any more.
ExitStatus Follow(Session& session, const Following& asked);

}  // namespace zav::pyxctl
