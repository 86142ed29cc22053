#pragma once

#include <string>
#include <vector>

/// How a program of the tests gets the plug-in's fixed directories to itself.
namespace zav::test {

/// What the environment says of the directories that this process has.
enum class DeviceRoot {
  /// Nothing: they are the machine's own, and not to be touched.
  kNone,
  /// An /opt and a /tmp that only this process sees.
  kPrivate,
  /// The machine's own, lent to one test at a time.
  kReal
};

DeviceRoot CurrentDeviceRoot();

/// Starts this program anew with a device root of its own, an empty /opt and an empty /tmp; returns only if that fails.
///
/// @param arguments  the program's own, the first being its name; a null pointer ends them.
/// @param keep       directories that stay reachable wherever they lie.
/// @return the exit status to end with.
int EnterDeviceRoot(char** arguments, const std::vector<std::string>& keep);

/// Removes the plug-in's directories.
void ClearDeviceRoot();

}  // namespace zav::test
