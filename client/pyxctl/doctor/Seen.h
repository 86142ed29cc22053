#pragma once

#include <pyxclient/pyxclient.hpp>

#include <optional>
#include <string>

#include "doctor/File.h"
#include "doctor/Paths.h"

namespace zav::pyxctl::doctor {

/// What the service answered.
struct Service {
  /// Why there was no answer; nothing where there was one.
  std::optional<pyxclient::Failure> failure;
  /// The same in words.
  std::string reason;
  bool isEnabled = false;
  bool isLogging = false;

  bool Answers() const { return !failure; }
};

/// What there is to be seen of a device: everything is read once, so that all examinations judge the same moment. The
/// files are read before the service is asked, which may be what makes it load, and repair, what it stores.
struct Seen {
  Paths paths;
  Content database;
  Content backup;
  Content defaultPolicy;
  /// No write to the database was under way while it was read: its bytes belong together.
  bool isSettled = false;
  /// A write was under way, or had been cut short, all the time.
  bool journalIsHot = false;
  Service service;
};

/// Looks at a device. Nothing on it changes: no file is opened for writing or locked. Takes up to a second where the
/// database is being written or differs from its backup, and up to the time-out for the service.
Seen LookAt(const Paths& paths, const pyxclient::Options& options);

/// Reads a default policy file.
Content ReadPolicyFile(const std::string& path);

}  // namespace zav::pyxctl::doctor
