#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>

#include "Footprint.h"
#include "integration/Library.h"
#include "support/Campaign.h"
#include "support/Device.h"
#include "support/OddClients.h"

namespace zav::test {

/// The plug-in on a device that has everything, loaded and switched on as the daemon does it. At the end of its life it
/// prints the campaign's one line of figures.
class APlugin : public testing::Test {
 protected:
  /// @param prepare  puts something on the device before the plug-in is loaded.
  explicit APlugin(void (*prepare)() = [] {});
  ~APlugin() override;

  void Load();
  void SwitchOff() { ASSERT_EQ(plugin->provider->setStatus(0), 0); }
  void SwitchOn() { ASSERT_EQ(plugin->provider->setStatus(1), 0); }
  std::string Command(const std::string& name, const std::string& data = "") {
    return plugin->provider->executeCommand(name, data);
  }
  bool Succeeds(const std::string& name, const std::string& data = "") {
    return Command(name, data).find("success") != std::string::npos;
  }

  /// Counts a case of the campaign. Any thread. @return whether it passed.
  bool Tried(bool passed);
  /// Adds something to the line of figures.
  void Note(const std::string& figure) { notes += ", " + figure; }
  /// What the process occupies while no connection is being served, the plug-in being loaded or not.
  Footprint AtRest() const;
  /// Expects that nothing has grown, and notes what there is.
  void ExpectNoGrowthSince(const Footprint& before);

  MemoryStorage storage;
  std::unique_ptr<LoadedPlugin> plugin;

 private:
  /// How many there are without the plug-in.
  const size_t threadsOfTheTest;
  std::atomic<int> tried{0};
  std::atomic<int> failures{0};
  std::string notes;
};

/// The same, which occupies as much after a test as before it.
class APluginThatStaysAsItIs : public APlugin {
 protected:
  explicit APluginThatStaysAsItIs(void (*prepare)() = [] {}) : APlugin(prepare) {}
  void SetUp() override;
  void TearDown() override;

  Footprint before;
};

}  // namespace zav::test
