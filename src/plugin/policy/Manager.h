#pragma once

#include <string>

#include "common/Component.h"
#include "common/DBStorage.h"
#include "policy/Policy.h"

namespace zav::policy {

/// Where policies live: the owner of the database, with the chains of steps that repair it.
///
/// Made on first use, ended at exit or unload. Making it is safe from any thread; its operations, `DefaultPolicy`
/// included, are for one thread at a time, and the callers see to that.
class Manager {
 public:
  /// The one manager. The first call opens the database and, where its table is new, seeds it from the default policy
  /// file.
  ///
  /// @throws std::runtime_error "Default policy is empty" when the table is new and there is no default policy; there
  ///         is no manager then, and the next call tries again.
  static Manager& Instance();

  Manager(const Manager&) = delete;
  Manager& operator=(const Manager&) = delete;

  /// The whole default policy file: a member for each component. Read from disk until that succeeds, then kept.
  /// @return null when it could not be read or parsed.
  static const Policy& DefaultPolicy();

  /// Writes a policy as a row of a component's table. A failed write is tried again after the backup was put in place,
  /// and then with the database opened anew and the table restored.
  ///
  /// @param policy  a null one is written as empty text.
  /// @return 0, else the code of the last step that failed (`common::StorageCode`), which is also logged.
  int UpdatePolicy(const common::Component& component, const std::string& name, const Policy& policy);
  /// The same of a policy whose text is at hand.
  int UpdatePolicy(const common::Component& component, const std::string& name, const std::string& text);

  /// Reads a policy. One that cannot be read is taken from the backup, put in the database's place, or else from the
  /// default policy, written back as far as that succeeds.
  ///
  /// @return the policy; null when there is none anywhere, or its row holds no JSON object. Never fails.
  Policy GetPolicy(const common::Component& component, const std::string& name);

 private:
  Manager();
  ~Manager() = default;

  void SeedTables();
  Policy RestoreDefaultPolicy(const common::Component& component, const std::string& name);

  common::DBStorage storage;
};

}  // namespace zav::policy
