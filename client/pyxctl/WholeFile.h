#pragma once

#include <string>
#include <string_view>

namespace zav::pyxctl {

/// Writes a file whole or not at all: what was there stays until the new content is on the disk, and stays where that
/// fails. The rights of a file that is replaced stay, a new one has those that the process
/// gives its files; a symbolic link is followed.
///
/// @throws std::runtime_error, in words, where that cannot be done, and where something else than a file is there: a
///         device or a pipe would be replaced.
void WriteWholeFile(const std::string& path, std::string_view content);

}  // namespace zav::pyxctl
