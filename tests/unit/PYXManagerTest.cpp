#include "PYXManager.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "pyx/State.h"
#include "support/Device.h"
#include "support/LogRecorder.h"
#include "support/OddClients.h"
#include "support/RawClient.h"
#include "support/Surroundings.h"
#include "support/SystemCalls.h"
#include "support/ThisProcess.h"
#include "support/WaitUntil.h"

namespace zav::test {
namespace {

using ipc::Method;
using plugin::PYXManager;
using policy::Policy;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

const std::string kWaitLine = "Something went wrong. Will wait 30 sec. to try again.";

testing::Matcher<LogEntry> Line(int priority, const std::string& message) {
  return PluginLine(priority, "PYXManager.cpp", "ThreadProc", message);
}

testing::Matcher<LogEntry> RunDirectory(int result) {
  return PluginLine(kDebug, "GlobalPaths.cpp", "makeDir", kRunDirectory + " : " + std::to_string(result));
}

const testing::Matcher<LogEntry> kListening =
    PluginLine(kInfo, "SocketService.cpp", "listen", MatchesRegex("listening socket : [0-9]+"));
const testing::Matcher<LogEntry> kStarted = PluginLine(kInfo, "Service.cpp", "start", "PYXPlugin service started");
const testing::Matcher<LogEntry> kStopped = PluginLine(kInfo, "Service.cpp", "start", "PYXPlugin service stopped");
const testing::Matcher<LogEntry> kBindFailed =
    PluginLine(kError, "SocketService.cpp", "listen", "bind failed! Address already in use");

Policy ServicePolicy(int delay) {
  Policy policy;
  policy.SetIntValue("restart_delay", delay);
  return policy;
}

/// A request; where the one before is still at its end on a machine that is busy, once more.
bool IsAnswered() {
  return WaitUntil([] {
    RawClient client;
    return client.SendHeader(Method::kGetPyxState) && client.Receive(ipc::StatePackage::kSize).has_value();
  });
}

/// What a child says at its very end.
void PrintLines() {
  for (const LogEntry& line : LogRecorder::Lines()) std::fprintf(stderr, "%s\n", line.message.c_str());
}

/// A device that has everything.
class ADevice : public testing::Test {
 protected:
  ADevice() { WriteDefaultPolicy(UsualPolicies()); }
};

class AManager : public ADevice {
 protected:
  AManager() : manager(PYXManager::Instance()) { LogRecorder::Clear(); }
  ~AManager() override { manager.Stop(); }

  void Start() {
    LogRecorder::Clear();
    manager.Start();
    ASSERT_TRUE(LogRecorder::WaitFor("PYXPlugin service started"));
  }
  /// The shortest of a few stops, each of what `prepare` started: a machine may be too busy for one of them.
  template <class Prepare>
  milliseconds TimeOfStop(Prepare prepare) {
    auto shortest = milliseconds::max();
    for (int attempt = 0; attempt < 3 && shortest >= seconds(1); ++attempt) {
      [[maybe_unused]] const auto kept = prepare();
      const auto begin = steady_clock::now();
      manager.Stop();
      shortest = std::min(shortest, std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin));
    }
    return shortest;
  }
  /// A stop in a wait that looks up once a second.
  milliseconds TimeOfStopInTheRestartWait() {
    return TimeOfStop([this] {
      LogRecorder::Clear();
      manager.Start();
      EXPECT_TRUE(LogRecorder::WaitFor(kWaitLine));
      return 0;
    });
  }

  PYXManager& manager;
};

/// A directory in the socket's place, which neither a service removes nor a bind accepts.
class AManagerWhoseServiceFails : public AManager {
 protected:
  AManagerWhoseServiceFails() {
    MakeRunDirectory();
    mkdir(kSocketFile.c_str(), 0700);
  }
};

// The restart delay

struct Delay {
  const char* name;
  const char* policy;
  int seconds;
};

std::ostream& operator<<(std::ostream& out, const Delay& delay) {
  return out << delay.policy;
}

class AStoredRestartDelay : public testing::TestWithParam<Delay> {};
INSTANTIATE_TEST_SUITE_P(Of, AStoredRestartDelay,
                         testing::Values(Delay{"Zero", R"({"restart_delay":0})", 30},
                                         Delay{"Nothing", R"({"other":1})", 30},
                                         Delay{"Ten", R"({"restart_delay":10})", 30},
                                         Delay{"FiveThousand", R"({"restart_delay":5000})", 3600},
                                         Delay{"TheLeast", R"({"restart_delay":30})", 30},
                                         Delay{"TheMost", R"({"restart_delay":3600})", 3600},
                                         Delay{"AHundred", R"({"restart_delay":100})", 100},
                                         Delay{"LessThanZero", R"({"restart_delay":-5})", 30},
                                         Delay{"AText", R"({"restart_delay":"100"})", 30}),
                         [](const auto& each) { return each.param.name; });

TEST_P(AStoredRestartDelay, IsTakenWithinItsLimitsOnFirstUse) {
  WriteDefaultPolicy(R"({"Service":)" + std::string(GetParam().policy) + "}");
  EXPECT_EQ(PYXManager::Instance().RestartDelay(), GetParam().seconds);
  EXPECT_FALSE(PYXManager::Instance().IsRunning());
}

TEST(AManagerWithoutAServicePolicy, WaitsThirtySeconds) {
  WriteDefaultPolicy("{}");
  EXPECT_EQ(PYXManager::Instance().RestartDelay(), 30);
}

TEST_F(AManager, TakesADelayOf0AbsentAndBeyondItsLimits) {
  manager.ApplyPolicy(ServicePolicy(100));
  EXPECT_EQ(manager.RestartDelay(), 100);
  manager.ApplyPolicy(ServicePolicy(0));
  EXPECT_EQ(manager.RestartDelay(), 30);
  manager.ApplyPolicy(ServicePolicy(5000));
  EXPECT_EQ(manager.RestartDelay(), 3600);
  manager.ApplyPolicy(ServicePolicy(10));
  EXPECT_EQ(manager.RestartDelay(), 30);
  manager.ApplyPolicy(ServicePolicy(31));
  manager.ApplyPolicy(Policy());
  EXPECT_EQ(manager.RestartDelay(), 30);
}

TEST_F(AManager, NeverShowsADelayBeyondItsLimits) {
  std::atomic<bool> done{false};
  std::thread changing([&] {
    const Policy much = ServicePolicy(1'000'000);
    const Policy little = ServicePolicy(1);
    for (int turn = 0; turn < 100'000; ++turn) manager.ApplyPolicy(turn % 2 == 0 ? much : little);
    done = true;
  });
  int wrong = 0;
  while (!done) {
    const int delay = manager.RestartDelay();
    if (delay != 30 && delay != 3600) ++wrong;
  }
  changing.join();
  EXPECT_EQ(wrong, 0);
}

TEST(AManagerWithoutPolicies, CannotBeHadTheFirstTimeAndIsTriedAgain) {
  MakeStorageDirectory();
  try {
    PYXManager::Instance();
    ADD_FAILURE() << "there is a manager";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Default policy is empty");
  }
  EXPECT_EQ(PYXManager::Instance().RestartDelay(), 30);
}

// Start and stop

TEST_F(AManager, MakesTheRunDirectoryAndStartsTheService) {
  const Umask none(0);
  Start();
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(RunDirectory(0), kListening, kStarted));
  EXPECT_TRUE(manager.IsRunning());
  EXPECT_EQ(PermissionsOf(kRunDirectory), 0755U);
  EXPECT_TRUE(IsAnswered());
}

TEST_F(AManager, StartsInARunDirectoryThatIsThere) {
  MakeRunDirectory();
  Start();
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(RunDirectory(-1), kListening, kStarted));
}

TEST_F(AManager, RunsFromTheReturnOfStartToTheReturnOfStop) {
  EXPECT_FALSE(manager.IsRunning());
  manager.Start();
  EXPECT_TRUE(manager.IsRunning());
  manager.Stop();
  EXPECT_FALSE(manager.IsRunning());
}

TEST_F(AManager, DoesNothingWhenItIsStartedWhileItRuns) {
  Start();
  const auto threads = ThreadIds();
  const auto lines = LogRecorder::Lines().size();
  manager.Start();
  EXPECT_EQ(ThreadIds(), threads);
  EXPECT_TRUE(IsAnswered());
  manager.Stop();
  // The only stop that there is: had a second thread been started, it would serve on.
  EXPECT_FALSE(manager.IsRunning());
  EXPECT_EQ(LogRecorder::Count("PYXPlugin service started"), 1);
  EXPECT_EQ(lines, 3U);
}

TEST_F(AManager, DoesNothingWhenItIsStoppedWhileItIsIdle) {
  manager.Stop();
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
  EXPECT_FALSE(ipc::serviceBusy);
}

TEST_F(AManager, HasEndedItsThreadsWhenStopReturns) {
  const auto threads = ThreadIds();
  Start();
  EXPECT_TRUE(IsAnswered());
  manager.Stop();
  EXPECT_EQ(LogRecorder::Lines().back().message, "PYXPlugin service stopped");
  EXPECT_TRUE(WaitUntil([&] { return ThreadIds() == threads; }));
}

TEST_F(AManager, RefusesClientsWhenItIsStopped) {
  Start();
  manager.Stop();
  EXPECT_THROW(ConnectFrom("/tmp/client.socket"), std::runtime_error);
}

TEST_F(AManager, UsesTheSameServiceAndANewThreadForASecondStart) {
  const auto newThreads = [before = ThreadIds()] {
    std::vector<int> added;
    const auto now = ThreadIds();
    std::set_difference(now.begin(), now.end(), before.begin(), before.end(), std::back_inserter(added));
    return added;
  };
  Start();
  const auto first = newThreads();
  manager.Stop();
  manager.Start();
  ASSERT_TRUE(WaitUntil([] { return LogRecorder::Count("PYXPlugin service started") == 2; }));
  // A service that ends says so with its socket, and a new one would not find a socket to retire.
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(RunDirectory(0), kListening, kStarted, kStopped, RunDirectory(-1), kListening, kStarted));
  EXPECT_FALSE(first.empty());
  EXPECT_NE(newThreads(), first);
  EXPECT_TRUE(IsAnswered());
}

TEST_F(AManager, CanBeSwitchedOffAndOnAnyNumberOfTimes) {
  for (int turn = 0; turn < 200; ++turn) {
    manager.Start();
    ASSERT_TRUE(IsAnswered()) << turn;
    manager.Stop();
  }
  EXPECT_EQ(LogRecorder::Count("PYXPlugin service started"), 200);
  EXPECT_EQ(LogRecorder::Count("PYXPlugin service stopped"), 200);
  const auto lines = LogRecorder::Lines();
  EXPECT_TRUE(std::none_of(lines.begin(), lines.end(), [](const LogEntry& line) {
    return line.priority >= kWarning || line.message.starts_with("SHUTDOWN");
  }));
}

TEST_F(AManager, CanBeStoppedBeforeItsThreadHasReachedItsLoop) {
  for (int turn = 0; turn < 300; ++turn) {
    manager.Start();
    manager.Stop();
  }
  Start();
  EXPECT_TRUE(IsAnswered());
}

TEST_F(AManager, StopsWhereverItsThreadIsOnTheWayToItsLoop) {
  // The thread is held at each step of its way until the stop was asked for.
  for (const Call step : {Call::kMkdir, Call::kSocket, Call::kBind, Call::kListen, Call::kSelect}) {
    SCOPED_TRACE(static_cast<int>(step));
    std::promise<void> reached;
    std::atomic<bool> first{true};
    const CallHook hook(step, [&](const CallArguments&) -> std::optional<long> {
      if (!first.exchange(false)) return std::nullopt;
      reached.set_value();
      WaitUntil([&] { return !manager.IsRunning(); });
      return std::nullopt;
    });
    manager.Start();
    reached.get_future().wait();
    manager.Stop();
    EXPECT_FALSE(manager.IsRunning());
  }
  Start();
  EXPECT_TRUE(IsAnswered());
}

TEST_F(AManager, StartsAndStopsAmongClientsThatDoNotCease) {
  Start();
  std::atomic<bool> done{false};
  std::atomic<int> answers{0};
  std::vector<std::thread> clients;
  for (int client = 0; client < 3; ++client) {
    clients.emplace_back([&] {
      while (!done) answers += IsAnswered() ? 1 : 0;
    });
  }
  for (int turn = 0; turn < 50; ++turn) {
    manager.Stop();
    manager.Start();
  }
  const int before = answers;
  EXPECT_TRUE(WaitUntil([&] { return answers > before; }));
  done = true;
  for (std::thread& client : clients) client.join();
}

TEST_F(AManager, BlocksTheHostsSignalsInItsThreadAndInNoOther) {
  // At the thread's first call, before the service has a say.
  std::uint64_t blocked = 0;
  const CallHook hook(Call::kMkdir, [&](const CallArguments&) -> std::optional<long> {
    blocked = BlockedSignals(gettid());
    return std::nullopt;
  });
  Start();
  for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGUSR2, SIGALRM, SIGCHLD, SIGPIPE}) {
    EXPECT_EQ(blocked >> (signal - 1) & 1, 1U) << signal;
    EXPECT_EQ(BlockedSignals(getpid()) >> (signal - 1) & 1, 0U) << signal;
  }
}

TEST_F(AManager, DoesNotRunWhenNoThreadIsToBeHad) {
  {
    const CallHook hook(Call::kPthreadCreate, Fail(EAGAIN, 1));
    EXPECT_THROW(manager.Start(), std::system_error);
  }
  EXPECT_FALSE(manager.IsRunning());
  EXPECT_EQ(BlockedSignals(getpid()) >> (SIGTERM - 1) & 1, 0U);
  Start();
  EXPECT_TRUE(IsAnswered());
}

// Clients that a stop finds

class AManagerWithAStuckClient : public AManager, public testing::WithParamInterface<Stuck> {
 protected:
  AManagerWithAStuckClient() { StoreHugeLog(); }
};
std::string NameOf(const testing::TestParamInfo<Stuck>& each) {
  const char* const names[] = {"IsSilent", "IsInTheMiddleOfAString", "DoesNotReadItsReply"};
  return names[static_cast<int>(each.param)];
}

INSTANTIATE_TEST_SUITE_P(That, AManagerWithAStuckClient, testing::ValuesIn(kAllStuck), NameOf);

TEST_P(AManagerWithAStuckClient, StopsWithinASecondAndStartsAgain) {
  const auto time = TimeOfStop([this] {
    Start();
    return MakeStuckClient(GetParam());
  });
  EXPECT_LT(time, seconds(1));
  EXPECT_EQ(LogRecorder::Lines().back().message, "PYXPlugin service stopped");
  Start();
  EXPECT_TRUE(IsAnswered());
}

TEST_F(AManager, AnswersARequestThatItHasReceivedWholeBeforeItStops) {
  pyx::State& state = pyx::State::Instance();
  Start();
  std::unique_lock busy(state.Mutex());
  RawClient client;
  ASSERT_TRUE(client.SendHeader(Method::kLogThreatUrl) && client.SendString("url") && client.SendString("threat"));
  ASSERT_TRUE(WaitUntilTaken(client));
  auto stopping = std::async(std::launch::async, [this] { manager.Stop(); });
  // However long that takes.
  EXPECT_EQ(stopping.wait_for(milliseconds(1500)), std::future_status::timeout);
  busy.unlock();
  EXPECT_EQ(client.ReceiveInt(), 0);
  stopping.get();
  EXPECT_NE(Rows()["Storage"].find("\"url\":\"url\""), std::string::npos);
}

TEST_F(AManager, StopsAlthoughAReplyThatComesAfterTheStopIsNotTaken) {
  StoreHugeLog();
  pyx::State& state = pyx::State::Instance();
  const auto stopsInTime = [&] {
    Start();
    std::unique_lock busy(state.Mutex());
    RawClient client;
    EXPECT_TRUE(client.SendHeader(Method::kGetLog) && client.SendPackage(ipc::LogPackage()));
    EXPECT_TRUE(WaitUntilTaken(client));
    auto stopping = std::async(std::launch::async, [this] { manager.Stop(); });
    EXPECT_TRUE(WaitUntil([&] { return !manager.IsRunning(); }));
    busy.unlock();
    // What the service needs to make the reply does not count.
    EXPECT_TRUE(WaitUntilReadable(client));
    return stopping.wait_for(seconds(1)) == std::future_status::ready;
  };
  // A machine may be too busy for it once or twice.
  EXPECT_TRUE(stopsInTime() || stopsInTime() || stopsInTime());
}

// Failures

TEST_F(AManagerWhoseServiceFails, WaitsItsDelayAndThenBuildsTheServiceAgain) {
  const auto begin = steady_clock::now();
  manager.Start();
  ASSERT_TRUE(LogRecorder::WaitFor(kWaitLine));
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(RunDirectory(-1), kBindFailed, Line(kWarning, kWaitLine)));
  rmdir(kSocketFile.c_str());
  EXPECT_TRUE(WaitUntil([] { return LogRecorder::Count("PYXPlugin service started") == 1; }, seconds(60)));
  EXPECT_GE(steady_clock::now() - begin, seconds(30));
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(RunDirectory(-1), kBindFailed, Line(kWarning, kWaitLine), RunDirectory(-1),
                          PluginLine(kWarning, "Socket.cpp", "create",
                                     MatchesRegex("N3zav3ipc13SocketServiceE.existed . socket : [0-9]+")),
                          kListening, kStarted));
  EXPECT_TRUE(IsAnswered());
}

TEST_F(AManagerWhoseServiceFails, StopsDuringTheRestartWaitWithinAboutASecond) {
  EXPECT_LT(TimeOfStopInTheRestartWait(), milliseconds(1500));
  rmdir(kSocketFile.c_str());
  Start();
  EXPECT_TRUE(IsAnswered());
}

TEST_F(AManagerWhoseServiceFails, LogsThatItCannotStopWhereItsOwnThreadEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        std::set_terminate([] {
          PrintLines();
          std::abort();
        });
        std::promise<void> started;
        std::promise<void> never;
        const CallHook hook(Call::kNanosleep, [&](const CallArguments&) -> std::optional<long> {
          started.get_future().wait();
          std::exit(0);
        });
        manager.Start();
        started.set_value();
        never.get_future().wait_for(seconds(20));
        std::_Exit(1);
      },
      testing::KilledBySignal(SIGABRT), "Resource deadlock avoided");
}

/// In place of the seconds that the service's thread sleeps: they are over at once, and noted.
class ARestartWait : public AManagerWhoseServiceFails {
 protected:
  ~ARestartWait() override { manager.Stop(); }

  std::optional<long> Sleep(const CallArguments& call) {
    if (std::this_thread::get_id() == test) return std::nullopt;
    const std::lock_guard guard(mutex);
    slept.push_back(*call.time);
    if (slept.size() == interrupted) {
      *static_cast<timespec*>(call.data) = {0, 400'000'000};
      errno = error;
      return -1;
    }
    return 0;
  }
  size_t Seconds() {
    const std::lock_guard guard(mutex);
    return slept.size();
  }

  const std::thread::id test = std::this_thread::get_id();
  std::mutex mutex;
  std::vector<nanoseconds> slept;
  /// The sleep that ends early, and its error.
  size_t interrupted = 0;
  int error = EINTR;
  CallHook hook{Call::kNanosleep, [this](const CallArguments& call) { return Sleep(call); }};
};

TEST_F(ARestartWait, IsMadeOfSingleSecondsAndFollowedByTheNextTry) {
  manager.ApplyPolicy(ServicePolicy(40));
  // Two rounds, then nothing is in the way.
  const CallHook bind(Call::kBind, [this](const CallArguments&) -> std::optional<long> {
    if (Seconds() >= 80) rmdir(kSocketFile.c_str());
    return std::nullopt;
  });
  manager.Start();
  ASSERT_TRUE(LogRecorder::WaitFor("PYXPlugin service started"));
  EXPECT_EQ(Seconds(), 80U);
  EXPECT_THAT(slept, testing::Each(nanoseconds(seconds(1))));
  EXPECT_EQ(LogRecorder::Count("Something went wrong. Will wait 40 sec. to try again."), 2);
}

TEST_F(ARestartWait, IsRepeatedForWhatIsLeftAfterASignal) {
  interrupted = 2;
  const CallHook bind(Call::kBind, [this](const CallArguments&) -> std::optional<long> {
    if (Seconds() > 0) rmdir(kSocketFile.c_str());
    return std::nullopt;
  });
  manager.Start();
  ASSERT_TRUE(LogRecorder::WaitFor("PYXPlugin service started"));
  ASSERT_EQ(Seconds(), 31U);
  EXPECT_EQ(slept[1], seconds(1));
  EXPECT_EQ(slept[2], milliseconds(400));
  EXPECT_EQ(slept[3], seconds(1));
}

TEST_F(ARestartWait, GoesOnToTheNextSecondAfterOneThatCannotBeSlept) {
  interrupted = 2;
  error = EINVAL;
  const CallHook bind(Call::kBind, [this](const CallArguments&) -> std::optional<long> {
    if (Seconds() > 0) rmdir(kSocketFile.c_str());
    return std::nullopt;
  });
  manager.Start();
  ASSERT_TRUE(LogRecorder::WaitFor("PYXPlugin service started"));
  EXPECT_EQ(Seconds(), 30U);
  EXPECT_THAT(slept, testing::Each(nanoseconds(seconds(1))));
}

TEST_F(ARestartWait, TakesANewDelayTheNextTime) {
  const CallHook bind(Call::kBind, [this](const CallArguments&) -> std::optional<long> {
    if (Seconds() == 30) manager.ApplyPolicy(ServicePolicy(50));
    if (Seconds() >= 80) rmdir(kSocketFile.c_str());
    return std::nullopt;
  });
  manager.Start();
  ASSERT_TRUE(LogRecorder::WaitFor("PYXPlugin service started"));
  EXPECT_EQ(Seconds(), 80U);
  EXPECT_EQ(LogRecorder::Count(kWaitLine), 1);
  EXPECT_EQ(LogRecorder::Count("Something went wrong. Will wait 50 sec. to try again."), 1);
}

TEST_F(AManager, LogsAnExceptionOfItsServiceAndGoesOnToTheRestartWait) {
  std::atomic<bool> thrown{false};
  const CallHook hook(Call::kFcntl, [&](const CallArguments&) -> std::optional<long> {
    if (!thrown.exchange(true)) throw std::runtime_error("no luck");
    return std::nullopt;
  });
  manager.Start();
  ASSERT_TRUE(LogRecorder::WaitFor(kWaitLine));
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(RunDirectory(0), Line(kError, "PYX service throw exception: no luck"),
                                                Line(kWarning, kWaitLine)));
  manager.Stop();
  Start();
  EXPECT_TRUE(IsAnswered());
}

/// The manager ends the process when it is used after this, and at the process's end: so each runs in a child.
class ARunDirectoryThatCannotBeMade : public ADevice {
 protected:
  ARunDirectoryThatCannotBeMade() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  static void FailToMakeIt() {
    const CallHook hook(Call::kMkdir, [](const CallArguments& call) -> std::optional<long> {
      if (kRunDirectory != static_cast<const char*>(call.data)) return std::nullopt;
      errno = EROFS;
      return -1;
    });
    PYXManager& manager = PYXManager::Instance();
    LogRecorder::Clear();
    const auto threads = ThreadIds();
    manager.Start();
    EXPECT_TRUE(WaitUntil([&] { return !manager.IsRunning(); }));
    EXPECT_TRUE(WaitUntil([&] { return ThreadIds() == threads; }));
    EXPECT_THAT(LogRecorder::Lines(), ElementsAre(PluginLine(kError, "GlobalPaths.cpp", "makeDir",
                                                             kRunDirectory + " : Read-only file system"),
                                                  Line(kError, "Could not make directory for PYX service")));
  }
  [[noreturn]] static void EndAsTheExpectationsDid() { std::_Exit(HasFailure() ? 1 : 0); }
};

TEST_F(ARunDirectoryThatCannotBeMade, EndsTheThreadAndLeavesTheManagerNotRunning) {
  EXPECT_EXIT(
      {
        FailToMakeIt();
        // There is nothing to stop.
        PYXManager::Instance().Stop();
        EndAsTheExpectationsDid();
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(ARunDirectoryThatCannotBeMade, MakesALaterStartEndTheProcess) {
  EXPECT_EXIT(
      {
        FailToMakeIt();
        if (HasFailure()) std::_Exit(1);
        PYXManager::Instance().Start();
        std::_Exit(2);
      },
      testing::KilledBySignal(SIGABRT), "");
}

TEST_F(ARunDirectoryThatCannotBeMade, EndsTheProcessAtItsEnd) {
  EXPECT_EXIT(
      {
        FailToMakeIt();
        if (HasFailure()) std::_Exit(1);
        std::exit(0);
      },
      testing::KilledBySignal(SIGABRT), "");
}

TEST_F(ADevice, EndsWithItsServiceStoppedAndItsSocketFileRemoved) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        std::atexit(PrintLines);
        PYXManager::Instance().Start();
        std::exit(IsAnswered() ? 0 : 1);
      },
      testing::ExitedWithCode(0), "PYXPlugin service stopped");
  EXPECT_FALSE(FileExists(kSocketFile));
}

}  // namespace
}  // namespace zav::test
