#pragma once

#include <dpm/AbstractDPluginProvider.h>
#include <dpm/PolicyStorage.h>

#include <memory>
#include <optional>
#include <set>
#include <string>

#include "Attempt.h"
#include "integration/Library.h"

namespace zav::test {

/// The daemon of an attempt: loads the plug-in and drives it. Faults hit what the plug-in does on this thread and on
/// its own threads, and nothing of the daemon's or of the client's.
class Host : private PolicyStorageBackend {
 public:
  explicit Host(Report& report);
  ~Host() override;

  /// Loads the library where it is not, and makes the provider. @return whether there is one.
  bool Load();
  void Unload();
  bool IsLoaded() const { return provider != nullptr; }

  /// @return the plug-in's result; -1 where there is no provider.
  int SetStatus(int status);
  /// @return the reply; empty where it threw.
  std::string Execute(const std::string& command, const std::string& payload = "");

  /// Waits a while for the service thread to come to an end of its steps: it serves, waits for its restart, or is gone.
  void WaitForService(std::chrono::milliseconds deadline) const;
  /// Whether the plug-in said that it cannot have its run directory, which is final.
  bool IsFinal() const;

 private:
  int store(const std::string& name, int status) override;
  int read(const std::string& name) override;
  template <class Work>
  bool InPlugin(const char* step, Work work);

  Report& report;
  std::optional<Library> library;
  std::unique_ptr<AbstractDPluginProvider> provider;
  int recorded = -1;
};

}  // namespace zav::test
