#include "Library.h"

#include <array>
#include <cstdio>
#include <optional>
#include <vector>

#include "support/Device.h"
#include "support/LogRecorder.h"
#include "support/RawClient.h"
#include "support/SystemCalls.h"
#include "support/WaitUntil.h"

namespace zav::test {
namespace {

using ipc::Method;
using testing::ElementsAre;

/// The lines that a command prints.
std::vector<std::string> Output(const std::string& command) {
  std::vector<std::string> lines;
  FILE* const pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return lines;
  std::array<char, 4096> line{};
  while (std::fgets(line.data(), line.size(), pipe) != nullptr) lines.emplace_back(line.data());
  pclose(pipe);
  return lines;
}

class TheLibrary : public testing::Test {
 protected:
  TheLibrary() { WriteDefaultPolicy(UsualPolicies()); }

  MemoryStorage storage;
};

TEST_F(TheLibrary, ExportsItsFactoryAndNothingElse) {
  EXPECT_THAT(Output("nm -D --defined-only '" ZAV_PLUGIN_FILE "'"),
              ElementsAre(testing::EndsWith(" T DPluginFactory\n")));
}

#ifndef ZAV_PLUGIN_IS_INSTRUMENTED
TEST_F(TheLibrary, AsksNothingOfTheEnvironment) {
  const auto imported = Output("nm -D --undefined-only '" ZAV_PLUGIN_FILE "'");
  EXPECT_THAT(imported, testing::Contains(testing::HasSubstr(" U accept4")));
  EXPECT_THAT(imported,
              testing::Not(testing::Contains(testing::ContainsRegex(" (getenv|secure_getenv|__environ|environ)"))));
}
#endif

TEST_F(TheLibrary, ShowsNobodyWhatIsInside) {
  const Library library;
  EXPECT_NE(library.Symbol("DPluginFactory"), nullptr);
  EXPECT_EQ(library.Symbol("_ZN3zav3pyx5State8InstanceEv"), nullptr);
  EXPECT_EQ(library.Symbol("_ZN3zav6plugin10PYXManager8InstanceEv"), nullptr);
}

TEST_F(TheLibrary, DoesNothingBeforeItsFactoryIsCalled) {
  const auto threads = ThreadIds();
  const Library library;
  EXPECT_EQ(ThreadIds(), threads);
  EXPECT_THAT(LogRecorder::Lines(), testing::IsEmpty());
  EXPECT_FALSE(FileExists(kRunDirectory));
  EXPECT_FALSE(FileExists(kDatabase));
}

TEST_F(TheLibrary, IsReallyUnloaded) {
  {
    const Library library;
    EXPECT_TRUE(Library::IsMapped());
  }
  EXPECT_FALSE(Library::IsMapped());
}

TEST_F(TheLibrary, IsReallyUnloadedAfterItWorkedAndLeavesNothing) {
  const auto threads = ThreadIds();
  const auto descriptors = Descriptors();
  for (int turn = 0; turn < 5; ++turn) {
    LoadedPlugin plugin;
    ASSERT_TRUE(plugin.provider);
    EXPECT_EQ(Report("url", "threat"), 0);
    EXPECT_NE(plugin.provider->executeCommand("GetStatus", ""), "fail");
    plugin.Unload();
    EXPECT_FALSE(Library::IsMapped());
    EXPECT_TRUE(WaitUntil([&] { return ThreadIds() == threads; }));
    EXPECT_EQ(Descriptors(), descriptors);
    EXPECT_FALSE(FileExists(kSocketFile));
  }
}

TEST_F(TheLibrary, IsUnloadedAfterItWasSwitchedOff) {
  LoadedPlugin plugin;
  EXPECT_EQ(plugin.provider->setStatus(0), 0);
  plugin.Unload();
  EXPECT_FALSE(Library::IsMapped());
  EXPECT_FALSE(FileExists(kSocketFile));
}

TEST_F(TheLibrary, ServesOnWhenOnlyItsProviderHasEnded) {
  LoadedPlugin plugin;
  plugin.provider.reset();
  EXPECT_EQ(Report("url", "threat"), 0);
}

TEST_F(TheLibrary, OpensEveryDescriptorClosedOnExec) {
  const auto before = Descriptors();
  const LoadedPlugin plugin;
  // Held in the middle of its request, the connection is there to be looked at, too.
  ASSERT_EQ(Report("url", "threat"), 0);
  RawClient client;
  ASSERT_TRUE(client.SendHeader(Method::kLogThreatUrl));
  ASSERT_TRUE(WaitUntil([&] { return Descriptors().size() >= before.size() + 4; }));
  for (const int descriptor : Descriptors()) {
    EXPECT_TRUE(before.contains(descriptor) || IsCloseOnExec(descriptor)) << descriptor;
  }
}

TEST_F(TheLibrary, GivesNoProviderWithoutAnyPolicy) {
  std::remove(kDefaultPolicy.c_str());
  Library library;
  EXPECT_FALSE(library.Make());
  EXPECT_EQ(LogRecorder::Count("\033[31mDPM: can't start pyx plugin: Default policy is empty\033[0m"), 1);
  EXPECT_TRUE(storage.statuses.empty());
  library.Unload();
  EXPECT_FALSE(Library::IsMapped());
}

TEST_F(TheLibrary, GivesNoProviderButServesOnWhenItsStatusCannotBeRecorded) {
  storage.storeResult = -1;
  const Library library;
  EXPECT_FALSE(library.Make());
  EXPECT_EQ(Report("url", "threat"), 0);
}

}  // namespace
}  // namespace zav::test
