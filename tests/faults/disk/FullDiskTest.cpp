#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <functional>
#include <memory>
#include <string>

#include "faults/disk/SmallLog.h"
#include "faults/disk/StorageFiles.h"
#include "integration/Library.h"
#include "support/Device.h"
#include "support/LogText.h"
#include "support/RawClient.h"
#include "support/Surroundings.h"
#include "support/ThisProcess.h"

namespace zav::test {
namespace {

/// What keeps the plug-in from its files as long as it lives.
class Obstacle {
 public:
  virtual ~Obstacle() = default;
};

constexpr unsigned kRoomyDisk = 1 << 20;

/// The storage directory has a disk of its own, on which nothing is left.
class FullDisk : public Obstacle {
 public:
  explicit FullDisk(SmallDisk& disk) : full(disk) { full.Resize(SizeInUse()); }
  ~FullDisk() override { full.Resize(kRoomyDisk); }

 private:
  static unsigned SizeInUse() {
    size_t pages = 0;
    for (const auto& [name, content] : StorageFiles()) pages += (content.size() + kPageSize - 1) / kPageSize;
    return static_cast<unsigned>(pages * kPageSize);
  }

  SmallDisk& full;
};

class ReadOnlyDisk : public Obstacle {
 public:
  explicit ReadOnlyDisk(SmallDisk& disk) : readOnly(disk) { readOnly.MakeReadOnly(); }
  ~ReadOnlyDisk() override { readOnly.Resize(kRoomyDisk); }

 private:
  SmallDisk& readOnly;
};

/// No file may get longer than this. The signal that goes with it is ignored, as a daemon has to that has such a limit.
class FileSizeLimit : public Obstacle {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &previous);
    rlimit limit = previous;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() override { setrlimit(RLIMIT_FSIZE, &previous); }

 private:
  rlimit previous{};
};

struct Case {
  const char* name;
  std::function<std::unique_ptr<Obstacle>(SmallDisk&)> make;
};

const Case kFullDisk{"FullDisk", [](SmallDisk& disk) { return std::make_unique<FullDisk>(disk); }};
const Case kNoSize{"FileSizeLimitOfNothing", [](SmallDisk&) { return std::make_unique<FileSizeLimit>(0); }};
const Case kOnePage{"FileSizeLimitOfAPage", [](SmallDisk&) { return std::make_unique<FileSizeLimit>(kPageSize); }};
const Case kReadOnlyDisk{"ReadOnlyDisk", [](SmallDisk& disk) { return std::make_unique<ReadOnlyDisk>(disk); }};

/// A report that takes more pages than the database has.
ThreatReport LongReport(int number) {
  constexpr size_t kLength = 30000;
  std::string url(kLength, '/');
  url += std::to_string(number);
  return {url, "threat"};
}

class APlugin : public testing::Test {
 protected:
  void SetUp() override {
    MakeStorageDirectory();
    disk = std::make_unique<SmallDisk>(kStorageDirectory, kRoomyDisk);
    if (!disk->IsMounted()) GTEST_SKIP() << "no right to mount a disk";
    WriteDefaultPolicy(DefaultPolicies());
  }

  static std::optional<std::int32_t> Send(const ThreatReport& report) { return Report(report.url, report.threat); }

  void ExpectOnDisk(const LogModel& expected) const {
    EXPECT_EQ(IntegrityOfDatabase(), "ok");
    EXPECT_EQ(Summary(LogInDatabase()), Summary(expected.Content()));
    EXPECT_EQ(ToJson(LogInDatabase().value()), ToJson(expected.Content()));
    EXPECT_EQ(ReadFile(kDatabase), ReadFile(kBackup));
  }

  std::unique_ptr<SmallDisk> disk;
  MemoryStorage storage;
  LogModel log = EmptyLog();
};

class APluginThatMeetsA : public APlugin, public testing::WithParamInterface<Case> {};
class APluginThatStartsWithA : public APlugin, public testing::WithParamInterface<Case> {};

TEST_P(APluginThatMeetsA, SaysThatItDidNotSaveAndSavesAllWhenThatIsOver) {
  const LoadedPlugin plugin;
  ASSERT_TRUE(plugin.provider);
  for (int number = 0; number < 2; ++number) {
    ASSERT_EQ(Send(NumberedReport(number)), 0);
    log = After(log, NumberedReport(number));
  }
  {
    const auto obstacle = GetParam().make(*disk);
    for (int number = 2; number < 5; ++number) {
      EXPECT_EQ(Send(LongReport(number)), -1);
      log = After(log, LongReport(number));
    }
  }
  EXPECT_EQ(Send(NumberedReport(5)), 0);
  ExpectOnDisk(After(log, NumberedReport(5)));
}

TEST_P(APluginThatStartsWithA, SaysThatItDidNotSaveAndSavesAllWhenThatIsOver) {
  {
    LoadedPlugin plugin;
    ASSERT_TRUE(plugin.provider);
    ASSERT_EQ(Send(NumberedReport(1)), 0);
    log = After(log, NumberedReport(1));
    plugin.Unload();
  }
  auto obstacle = GetParam().make(*disk);
  const LoadedPlugin plugin;
  ASSERT_TRUE(plugin.provider);
  EXPECT_EQ(Send(LongReport(2)), -1);
  log = After(log, LongReport(2));
  obstacle.reset();
  EXPECT_EQ(Send(NumberedReport(3)), 0);
  ExpectOnDisk(After(log, NumberedReport(3)));
}

std::string NameOf(const testing::TestParamInfo<Case>& each) {
  return each.param.name;
}

// A disk on which a file is open for writing cannot be made read-only.
INSTANTIATE_TEST_SUITE_P(Obstacles, APluginThatMeetsA, testing::Values(kFullDisk, kNoSize, kOnePage), NameOf);
INSTANTIATE_TEST_SUITE_P(Obstacles, APluginThatStartsWithA,
                         testing::Values(kFullDisk, kNoSize, kOnePage, kReadOnlyDisk), NameOf);

// The sanitizer's first look at the type of an exception needs descriptors itself, and takes their want for a wrong
// type.
#ifndef __SANITIZE_ADDRESS__
TEST_F(APlugin, WithoutDescriptorsAnswersOrEndsTheConnectionAndSavesAllWhenThereAreSome) {
  const size_t before = Descriptors().size();
  const LoadedPlugin plugin;
  ASSERT_EQ(Send(NumberedReport(0)), 0);
  log = After(log, NumberedReport(0));
  const size_t kept = Descriptors().size() - before;
  // One is for the connection. More and more, until the report is saved.
  std::optional<std::int32_t> answer;
  int number = 0;
  unsigned enough = 0;
  for (unsigned descriptors = 1; answer != 0 && descriptors < 20; ++descriptors) {
    enough = descriptors;
    RawClient client;
    const DescriptorLimit limit(descriptors);
    const ThreatReport report = NumberedReport(++number);
    ASSERT_TRUE(client.SendHeader(ipc::Method::kLogThreatUrl) && client.SendString(report.url) &&
                client.SendString(report.threat));
    answer = client.ReceiveInt();
    EXPECT_TRUE(!answer || (*answer >= -2 && *answer <= 0)) << *answer;
    if (answer) log = After(log, report);
  }
  EXPECT_EQ(answer, 0);
  // An integrator leaves room for eight.
  EXPECT_LE(kept + enough, 8U);
  EXPECT_EQ(Send(NumberedReport(++number)), 0);
  ExpectOnDisk(After(log, NumberedReport(number)));
}
#endif

}  // namespace
}  // namespace zav::test
