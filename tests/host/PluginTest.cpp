#include "Plugin.h"

#include <dlfcn.h>
#include <gmock/gmock.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "StatusStorage.h"
#include "support/TemporaryDirectory.h"

namespace host {
namespace {

using zav::test::TemporaryDirectory;

using testing::HasSubstr;
using testing::ThrowsMessage;

bool IsLoaded(const std::string& library) {
  void* handle = dlopen(library.c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (handle != nullptr) dlclose(handle);
  return handle != nullptr;
}

class APlugin : public testing::Test {
 protected:
  ~APlugin() override { unsetenv("TEST_PLUGIN_REFUSES"); }

  TemporaryDirectory directory;
  StatusStorage storage{directory / "status.db"};
};

TEST_F(APlugin, IsLoadedAndReachesTheHostsStorage) {
  Plugin plugin(TEST_PLUGIN);
  EXPECT_EQ(plugin.Provider().getStatus(), -1);
  EXPECT_EQ(plugin.Provider().setStatus(3), 0);
  EXPECT_EQ(plugin.Provider().getStatus(), 3);
  EXPECT_EQ(storage.read("test-policy"), 3);
}

TEST_F(APlugin, IsUnloadedAtTheEnd) {
  {
    const Plugin plugin(TEST_PLUGIN);
    EXPECT_TRUE(IsLoaded(TEST_PLUGIN));
  }
  EXPECT_FALSE(IsLoaded(TEST_PLUGIN));
}

TEST_F(APlugin, StartsAnewAfterReload) {
  Plugin plugin(TEST_PLUGIN);
  EXPECT_EQ(plugin.Provider().executeCommand("Count", ""), "count 1\n");
  EXPECT_EQ(plugin.Provider().executeCommand("Count", ""), "count 2\n");
  plugin.Reload();
  EXPECT_EQ(plugin.Provider().executeCommand("Count", ""), "count 1\n");
}

TEST_F(APlugin, HasNoProviderAfterAReloadThatFailedAndOneAfterTheNext) {
  Plugin plugin(TEST_PLUGIN);
  setenv("TEST_PLUGIN_REFUSES", "1", 1);
  EXPECT_THROW(plugin.Reload(), std::runtime_error);
  EXPECT_THAT([&] { plugin.Provider(); }, ThrowsMessage<std::runtime_error>(HasSubstr("no plug-in is loaded")));
  EXPECT_FALSE(IsLoaded(TEST_PLUGIN));
  unsetenv("TEST_PLUGIN_REFUSES");
  plugin.Reload();
  EXPECT_EQ(plugin.Provider().executeCommand("Count", ""), "count 1\n");
}

TEST_F(APlugin, IsRefusedWhenItsFactoryMakesNoProvider) {
  setenv("TEST_PLUGIN_REFUSES", "1", 1);
  EXPECT_THAT([] { Plugin plugin(TEST_PLUGIN); }, ThrowsMessage<std::runtime_error>(HasSubstr("did not start")));
  EXPECT_FALSE(IsLoaded(TEST_PLUGIN));
}

TEST_F(APlugin, IsRefusedWhenThereIsNoSuchFile) {
  const std::string missing = directory / "missing.so";
  EXPECT_THAT([&] { Plugin plugin(missing); }, ThrowsMessage<std::runtime_error>(HasSubstr(missing)));
}

TEST_F(APlugin, IsRefusedWhenItHasNoFactory) {
  EXPECT_THAT([] { Plugin plugin(LIBRARY_WITHOUT_FACTORY); },
              ThrowsMessage<std::runtime_error>(HasSubstr("DPluginFactory")));
}

}  // namespace
}  // namespace host
