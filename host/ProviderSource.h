#pragma once

#include "dpm/AbstractDPluginProvider.h"

namespace host {

/// Where the commands find the provider that they drive. One thread.
class ProviderSource {
 public:
  ProviderSource() = default;
  virtual ~ProviderSource() = default;

  ProviderSource(const ProviderSource&) = delete;
  ProviderSource& operator=(const ProviderSource&) = delete;

  /// @return the loaded plug-in's provider; good until the next `Reload`.
  /// @throws std::runtime_error when no plug-in is loaded.
  virtual AbstractDPluginProvider& Provider() = 0;

  /// Ends the plug-in and loads it again.
  /// @throws std::runtime_error when it cannot be loaded; there is no provider then.
  virtual void Reload() = 0;
};

}  // namespace host
