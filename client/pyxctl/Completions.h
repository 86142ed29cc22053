#pragma once

#include <string>
#include <vector>

namespace zav::pyxctl {

/// What may stand in place of a word of the command line.
struct Completion {
  std::string word;
  std::string meaning;
};

/// @param words  of the command line behind the program's name, up to the one that is to be completed, which may be
///               empty.
/// @return what begins as the last one does: verbs, options, or the values of an option that are known. Nothing where
///         anything may stand.
std::vector<Completion> CompletionsOf(const std::vector<std::string>& words);

}  // namespace zav::pyxctl
