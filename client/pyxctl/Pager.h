#pragma once

#include <string>
#include <string_view>

namespace zav::pyxctl {

/// The command that shows a long text page by page: what PAGER says; where that is not set less or more, if there is
/// one. Empty for none, and where PAGER is empty or "cat".
std::string PagerCommand();

/// Shows a text through a command, and waits until the person has seen enough of it; meanwhile an interrupt of the
/// terminal is for that command.
/// @return whether it was shown; not where the command cannot be started.
bool ShowThrough(const std::string& command, std::string_view text);

}  // namespace zav::pyxctl
