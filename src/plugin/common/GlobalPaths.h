#pragma once

#include <string>

/// The paths that the plug-in's units share. They are fixed: nothing overrides them.
namespace zav::common {

/// The run directory; the local socket stands in it. Empty only where the load of the library found no memory for it,
/// and until `completePaths`; else never changed.
extern std::string runPath;
/// Empty; kept for units that ask for them.
extern const std::string dataPath;
extern const std::string storagePath;

/// Sets what the load of the library found no memory for. To be called before there are other threads of the plug-in.
/// @throws std::bad_alloc
void completePaths();

/// Makes one directory, mode 0755 less the process's mask, for the service.
///
/// @param path  the directory; its parent must exist.
/// @return whether it is there now: made, or something of that name existed.
///
/// Logs either way. Any thread.
bool makeDir(const std::string& path);

/// Whether a directory belongs to the process's user, and nobody else can change which files are in it. A symbolic link
/// is none. Logs nothing. Any thread.
bool isOwnDirectory(const std::string& path);

}  // namespace zav::common
