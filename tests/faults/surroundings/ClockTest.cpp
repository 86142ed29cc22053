#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <climits>
#include <filesystem>
#include <limits>
#include <memory>
#include <string>

#include "Asking.h"
#include "LogOfRows.h"
#include "TestClock.h"
#include "integration/Library.h"
#include "support/LogRecorder.h"
#include "support/LogText.h"
#include "support/OddClients.h"
#include "support/RawClient.h"
#include "support/StoredState.h"
#include "support/SystemCalls.h"
#include "support/WaitUntil.h"

// The time of day may be anything, and jump: records age by their rule, in 32 bits, and no deadline moves.
namespace zav::test {
namespace {

using ipc::Method;
using std::chrono::seconds;

constexpr std::int64_t kNow = 1'700'000'000;
constexpr std::int64_t kTenYears = 315'576'000;
constexpr std::int64_t kEndOf2038 = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t kEndOf2106 = std::numeric_limits<std::uint32_t>::max();
constexpr int kPeriod = 3600;

constexpr std::array<std::int64_t, 21> kInstants{
    0,
    1,
    kPeriod,
    kNow - kTenYears,
    kNow,
    kNow + kPeriod,
    kNow + kPeriod + 1,
    kNow + kTenYears,
    kEndOf2038 - kPeriod - 1,
    kEndOf2038 - kPeriod,
    kEndOf2038 - 1,
    kEndOf2038,
    kEndOf2038 + 1,
    kEndOf2038 + kPeriod,
    kEndOf2038 + kTenYears,
    kEndOf2106 - kPeriod,
    kEndOf2106 - 1,
    kEndOf2106,
    kEndOf2106 + 1,
    kEndOf2106 + kPeriod,
    kEndOf2106 + kNow,
};

/// As the plug-in keeps it.
int Stamp(std::int64_t instant) {
  return static_cast<int>(static_cast<std::uint32_t>(instant));
}

class TheLog : public testing::Test {
 protected:
  TheLog() {
    StoredLog log;
    log.maxLoggingPeriod = kPeriod;
    PrepareDevice(log);
  }

  void Start(std::int64_t instant) {
    now = instant;
    clock.Set(now);
    model = std::make_unique<LogModel>(LogOfRows(Stamp(now)));
    plugin = std::make_unique<LoadedPlugin>();
    ASSERT_TRUE(plugin->provider);
  }

  void JumpTo(std::int64_t instant) {
    now = instant;
    clock.Set(now);
  }

  void ReportNow(const std::string& url) {
    EXPECT_EQ(Report(url, "virus"), 0);
    model->Report(url, "virus", Stamp(now));
    EXPECT_EQ(Row("Storage"), ToJson(model->Content()));
  }

  void ExpectModelsLog() {
    EXPECT_EQ(Ask(Method::kGetLogStatus).document, ToJson(model->Summarise(Stamp(now))));
    EXPECT_EQ(Ask(Method::kGetLog, {INT_MIN, INT_MAX}).document,
              ToJson(model->FindForward({INT_MIN, INT_MAX}).records));
    EXPECT_EQ(Ask(Method::kCountRecords, {0, INT_MAX}).number, model->CountBetween(0, INT_MAX));
    EXPECT_EQ(Ask(Method::kCountRecords, {INT_MIN, -1}).number, model->CountBetween(INT_MIN, -1));
  }

  std::vector<std::string> Urls() { return UrlsOf(Ask(Method::kGetLog, {INT_MIN, INT_MAX}).document); }
  /// What is left when somebody has looked.
  std::vector<std::string> UrlsAfterALook() {
    EXPECT_EQ(Ask(Method::kGetLogStatus).outcome, Outcome::kAnswered);
    return Urls();
  }

  std::int64_t now = kNow;
  MemoryStorage statuses;
  TestClock clock{kNow};
  std::unique_ptr<LogModel> model;
  std::unique_ptr<LoadedPlugin> plugin;
};

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(TheLog, LosesItsRecordsWhenTheClockGoesTenYearsForward) {
  Start(kNow);
  ReportNow("http://before");
  JumpTo(kNow + kTenYears);
  ReportNow("http://after");
  EXPECT_THAT(UrlsAfterALook(), ElementsAre("http://after"));
}

TEST_F(TheLog, KeepsItsRecordsWhenTheClockGoesTenYearsBack) {
  Start(kNow);
  ReportNow("http://before");
  JumpTo(kNow - kTenYears);
  ReportNow("http://after");
  EXPECT_THAT(UrlsAfterALook(), ElementsAre("http://before", "http://after"));
}

TEST_F(TheLog, WorksOnADeviceWithoutABattery) {
  Start(0);
  ReportNow("http://a");
  EXPECT_THAT(UrlsAfterALook(), ElementsAre("http://a"));
  EXPECT_EQ(Ask(Method::kCountRecords, {0, 0}).number, 1);
}

// The sum of stamp and period wraps in the last hour, and lies in the far past then.
TEST_F(TheLog, LosesARecordAtOnceInTheLastHourOf32Bits) {
  Start(kEndOf2038 - kPeriod);
  ReportNow("http://before");
  EXPECT_THAT(UrlsAfterALook(), ElementsAre("http://before"));
  JumpTo(kEndOf2038 - kPeriod + 1);
  ReportNow("http://in");
  EXPECT_THAT(UrlsAfterALook(), ElementsAre("http://before"));
}

TEST_F(TheLog, StampsWithNegativeNumbersAfter2038AndKeepsWhatIsInThePeriod) {
  Start(kEndOf2038 + 1);
  ReportNow("http://a");
  EXPECT_EQ(Row("Storage")["0"]["timestamp"], INT_MIN);
  JumpTo(kEndOf2038 + 1 + kPeriod);
  EXPECT_THAT(UrlsAfterALook(), ElementsAre("http://a"));
  JumpTo(kEndOf2038 + 2 + kPeriod);
  EXPECT_THAT(UrlsAfterALook(), IsEmpty());
}

TEST_F(TheLog, BeginsAtZeroAgainIn2106) {
  Start(kEndOf2106);
  ReportNow("http://a");
  EXPECT_EQ(Row("Storage")["0"]["timestamp"], -1);
  JumpTo(kEndOf2106 + 1);
  ReportNow("http://b");
  EXPECT_EQ(Row("Storage")["1"]["timestamp"], 0);
  EXPECT_THAT(UrlsAfterALook(), ElementsAre("http://a", "http://b"));
}

/// From one instant to each other one.
class TheLogFrom : public TheLog, public testing::WithParamInterface<std::int64_t> {};

TEST_P(TheLogFrom, AgesByItsRulesWhereverTheClockJumps) {
  for (const std::int64_t to : kInstants) {
    const testing::ScopedTrace trace(__FILE__, __LINE__, std::to_string(to));
    plugin.reset();
    std::filesystem::remove_all(kStorageDirectory);
    StoredLog log;
    log.maxLoggingPeriod = kPeriod;
    MakeStorageDirectory();
    PrepareDevice(log);
    Start(GetParam());
    ReportNow("http://before");
    ExpectModelsLog();
    JumpTo(to);
    ReportNow("http://after");
    ExpectModelsLog();
    plugin.reset();
    Start(to);
    ExpectModelsLog();
  }
}

INSTANTIATE_TEST_SUITE_P(Instant, TheLogFrom, testing::ValuesIn(kInstants),
                         [](const auto& each) { return "At" + std::to_string(each.param); });

/// Where the clock is set while somebody waits.
constexpr std::array<std::int64_t, 6> kJumps{0,          kNow - kTenYears, kNow + kTenYears,
                                             kEndOf2038, kEndOf2038 + 1,   kEndOf2106 + 1};

class AClient : public testing::TestWithParam<Stuck> {
 protected:
  AClient() {
    WriteDefaultPolicy(UsualPolicies());
    if (GetParam() == Stuck::kNotReadingItsReply) {
      clock.Set(std::time(nullptr));
      StoreHugeLog();
    }
  }

  /// Has the service look at its clock twice: a client comes and is refused, and another one.
  static void LetTheServiceLook() {
    for (int time = 0; time < 2; ++time) EXPECT_TRUE(RawClient().EndsWithoutAnswer());
  }

  static bool IsCutOff(const RawClient& client) {
    pollfd state{client.descriptor(), POLLRDHUP, 0};
    return poll(&state, 1, 0) == 1 && (state.revents & (POLLRDHUP | POLLHUP)) != 0;
  }

  MemoryStorage statuses;
  TestClock clock{std::time(nullptr)};
};

TEST_P(AClient, IsCutOffAfterItsThirtySecondsAndNotBeforeWhereverTheClockJumps) {
  for (const std::int64_t jump : kJumps) {
    const testing::ScopedTrace trace(__FILE__, __LINE__, std::to_string(jump));
    const LoadedPlugin plugin;
    ASSERT_TRUE(plugin.provider);
    const auto client = MakeStuckClient(GetParam());
    const std::int64_t before = std::time(nullptr);
    clock.Set(jump);
    // Far enough from the end for a machine that is busy.
    clock.Pass(seconds(15));
    LetTheServiceLook();
    EXPECT_FALSE(IsCutOff(*client));
    clock.Pass(seconds(16));
    const RawClient next;
    EXPECT_TRUE(WaitUntil([&] { return IsCutOff(*client); }));
    clock.Set(before);
  }
}

TEST_P(AClient, IsCutOffAlsoWhereItHasTheLastDescriptor) {
  const LoadedPlugin plugin;
  ASSERT_TRUE(plugin.provider);
  const auto client = MakeStuckClient(GetParam());
  // Nobody is accepted before the first one's descriptor is free.
  const CallHook full(Call::kAccept4, Fail(EMFILE));
  const RawClient next;
  clock.Pass(seconds(31));
  EXPECT_TRUE(WaitUntil([&] { return IsCutOff(*client); }));
}

TEST_P(AClient, DoesNotHoldASwitchOffUpWhereverTheClockJumps) {
  for (const std::int64_t jump : kJumps) {
    const testing::ScopedTrace trace(__FILE__, __LINE__, std::to_string(jump));
    const LoadedPlugin plugin;
    ASSERT_TRUE(plugin.provider);
    const auto client = MakeStuckClient(GetParam());
    const std::int64_t before = std::time(nullptr);
    const auto begin = std::chrono::steady_clock::now();
    clock.Set(jump);
    EXPECT_EQ(plugin.provider->setStatus(0), 0);
    // Less than the client would have without the switch-off.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, seconds(20));
    EXPECT_TRUE(IsCutOff(*client));
    clock.Set(before);
  }
}

std::string NameOf(Stuck how) {
  const char* const names[] = {"IsSilent", "StopsInTheMiddle", "DoesNotReadItsReply"};
  return names[static_cast<int>(how)];
}

INSTANTIATE_TEST_SUITE_P(Who, AClient, testing::ValuesIn(kAllStuck),
                         [](const auto& each) { return NameOf(each.param); });

TEST(TheWaitForTheNextAttempt, IsAsLongAsItIsWhereverTheClockJumps) {
  WriteDefaultPolicy(UsualPolicies());
  const MemoryStorage statuses;
  TestClock clock(kNow);
  // A directory has the socket's name: no attempt succeeds.
  std::filesystem::create_directories(kSocketFile + "/full");
  std::atomic<int> waited{0};
  std::atomic<size_t> jump{0};
  const CallHook wait(Call::kNanosleep, [&](const CallArguments& arguments) -> std::optional<long> {
    if (arguments.time != seconds(1)) return std::nullopt;
    ++waited;
    clock.Set(kJumps[jump++ % kJumps.size()]);
    return 0;
  });
  const std::string line = "Something went wrong. Will wait 30 sec. to try again.";
  std::vector<int> begins;
  const CallHook attempt(Call::kBind, [&](const CallArguments&) -> std::optional<long> {
    if (begins.size() < 5) begins.push_back(waited);
    return std::nullopt;
  });
  {
    const LoadedPlugin plugin;
    EXPECT_TRUE(WaitUntil([&] { return LogRecorder::Count(line) >= 6; }));
  }
  EXPECT_THAT(begins, ElementsAre(0, 30, 60, 90, 120));
}

}  // namespace
}  // namespace zav::test
