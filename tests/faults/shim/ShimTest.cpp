// The shim itself: what it counts, whom it spares, and that a campaign meets the calls that it is about.

#include "Shim.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <memory>
#include <new>
#include <thread>
#include <vector>

#include "Campaign.h"
#include "Plausible.h"
#include "support/Device.h"
#include "support/TemporaryDirectory.h"

namespace zav::faults {
namespace {

using test::kScenarios;
using test::Scenario;

constexpr long kNever = std::numeric_limits<long>::max();

/// Which of six calls fail.
std::vector<bool> FailuresOfSix(long first, long times) {
  std::vector<bool> failed;
  Arm({Call::kOpen, EMFILE, first, times});
  for (int call = 0; call < 6; ++call) {
    errno = 0;
    const int file = open("/dev/null", O_RDONLY | O_CLOEXEC);
    failed.push_back(file == -1 && errno == EMFILE);
    if (file != -1) close(file);
  }
  Disarm();
  return failed;
}

TEST(TheShim, FailsTheCallThatItIsTold) {
  EXPECT_EQ(FailuresOfSix(2, 1), (std::vector<bool>{false, true, false, false, false, false}));
}

TEST(TheShim, FailsSoManyInARow) {
  EXPECT_EQ(FailuresOfSix(2, 4), (std::vector<bool>{false, true, true, true, true, false}));
}

TEST(TheShim, FailsForGood) {
  EXPECT_EQ(FailuresOfSix(4, kNever), (std::vector<bool>{false, false, false, true, true, true}));
}

TEST(TheShim, CountsWhatItPassesOnAndTellsWhatItFailed) {
  Arm({Call::kOpen, EMFILE, 3, 1});
  for (int call = 0; call < 4; ++call) close(open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(Disarm(), 1);
  EXPECT_EQ(Counted(Call::kOpen), 4);
  EXPECT_EQ(Counted(Call::kRename), 0);
}

TEST(TheShim, FailsNothingAfterItIsDisarmed) {
  Arm({Call::kOpen, EMFILE, 1, kNever});
  Disarm();
  EXPECT_TRUE(std::ifstream("/dev/null").is_open());
}

TEST(TheShim, MovesHalfOfWhatATransferWasToMove) {
  std::array<int, 2> ends;
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  Arm({Call::kWrite, kShort, 1, 1});
  EXPECT_EQ(write(ends[1], "12345678", 8), 4);
  EXPECT_EQ(write(ends[1], "5678", 4), 4);
  Disarm();
  std::array<char, 8> bytes;
  Arm({Call::kRead, kShort, 1, 1});
  EXPECT_EQ(read(ends[0], bytes.data(), bytes.size()), 4);
  Disarm();
  close(ends[0]);
  close(ends[1]);
}

TEST(TheShim, StandsInFrontOfTheFilesOfTheLanguage) {
  const test::TemporaryDirectory directory;
  const std::string path = directory / "file";
  Arm({Call::kOpen, EMFILE, 1, 1});
  EXPECT_FALSE(std::ofstream(path).is_open());
  Disarm();
  std::ofstream file(path);
  Arm({Call::kWrite, ENOSPC, 1, 1});
  file << "text" << std::flush;
  EXPECT_EQ(Disarm(), 1);
  EXPECT_FALSE(file);
}

TEST(TheShim, SparesAThreadThatIsNotCounted) {
  const Counting uncounted(false);
  EXPECT_EQ(FailuresOfSix(1, kNever), std::vector<bool>(6, false));
  const Counting counted(true);
  EXPECT_EQ(FailuresOfSix(1, kNever), std::vector<bool>(6, true));
}

TEST(TheShim, GivesANewThreadTheSayOfItsMaker) {
  for (const bool counted : {false, true}) {
    const Counting say(counted);
    std::vector<bool> failed;
    std::thread([&] { failed = FailuresOfSix(1, kNever); }).join();
    EXPECT_EQ(failed, std::vector<bool>(6, counted));
  }
}

TEST(TheShim, CountsTheCallsOfAllThreadsTogether) {
  Arm({Call::kRename, EIO, kNever, 1});
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([] {
      for (int call = 0; call < 1000; ++call) std::rename("", "");
    });
  }
  for (auto& thread : threads) thread.join();
  Disarm();
  EXPECT_EQ(Counted(Call::kRename), 4000);
}

#ifdef ZAV_FAULTY_MEMORY
/// Where the compiler cannot see that nobody uses it.
void* volatile sink = nullptr;

TEST(TheShim, FailsEveryWayToMemory) {
  Arm({Call::kMemory, ENOMEM, 1, kNever});
  const bool fails = std::malloc(8) == nullptr && std::calloc(1, 8) == nullptr && std::realloc(nullptr, 8) == nullptr &&
                     std::aligned_alloc(64, 64) == nullptr && operator new(8, std::nothrow) == nullptr;
  bool threw = false;
  try {
    sink = operator new(8);
  } catch (const std::bad_alloc&) {
    threw = true;
  }
  Disarm();
  EXPECT_TRUE(fails);
  EXPECT_TRUE(threw);
}
#endif

/// Where in all scenarios together a group of calls is met.
class AScenario : public testing::TestWithParam<test::Plausible> {};
INSTANTIATE_TEST_SUITE_P(Makes, AScenario, testing::ValuesIn(test::kPlausible),
                         [](const auto& each) { return std::string(each.param.name); });

TEST_P(AScenario, MeetsSuchACall) {
  long calls = 0;
  for (const Scenario& scenario : kScenarios) {
    LayOutDevice(scenario);
    const auto& report = test::RunInChild(
        [&](test::Report& to) {
          Attempt(scenario, {Call::kOpen, EIO, kNever, 1}, kNever, to);
        },
        std::chrono::seconds(60));
    EXPECT_FALSE(report.HasFailed()) << scenario.name << ": " << report.Failure();
    calls += report.counted[static_cast<size_t>(GetParam().call)];
  }
  EXPECT_GT(calls, 0);
}

}  // namespace
}  // namespace zav::faults
