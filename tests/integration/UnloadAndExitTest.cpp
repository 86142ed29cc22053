#include <fcntl.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <optional>

#include "Library.h"
#include "support/Device.h"
#include "support/LogRecorder.h"
#include "support/OddClients.h"
#include "support/RawClient.h"
#include "support/SystemCalls.h"
#include "support/WaitUntil.h"

namespace zav::test {
namespace {

using ipc::Method;
using std::chrono::milliseconds;

std::string NameOf(const testing::TestParamInfo<Stuck>& each) {
  const char* const names[] = {"IsSilent", "IsInTheMiddleOfAString", "DoesNotReadItsReply"};
  return names[static_cast<int>(each.param)];
}

/// What the process says at its very end, after the library's own end.
void PrintLines() {
  for (const LogEntry& line : LogRecorder::Lines()) std::fprintf(stderr, "%s\n", line.message.c_str());
}

void Prepare() {
  WriteDefaultPolicy(UsualPolicies());
  StoreHugeLog();
}

/// Loads the plug-in for the rest of the process, as a daemon does that ends without a word to its plug-ins.
LoadedPlugin& LoadForGood() {
  std::atexit(PrintLines);
  static MemoryStorage& storage = *new MemoryStorage;
  static LoadedPlugin& plugin = *new LoadedPlugin;
  if (!plugin.provider || storage.statuses.empty()) std::_Exit(2);
  return plugin;
}

class AClientThat : public testing::TestWithParam<Stuck> {
 protected:
  AClientThat() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};
INSTANTIATE_TEST_SUITE_P(Waits, AClientThat, testing::ValuesIn(kAllStuck), NameOf);

TEST_P(AClientThat, KeepsNothingOfTheLibraryWhenItIsUnloaded) {
  Prepare();
  const auto threads = ThreadIds();
  const auto descriptors = Descriptors();
  const MemoryStorage storage;
  LoadedPlugin plugin;
  ASSERT_TRUE(plugin.provider);
  const auto client = MakeStuckClient(GetParam());
  plugin.Unload();
  EXPECT_FALSE(Library::IsMapped());
  EXPECT_TRUE(WaitUntil([&] { return ThreadIds() == threads; }));
  EXPECT_FALSE(FileExists(kSocketFile));
  client->Close();
  EXPECT_EQ(Descriptors(), descriptors);
  EXPECT_EQ(LogRecorder::Count("PYXPlugin service stopped"), 1);
}

TEST_P(AClientThat, DoesNotKeepTheProcessFromItsEnd) {
  EXPECT_EXIT(
      {
        Prepare();
        LoadForGood();
        static const auto client = MakeStuckClient(GetParam());
        std::exit(0);
      },
      testing::ExitedWithCode(0), "PYXPlugin service stopped");
  EXPECT_FALSE(FileExists(kSocketFile));
  EXPECT_TRUE(FileExists(kDatabase));
}

class TheProcess : public testing::Test {
 protected:
  TheProcess() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(TheProcess, EndsWhileTheServiceRestsAfterARequest) {
  EXPECT_EXIT(
      {
        Prepare();
        LoadForGood();
        std::exit(Report("url", "threat").value_or(3));
      },
      testing::ExitedWithCode(0), "PYXPlugin service stopped");
  EXPECT_FALSE(FileExists(kSocketFile));
  EXPECT_NE(Rows()["Storage"].find("\"url\":\"url\""), std::string::npos);
}

TEST_F(TheProcess, EndsWhileTheServiceWaitsForItsRestart) {
  EXPECT_EXIT(
      {
        Prepare();
        MakeRunDirectory();
        mkdir(kSocketFile.c_str(), 0700);
        LoadForGood();
        if (!LogRecorder::WaitFor("Something went wrong. Will wait 30 sec. to try again.")) std::_Exit(4);
        std::exit(0);
      },
      testing::ExitedWithCode(0), "Will wait 30 sec");
}

TEST_F(TheProcess, EndsAfterItsProviderAndItsService) {
  EXPECT_EXIT(
      {
        Prepare();
        LoadedPlugin& plugin = LoadForGood();
        plugin.provider->setStatus(0);
        plugin.provider.reset();
        std::exit(0);
      },
      testing::ExitedWithCode(0), "deinitialize");
  EXPECT_FALSE(FileExists(kSocketFile));
}

TEST_F(TheProcess, EndsWhenTheFirstRequestIsTheOneThatEnds) {
  // What a service thread makes on its first use must not end before that thread does.
  EXPECT_EXIT(
      {
        Prepare();
        LoadForGood();
        // The default policy is read in the connection's thread, for want of the row.
        Sql("DELETE FROM PYXPlugin WHERE name = 'State'");
        std::remove(kBackup.c_str());
        static const auto client = MakeStuckClient(Stuck::kNotReadingItsReply);
        std::exit(0);
      },
      testing::ExitedWithCode(0), "Default policy successfully read.*PYXPlugin service stopped");
}

/// Holds the plug-in in the middle of writing the database.
class SlowDisk {
 public:
  void Release() { released.set_value(); }
  bool WaitUntilWriting() {
    return WaitUntil([this] { return writing.load(); });
  }

 private:
  std::promise<void> released;
  std::shared_future<void> free{released.get_future()};
  std::atomic<bool> writing{false};
  CallHook hook{Call::kFcntl, [this](const CallArguments& call) -> std::optional<long> {
                  if (call.flags != F_SETLK) return std::nullopt;
                  writing = true;
                  free.wait();
                  return std::nullopt;
                }};
};

TEST_F(TheProcess, UnloadsTheLibraryAfterTheRequestInWorkWasAnswered) {
  WriteDefaultPolicy(UsualPolicies());
  const MemoryStorage storage;
  LoadedPlugin plugin;
  ASSERT_EQ(Report("first", "threat"), 0);
  RawClient client;
  SlowDisk disk;
  ASSERT_TRUE(client.SendHeader(Method::kLogThreatUrl) && client.SendString("second") && client.SendString("threat"));
  ASSERT_TRUE(disk.WaitUntilWriting());
  auto unloading = std::async(std::launch::async, [&] { plugin.Unload(); });
  EXPECT_EQ(unloading.wait_for(milliseconds(1500)), std::future_status::timeout);
  disk.Release();
  EXPECT_EQ(client.ReceiveInt(), 0);
  unloading.get();
  EXPECT_FALSE(Library::IsMapped());
  EXPECT_NE(Rows()["Storage"].find("\"url\":\"second\""), std::string::npos);
}

}  // namespace
}  // namespace zav::test
