#pragma once

#include <string>

#include "common/Component.h"
#include "policy/Policy.h"

namespace zav::policy {

/// The policies of one component. Holds nothing but the component; what is said of `Manager`'s threads and first use
/// holds here, too.
class Handler {
 public:
  explicit constexpr Handler(common::Component of) : component(of) {}

  /// @return the policy of that name, repaired or taken from the defaults where need be; null when there is none.
  /// @throws std::runtime_error as `Manager::Instance`, on the first use alone.
  Policy GetPolicy(const std::string& name) const;

  /// Writes the policy of that name.
  /// @return 0, else a negative storage code; the stored policy is then as it was or lost with its database.
  /// @throws std::runtime_error as `Manager::Instance`, on the first use alone.
  int UpdatePolicy(const std::string& name, const Policy& policy) const;
  /// The same of a policy whose text is at hand.
  int UpdatePolicy(const std::string& name, const std::string& text) const;

 private:
  common::Component component;
};

}  // namespace zav::policy
