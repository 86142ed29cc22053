#pragma once

#include <memory>
#include <string>

#include "ProviderSource.h"

namespace host {

/// A plug-in's library and the provider that its factory made. `PolicyStorage::backend` must be set as long as it
/// lives. One thread.
class Plugin : public ProviderSource {
 public:
  /// Loads the library and has its factory make the provider.
  /// @param library  a path with a slash in it.
  /// @throws std::runtime_error when the library cannot be loaded, has no factory, or the factory makes no provider.
  explicit Plugin(const std::string& library);
  /// Deletes the provider, then unloads the library.
  ~Plugin() override;

  AbstractDPluginProvider& Provider() override;
  void Reload() override;

 private:
  struct Unload {
    void operator()(void* handle) const;
  };

  void Load();

  std::string path;
  // In this order: the provider's code is the library's, so it goes first.
  std::unique_ptr<void, Unload> library;
  std::unique_ptr<AbstractDPluginProvider> provider;
};

}  // namespace host
