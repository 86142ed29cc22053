#include "ipc/service/Service.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "pyx/State.h"
#include "support/Device.h"
#include "support/LogRecorder.h"
#include "support/OddClients.h"
#include "support/RawClient.h"
#include "support/StoredState.h"
#include "support/Surroundings.h"
#include "support/SystemCalls.h"
#include "support/ThisProcess.h"
#include "support/WaitUntil.h"

namespace zav::test {
namespace {

using ipc::Method;
using ipc::Service;
using ipc::serviceBusy;
using ipc::serviceMutex;
using pyx::State;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

const std::string kListenerType = "N3zav3ipc13SocketServiceE";
const std::string kSocketType = "N3zav3ipc6SocketE";
constexpr int kNoMethod = 99;

std::string Text(int error) {
  return std::strerror(error);
}

testing::Matcher<LogEntry> Line(int priority, const std::string& function,
                                const testing::Matcher<std::string>& message) {
  return PluginLine(priority, "Service.cpp", function, message);
}

const testing::Matcher<LogEntry> kListening =
    PluginLine(kInfo, "SocketService.cpp", "listen", MatchesRegex("listening socket : [0-9]+"));
const testing::Matcher<LogEntry> kStarted = Line(kInfo, "start", "PYXPlugin service started");
const testing::Matcher<LogEntry> kStopped = Line(kInfo, "start", "PYXPlugin service stopped");
const testing::Matcher<LogEntry> kBindFailed =
    PluginLine(kError, "SocketService.cpp", "listen", "bind failed! No such file or directory");
const testing::Matcher<LogEntry> kExisted =
    PluginLine(kWarning, "Socket.cpp", "create", MatchesRegex(kListenerType + ".existed . socket : [0-9]+"));

testing::Matcher<LogEntry> Closed(const testing::Matcher<std::string>& message) {
  return PluginLine(kDebug, "Socket.cpp", "~Socket", message);
}

bool TokenIsFree() {
  if (!serviceMutex.try_lock()) return false;
  serviceMutex.unlock();
  return true;
}

int LinesThatBeginWith(const std::string& text) {
  const auto lines = LogRecorder::Lines();
  return static_cast<int>(std::count_if(lines.begin(), lines.end(),
                                        [&text](const LogEntry& line) { return line.message.starts_with(text); }));
}

int Refusals() {
  return LinesThatBeginWith("SHUTDOWN : ");
}

/// How often the service said that its wait ended for nothing that it waits for.
int UnknownCases() {
  return LinesThatBeginWith("unknown case!");
}

/// A client that asks for the feature's state once. @return whether it was answered.
bool IsAnsweredAtOnce() {
  RawClient client;
  return client.SendHeader(Method::kGetPyxState) && client.Receive(ipc::StatePackage::kSize).has_value();
}

/// The same; where the request before is still at its end on a machine that is busy, once more.
bool IsAnswered() {
  return WaitUntil(IsAnsweredAtOnce);
}

/// The service on a device that has everything, run as its manager would.
class AService : public testing::Test {
 protected:
  AService() {
    WriteDefaultPolicy(UsualPolicies());
    MakeRunDirectory();
  }
  ~AService() override { Stop(); }

  void Run() {
    service->prepare();
    runner = std::thread([this] { service->start(); });
  }
  void Start() {
    LogRecorder::Clear();
    Run();
    ASSERT_TRUE(LogRecorder::WaitFor("PYXPlugin service started"));
  }
  void Stop() {
    if (!runner.joinable()) return;
    service->stop();
    runner.join();
  }

  /// Whether there are so many threads beside those of before, and all of them wait.
  bool OwnThreadsAreAsleep(size_t count) const {
    std::set<int> own = ThreadIds();
    std::erase_if(own, [this](int thread) { return others.contains(thread); });
    return own.size() == count && std::all_of(own.begin(), own.end(), IsAsleep);
  }

  /// The threads that are not the service's.
  const std::set<int> others = ThreadIds();
  std::unique_ptr<Service> service = std::make_unique<Service>();
  std::thread runner;
};

class AServiceThatRuns : public AService {
 protected:
  AServiceThatRuns() {
    Start();
    LogRecorder::Clear();
  }
};

/// Wakes whoever waits for a change of the hand-over, without one, while it lives.
class NeedlessWakeUps {
 public:
  ~NeedlessWakeUps() {
    done = true;
    waking.join();
  }

 private:
  std::atomic<bool> done{false};
  std::thread waking{[this] {
    while (!done) {
      ipc::serviceCondition.notify_all();
      std::this_thread::yield();
    }
  }};
};

/// An explicit instantiation may name what is private.
ipc::ServedConnection Service::*ConnectionMember();
template <ipc::ServedConnection Service::*Member>
struct ConnectionAccess {
  friend ipc::ServedConnection Service::*ConnectionMember() { return Member; }
};
template struct ConnectionAccess<&Service::connection>;

/// The connection that a service is serving.
ipc::ServedConnection& ConnectionOf(Service& service) {
  return service.*ConnectionMember();
}

/// Whether a client whose time is long up is cut off: it is being waited for.
bool IsCutAtTheEndOfTime(Service& service) {
  std::atomic<bool> cut{false};
  const CallHook hook(Call::kShutdown, [&](const CallArguments&) -> std::optional<long> {
    cut = true;
    return std::nullopt;
  });
  ConnectionOf(service).cutOverdue(steady_clock::time_point::max());
  return cut;
}

class AServiceWithoutItsRunDirectory : public AService {
 protected:
  AServiceWithoutItsRunDirectory() { rmdir(kRunDirectory.c_str()); }
};

// Start and stop

TEST_F(AService, SaysThatItStartedAndThatItStopped) {
  Start();
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(kListening, kStarted));
  Stop();
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(kListening, kStarted, kStopped));
}

TEST_F(AServiceWithoutItsRunDirectory, ReturnsAtOnceWithoutServing) {
  service->prepare();
  service->start();
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(kBindFailed));
}

TEST_F(AService, ReturnsAtOnceWithoutADescriptor) {
  const CallHook hook(Call::kSocket, Fail(EMFILE));
  service->prepare();
  service->start();
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(PluginLine(kError, "Socket.cpp", "create",
                                     kListenerType + " -1 socket descriptor error:" + Text(EMFILE)),
                          PluginLine(kError, "SocketService.cpp", "listen", Text(EMFILE))));
}

TEST_F(AService, DoesNotServeWhenAStopCameBeforeItsLoop) {
  service->prepare();
  service->stop();
  LogRecorder::Clear();
  service->start();
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
  EXPECT_FALSE(FileExists(kSocketFile));
}

TEST_F(AService, ClearsTheBusyFlagWhenItStarts) {
  serviceBusy = true;
  Start();
  EXPECT_FALSE(serviceBusy);
}

TEST_F(AService, ServesAgainAfterAStopWithoutAWordAboutItsOldSocket) {
  Start();
  Stop();
  Start();
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(kListening, kStarted));
  EXPECT_TRUE(IsAnswered());
}

TEST_F(AServiceThatRuns, WaitsForItsClientsAgainAfterItWasStoppedAndStarted) {
  Stop();
  Start();
  const auto client = MakeStuckClient(Stuck::kSilent);
  ASSERT_TRUE(client->SendHeader(Method::kGetPyxState));
  EXPECT_TRUE(client->Receive(ipc::StatePackage::kSize));
}

TEST_F(AServiceWithoutItsRunDirectory, TakesItsUnusedDescriptorTheNextTimeAndSaysSo) {
  service->prepare();
  service->start();
  MakeRunDirectory();
  Start();
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(kExisted, kListening, kStarted));
  EXPECT_TRUE(IsAnswered());
}

TEST_F(AServiceWithoutItsRunDirectory, RetiresADescriptorThatAStopShutBeforeItWasBound) {
  service->prepare();
  service->start();
  service->stop();
  MakeRunDirectory();
  Start();
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(kListening, kStarted));
  EXPECT_TRUE(IsAnswered());
}

TEST_F(AServiceThatRuns, IsShutByAStopOnlyWithTheTokenInItsHand) {
  serviceMutex.lock();
  auto stopping = std::async(std::launch::async, [this] { service->stop(); });
  EXPECT_EQ(stopping.wait_for(milliseconds(300)), std::future_status::timeout);
  EXPECT_TRUE(serviceBusy);
  serviceMutex.unlock();
  stopping.get();
  runner.join();
  EXPECT_TRUE(TokenIsFree());
}

TEST_F(AServiceThatRuns, RemovesItsSocketFileAtItsEnd) {
  Stop();
  service.reset();
  EXPECT_FALSE(FileExists(kSocketFile));
}

TEST_F(AService, LeavesNoThreadAndNoDescriptorBehind) {
  // The database's descriptor stays with the policies.
  State::Instance();
  const auto threads = ThreadIds();
  service.reset();
  const auto descriptors = Descriptors();
  service = std::make_unique<Service>();
  Start();
  for (int request = 0; request < 10; ++request) EXPECT_TRUE(IsAnswered());
  {
    const auto stuck = MakeStuckClient(Stuck::kSilent);
    RawClient refused;
    EXPECT_TRUE(refused.EndsWithoutAnswer());
  }
  Stop();
  service.reset();
  EXPECT_TRUE(WaitUntil([&] { return ThreadIds() == threads; }));
  EXPECT_EQ(Descriptors(), descriptors);
}

TEST_F(AService, RestsWhileItsStopWaitsForAClient) {
  StoreHugeLog();
  Start();
  const auto client = MakeStuckClient(Stuck::kNotReadingItsReply);
  // How often the thread was asleep: once for each look, of which half a second has ten.
  rusage before{};
  rusage after{};
  ASSERT_EQ(getrusage(RUSAGE_THREAD, &before), 0);
  service->stop();
  ASSERT_EQ(getrusage(RUSAGE_THREAD, &after), 0);
  EXPECT_GT(after.ru_nvcsw, before.ru_nvcsw);
  EXPECT_LT(after.ru_nvcsw, before.ru_nvcsw + 100);
}

// One connection

TEST_F(AServiceThatRuns, LogsAConnectionFromItsHeaderToItsEnd) {
  RawClient client;
  ASSERT_TRUE(client.SendHeader(kNoMethod, ipc::kHeaderTag, 7));
  EXPECT_TRUE(client.EndsWithoutAnswer());
  EXPECT_TRUE(WaitUntil(TokenIsFree));
  const auto lines = LogRecorder::Lines();
  ASSERT_FALSE(lines.empty());
  const std::string fd = lines[0].message.substr(0, lines[0].message.find(' '));
  EXPECT_GT(std::stoi(fd), 2);
  EXPECT_THAT(lines, ElementsAre(Line(kDebug, "serve", fd + " method : 99 module : 7"),
                                 Line(kError, "switchMethod", "not implemented"), Closed(kSocketType + " : " + fd)));
}

TEST_F(AServiceThatRuns, RefusesAHeaderWithAnotherTagWithOnlyAnErrorLine) {
  for (const std::int32_t tag : {0, 7, 9, -8}) {
    SCOPED_TRACE(tag);
    LogRecorder::Clear();
    RawClient client;
    ASSERT_TRUE(client.SendHeader(static_cast<std::int32_t>(Method::kGetPyxState), tag));
    EXPECT_TRUE(client.EndsWithoutAnswer());
    EXPECT_TRUE(WaitUntil(TokenIsFree));
    EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Line(kError, "serve", MatchesRegex("[0-9]+ [A-Z].*")),
                                                  Closed(MatchesRegex(kSocketType + " : [0-9]+"))));
  }
}

TEST_F(AServiceThatRuns, RefusesAHeaderThatDoesNotComeInOnePiece) {
  RawClient client;
  ASSERT_TRUE(client.Send("12345678", 8));
  EXPECT_TRUE(client.EndsWithoutAnswer());
  EXPECT_TRUE(WaitUntil(TokenIsFree));
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(PluginLine(kError, "Socket.cpp", "analyseResult",
                                                           MatchesRegex(kSocketType + " [0-9]+ size wrong : 8 != 16")),
                                                Line(kError, "serve", MatchesRegex("[0-9]+ [A-Z].*")),
                                                Closed(MatchesRegex(kSocketType + " : [0-9]+"))));
}

TEST(ADirectlyServedConnection, WithoutADescriptorEndsWithTheErrorLine) {
  Service().serve(-1);
  EXPECT_THAT(LogRecorder::Lines(), testing::IsSupersetOf({Line(kError, "serve", testing::StartsWith("-1 ")),
                                                           PluginLine(kError, "Socket.cpp", "~Socket",
                                                                      kSocketType + " socket descriptor is wrong")}));
}

TEST_F(AServiceThatRuns, EndsARequestWhoseMethodThrowsAndNothingElse) {
  std::remove(kDefaultPolicy.c_str());
  RawClient client;
  ASSERT_TRUE(client.SendHeader(Method::kGetPyxState));
  EXPECT_TRUE(client.EndsWithoutAnswer());
  EXPECT_THAT(LogRecorder::Lines(), testing::Contains(Line(kError, "serve", "Default policy is empty")));
  // The next one tries again.
  WriteDefaultPolicy(UsualPolicies());
  EXPECT_TRUE(WaitUntil(IsAnswered));
}

TEST_F(AServiceThatRuns, EndsARequestThatThrowsAnythingAndNothingElse) {
  {
    std::atomic<bool> thrown{false};
    const CallHook hook(Call::kRecv, [&](const CallArguments& call) -> std::optional<long> {
      if (call.size == ipc::Header::kSize && !thrown.exchange(true)) throw 42;
      return std::nullopt;
    });
    // It may be over before anything is sent.
    RawClient client;
    EXPECT_TRUE(client.EndsWithoutAnswer());
    EXPECT_TRUE(thrown);
  }
  EXPECT_TRUE(WaitUntil(IsAnswered));
}

/// How a connection ends, and what its client sends to that end.
struct Ending {
  const char* name;
  bool hasDescriptor;
  std::int32_t method;
  std::int32_t tag;
  size_t sent;
  bool hasPolicy;
};

std::ostream& operator<<(std::ostream& out, const Ending& ending) {
  return out << ending.name;
}

class AConnectionsEnd : public testing::TestWithParam<Ending> {};
INSTANTIATE_TEST_SUITE_P(
    Whatever, AConnectionsEnd,
    testing::Values(Ending{"NoDescriptor", false, 0, 8, 0, true}, Ending{"ClientIsGone", true, 4, 8, 0, true},
                    Ending{"HalfAHeader", true, 4, 8, 8, true}, Ending{"WrongTag", true, 4, 9, 16, true},
                    Ending{"UnknownMethod", true, kNoMethod, 8, 16, true}, Ending{"Answer", true, 4, 8, 16, true},
                    Ending{"NothingAfterTheHeader", true, 6, 8, 16, true},
                    Ending{"MethodThrows", true, 4, 8, 16, false}),
    [](const auto& each) { return each.param.name; });

TEST_P(AConnectionsEnd, ClosesItAndReleasesTheService) {
  const Ending& ending = GetParam();
  MakeStorageDirectory();
  if (ending.hasPolicy) WriteDefaultPolicy(UsualPolicies());
  int ends[2] = {-1, -1};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  ipc::Header header;
  header.method = ending.method;
  header.tag = ending.tag;
  ASSERT_EQ(send(ends[1], ipc::Encode(header).data(), ending.sent, 0), static_cast<ssize_t>(ending.sent));
  shutdown(ends[1], SHUT_WR);

  serviceMutex.lock();
  serviceBusy = true;
  Service().serve(ending.hasDescriptor ? ends[0] : -1);
  EXPECT_FALSE(serviceBusy);
  EXPECT_TRUE(TokenIsFree());
  EXPECT_EQ(fcntl(ends[0], F_GETFD) == -1, ending.hasDescriptor);
}

TEST(ADirectlyServedConnection, LogsTheErrorOfItsOwnHeaderAndNoEarlierOne) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  ipc::Header header;
  header.tag = 9;
  ASSERT_EQ(send(ends[1], ipc::Encode(header).data(), ipc::Header::kSize, 0), 16);
  Service service;
  errno = EPERM;
  service.serve(ends[0]);
  EXPECT_THAT(LogRecorder::Lines(), testing::Contains(Line(kError, "serve", std::to_string(ends[0]) + " " + Text(0))));
  close(ends[1]);
}

TEST(ADirectlyServedConnection, IsClosedBeforeTheServiceIsReleased) {
  Service service;
  for (int turn = 0; turn < 300; ++turn) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    serviceMutex.lock();
    std::thread connection([&] { service.serve(ends[0]); });
    ASSERT_EQ(send(ends[1], ipc::Encode(ipc::Header()).data(), ipc::Header::kSize, 0), 16);
    serviceMutex.lock();
    char byte = 0;
    EXPECT_EQ(recv(ends[1], &byte, 1, MSG_DONTWAIT), 0);
    serviceMutex.unlock();
    connection.join();
    close(ends[1]);
  }
}

TEST(ADirectlyServedConnection, IsNotToBeShutAnyMoreWhenItsDescriptorIsGivenBack) {
  Service service;
  int ends[2] = {-1, -1};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  ASSERT_EQ(send(ends[1], "end", 3, 0), 3);
  // The first look at the descriptor is for receiving, the last one for closing it.
  std::vector<bool> cut;
  const CallHook hook(Call::kFcntl, [&](const CallArguments&) -> std::optional<long> {
    cut.push_back(IsCutAtTheEndOfTime(service));
    return std::nullopt;
  });
  service.serve(ends[0]);
  EXPECT_THAT(cut, ElementsAre(true, false));
  close(ends[1]);
}

// Clients that come together

TEST_F(AServiceThatRuns, ShutsASecondClientWhileItServesOne) {
  const auto first = MakeStuckClient(Stuck::kSilent);
  RawClient second;
  EXPECT_TRUE(second.EndsWithoutAnswer());
  ASSERT_TRUE(WaitUntil([] { return LogRecorder::Lines().size() == 2; }));
  const auto lines = LogRecorder::Lines();
  const std::string fd = lines[0].message.substr(lines[0].message.rfind(' ') + 1);
  EXPECT_GT(std::stoi(fd), 2);
  EXPECT_THAT(lines, ElementsAre(Line(kInfo, "start", "SHUTDOWN : " + fd), Closed(kSocketType + " : " + fd)));
  // The first one is none the worse for it.
  ASSERT_TRUE(first->SendHeader(Method::kGetPyxState));
  EXPECT_TRUE(first->Receive(ipc::StatePackage::kSize));
}

TEST_F(AServiceThatRuns, WaitsAHundredMillisecondsBeforeItShutsASecondClient) {
  const auto first = MakeStuckClient(Stuck::kSilent);
  const auto begin = steady_clock::now();
  RawClient second;
  EXPECT_TRUE(second.EndsWithoutAnswer());
  EXPECT_GE(steady_clock::now() - begin, milliseconds(100));
}

TEST_F(AServiceThatRuns, WaitsAHundredMillisecondsMoreForOneThatComesWithinThoseOfTheHandOver) {
  const auto begin = steady_clock::now();
  const auto first = MakeStuckClient(Stuck::kSilent);
  RawClient second;
  EXPECT_TRUE(second.EndsWithoutAnswer());
  EXPECT_GE(steady_clock::now() - begin, milliseconds(200));
}

TEST_F(AServiceThatRuns, WaitsNoLongerThanThatForOneThatComesLater) {
  const auto first = MakeStuckClient(Stuck::kSilent);
  auto shortest = steady_clock::duration::max();
  for (int turn = 0; turn < 5; ++turn) {
    // The time counts that has passed since the one before was refused.
    const auto last = steady_clock::now();
    ASSERT_TRUE(WaitUntil([&] { return steady_clock::now() - last > milliseconds(110); }));
    const auto begin = steady_clock::now();
    RawClient another;
    EXPECT_TRUE(another.EndsWithoutAnswer());
    shortest = std::min(shortest, steady_clock::now() - begin);
  }
  EXPECT_LT(shortest, milliseconds(190));
}

TEST_F(AServiceThatRuns, ServesASecondClientWhenTheFirstEndsInThatTime) {
  // The first one ends once the service, which has accepted the second, waits for that; a machine may be too busy for
  // it in 100 ms, once or twice.
  const auto secondIsServed = [this] {
    std::promise<void> end;
    std::atomic<int> accepted{0};
    std::atomic<bool> holds{true};
    const CallHook accepting(Call::kAccept4, [&](const CallArguments&) -> std::optional<long> {
      ++accepted;
      return std::nullopt;
    });
    const CallHook receiving(Call::kRecv, [&](const CallArguments& call) -> std::optional<long> {
      if (call.size == ipc::Header::kSize && holds.exchange(false)) end.get_future().wait();
      return std::nullopt;
    });
    RawClient first;
    RawClient second;
    const bool sent = first.SendHeader(kNoMethod) && second.SendHeader(Method::kGetPyxState);
    const bool waits = WaitUntil([&] { return accepted == 2 && OwnThreadsAreAsleep(2); });
    end.set_value();
    return sent && waits && second.Receive(ipc::StatePackage::kSize);
  };
  bool served = false;
  for (int attempt = 0; attempt < 10 && !served; ++attempt) served = secondIsServed();
  EXPECT_TRUE(served);
}

TEST_F(AServiceThatRuns, RefusesAClientWhileAnotherThanAConnectionHasTheToken) {
  {
    const std::lock_guard token(serviceMutex);
    RawClient client;
    EXPECT_TRUE(client.EndsWithoutAnswer());
    EXPECT_EQ(Refusals(), 1);
  }
  EXPECT_TRUE(IsAnswered());
}

TEST_F(AServiceThatRuns, RefusesAClientThatComesTogetherWithAStop) {
  for (int turn = 0; turn < 20; ++turn) {
    if (turn > 0) Start();
    std::atomic<bool> accepted{false};
    const CallHook hook(Call::kAccept4, [&](const CallArguments&) -> std::optional<long> {
      accepted = true;
      return std::nullopt;
    });
    std::future<void> stopping;
    std::unique_ptr<RawClient> client;
    {
      // Both come as far as this lock: the stop with its first step, the service before it takes the token.
      const std::lock_guard guard(serviceMutex.inner());
      stopping = std::async(std::launch::async, [this] { service->stop(); });
      ASSERT_TRUE(WaitUntil([this] { return OwnThreadsAreAsleep(2); }));
      client = std::make_unique<RawClient>();
      EXPECT_TRUE(client->SendHeader(Method::kGetPyxState));
      ASSERT_TRUE(WaitUntil([&] { return accepted && OwnThreadsAreAsleep(2); }));
    }
    EXPECT_TRUE(client->EndsWithoutAnswer());
    stopping.get();
    runner.join();
    EXPECT_TRUE(TokenIsFree());
  }
}

TEST_F(AServiceThatRuns, WaitsForTheFirstToEndHoweverOftenItIsWoken) {
  const auto first = MakeStuckClient(Stuck::kSilent);
  const NeedlessWakeUps waking;
  const auto begin = steady_clock::now();
  RawClient second;
  EXPECT_TRUE(second.EndsWithoutAnswer());
  EXPECT_GE(steady_clock::now() - begin, milliseconds(100));
}

TEST_F(AServiceThatRuns, LooksWhetherTheFirstHasEndedUnderTheLockThatItEndsUnder) {
  // Without that, the end could come between the look and the wait for it, and go unnoticed.
  auto first = MakeStuckClient(Stuck::kSilent);
  RawClient second;
  {
    const std::lock_guard guard(serviceMutex.inner());
    EXPECT_FALSE(second.EndsWithoutAnswer(milliseconds(300)));
  }
  EXPECT_TRUE(second.EndsWithoutAnswer());
}

TEST_F(AServiceThatRuns, AnswersClientsOneAfterTheOtherAtFullSpeed) {
  constexpr int kClients = 2000;
  int refusedAtOnce = 0;
  int stalled = 0;
  ASSERT_TRUE(IsAnswered());
  for (int client = 0; client < kClients; ++client) {
    const auto begin = steady_clock::now();
    const bool answered = IsAnsweredAtOnce();
    // A machine that is busy may hold the connection before it up for so long, and rightly have the next one refused.
    const bool patient = steady_clock::now() - begin >= milliseconds(100);
    if (patient) ++stalled;
    if (!answered && !patient) ++refusedAtOnce;
  }
  EXPECT_EQ(refusedAtOnce, 0);
  EXPECT_LE(Refusals(), stalled);
  // A missed notification would stall every one of them; a busy machine stalls some.
  EXPECT_LT(stalled, kClients / 100);
}

TEST_F(AServiceThatRuns, HasOneConnectionThreadAtATime) {
  // The service's side of a connection receives a header, and that is held for a moment.
  std::atomic<int> now{0};
  std::atomic<int> most{0};
  const CallHook hook(Call::kRecv, [&](const CallArguments& call) -> std::optional<long> {
    if (call.size != ipc::Header::kSize) return std::nullopt;
    if (++now > most) most = now.load();
    WaitUntil([&] { return now > 1; }, milliseconds(5));
    --now;
    return std::nullopt;
  });
  std::vector<std::thread> clients;
  for (int client = 0; client < 4; ++client) {
    clients.emplace_back([] {
      for (int request = 0; request < 10; ++request) EXPECT_TRUE(IsAnswered());
    });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(most, 1);
}

// What goes wrong on the way

TEST_F(AServiceThatRuns, ClosesTheClientWhenNoThreadIsToBeHadAndServesTheNext) {
  const auto descriptors = Descriptors();
  {
    const CallHook hook(Call::kPthreadCreate, Fail(EAGAIN, 1));
    RawClient client;
    EXPECT_TRUE(client.EndsWithoutAnswer());
    EXPECT_TRUE(WaitUntil([] { return TokenIsFree() && !serviceBusy; }));
  }
  EXPECT_TRUE(LogRecorder::WaitFor(Text(EAGAIN)));
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Line(kWarning, "start", Text(EAGAIN))));
  EXPECT_EQ(Descriptors(), descriptors);
  EXPECT_TRUE(IsAnswered());
  EXPECT_EQ(Refusals(), 0);
}

class AWantOf : public AServiceThatRuns, public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(Something, AWantOf, testing::Values(EMFILE, ENFILE, ENOBUFS, ENOMEM),
                         [](const auto& each) { return strerrorname_np(each.param); });

/// Makes the first three of a call fail, and keeps when each was tried.
class ThreeFailures {
 public:
  ThreeFailures(Call call, int number) : error(number), hook(call, [this](const CallArguments&) { return Try(); }) {}

  /// Whether the service waited before it tried again, after each failure.
  void ExpectPauses() {
    const std::lock_guard guard(mutex);
    ASSERT_GE(tries.size(), 4U);
    for (size_t next = 1; next < 4; ++next) {
      EXPECT_GE(tries[next] - tries[next - 1], milliseconds(100)) << next;
    }
  }

 private:
  std::optional<long> Try() {
    const std::lock_guard guard(mutex);
    tries.push_back(steady_clock::now());
    if (tries.size() > 3) return std::nullopt;
    errno = error;
    return -1;
  }

  const int error;
  std::mutex mutex;
  std::vector<steady_clock::time_point> tries;
  CallHook hook;
};

TEST_P(AWantOf, MakesTheServiceWaitAHundredMillisecondsForTheNextTry) {
  ThreeFailures failures(Call::kAccept4, GetParam());
  const NeedlessWakeUps waking;
  EXPECT_TRUE(IsAnswered());
  failures.ExpectPauses();
}

TEST_F(AService, WaitsAHundredMillisecondsWhenItsWaitFails) {
  ThreeFailures failures(Call::kSelect, ENOMEM);
  Start();
  EXPECT_TRUE(IsAnswered());
  failures.ExpectPauses();
  EXPECT_EQ(UnknownCases(), 0);
}

TEST_F(AService, SaysNothingOfAWaitThatFoundNothing) {
  std::atomic<int> waits{0};
  const CallHook hook(Call::kSelect, [&](const CallArguments&) -> std::optional<long> {
    return ++waits <= 3 ? std::optional<long>(0) : std::nullopt;
  });
  Start();
  EXPECT_TRUE(IsAnswered());
  EXPECT_GT(waits, 3);
  EXPECT_EQ(UnknownCases(), 0);
}

TEST_P(AWantOf, KeepsNoClientWaitingWhenTheServiceEnds) {
  {
    const CallHook hook(Call::kAccept4, Fail(GetParam()));
    RawClient clients[3];
    Stop();
    for (RawClient& client : clients) EXPECT_TRUE(client.EndsWithoutAnswer());
  }
  Start();
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(kListening, kStarted));
  EXPECT_TRUE(IsAnswered());
}

TEST_P(AWantOf, DoesNotHoldUpAStop) {
  std::atomic<int> tries{0};
  const CallHook hook(Call::kAccept4, [&](const CallArguments&) -> std::optional<long> {
    ++tries;
    errno = GetParam();
    return -1;
  });
  auto shortest = steady_clock::duration::max();
  for (int turn = 0; turn < 20; ++turn) {
    if (turn > 0) Start();
    RawClient client;
    const int before = tries;
    ASSERT_TRUE(WaitUntil([&] { return tries > before; }));
    const auto begin = steady_clock::now();
    Stop();
    shortest = std::min(shortest, steady_clock::now() - begin);
  }
  // The next try would have been a hundred milliseconds after the last one.
  EXPECT_LT(shortest, milliseconds(90));
}

TEST_F(AServiceThatRuns, TriesAgainAtOnceWhenNobodyWasThereAnyMore) {
  for (const int error : {EAGAIN, ECONNABORTED, EINTR}) {
    SCOPED_TRACE(strerrorname_np(error));
    auto shortest = steady_clock::duration::max();
    for (int turn = 0; turn < 20; ++turn) {
      const CallHook hook(Call::kAccept4, Fail(error, 2));
      const auto begin = steady_clock::now();
      EXPECT_TRUE(IsAnswered());
      shortest = std::min(shortest, steady_clock::now() - begin);
    }
    // It waits a hundred milliseconds before a try that would fail likewise.
    EXPECT_LT(shortest, milliseconds(100));
  }
}

TEST_F(AService, GoesOnWhenItsWaitEndsForNothing) {
  std::atomic<int> waits{0};
  const CallHook hook(Call::kSelect, [&](const CallArguments&) -> std::optional<long> {
    errno = EINTR;
    switch (++waits) {
      case 1:
        return -1;
      case 2:
        return 0;
      default:
        return std::nullopt;
    }
  });
  Start();
  EXPECT_TRUE(WaitUntil([&] { return waits == 3; }));
  EXPECT_TRUE(IsAnswered());
}

TEST_F(AService, WarnsOfAWaitThatEndsForAnotherDescriptor) {
  std::atomic<bool> first{true};
  const CallHook hook(Call::kSelect, [&](const CallArguments& call) -> std::optional<long> {
    if (!first.exchange(false)) return std::nullopt;
    FD_ZERO(static_cast<fd_set*>(call.data));
    return 1;
  });
  Start();
  ASSERT_TRUE(WaitUntil([] { return LogRecorder::Lines().size() == 3; }));
  const auto lines = LogRecorder::Lines();
  const std::string listener = lines[0].message.substr(lines[0].message.rfind(' ') + 1);
  EXPECT_THAT(lines, ElementsAre(kListening, kStarted,
                                 Line(kWarning, "accept",
                                      MatchesRegex("unknown case! socket : " + listener + " : 0x[0-9a-f]+"))));
  EXPECT_TRUE(IsAnswered());
}

class APassThatThrows : public AService, public testing::WithParamInterface<Call> {};
INSTANTIATE_TEST_SUITE_P(At, APassThatThrows, testing::Values(Call::kSelect, Call::kAccept4),
                         [](const auto& each) { return each.param == Call::kSelect ? "TheWait" : "TheClient"; });

TEST_P(APassThatThrows, IsWarnedOfAndFollowedByTheNext) {
  std::atomic<bool> first{true};
  const CallHook hook(GetParam(), [&](const CallArguments&) -> std::optional<long> {
    if (first.exchange(false)) throw std::runtime_error("no luck");
    return std::nullopt;
  });
  Start();
  EXPECT_TRUE(IsAnswered());
  EXPECT_THAT(LogRecorder::Lines(), testing::Contains(Line(kWarning, "start", "no luck")));
}

TEST_F(AService, ListensWithAnotherDescriptorThan0) {
  close(0);
  Start();
  EXPECT_EQ(fcntl(0, F_GETFD), -1);
  EXPECT_TRUE(IsAnswered());
}

TEST_F(AServiceThatRuns, NeitherLeaksNorServesDescriptor0) {
  {
    const CallHook hook(Call::kAccept4, [](const CallArguments&) -> std::optional<long> {
      close(0);
      return std::nullopt;
    });
    RawClient client;
    EXPECT_TRUE(client.EndsWithoutAnswer());
  }
  EXPECT_EQ(fcntl(0, F_GETFD), -1);
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
  EXPECT_TRUE(IsAnswered());
  // Nor was it handed to anybody who would have found it no descriptor.
  EXPECT_EQ(LogRecorder::Count("socketFD : 0 " + Text(0)), 0);
  const auto lines = LogRecorder::Lines();
  EXPECT_TRUE(std::none_of(lines.begin(), lines.end(), [](const LogEntry& line) {
    return line.message.starts_with("socketFD : 0 ") || line.message.starts_with("SHUTDOWN : ");
  }));
}

TEST_F(AServiceThatRuns, ServesAClientOfDescriptor1) {
  const OutputDescriptor output;
  const CallHook hook(Call::kAccept4, [](const CallArguments&) -> std::optional<long> {
    OutputDescriptor::Free();
    return std::nullopt;
  });
  EXPECT_TRUE(IsAnsweredAtOnce());
  EXPECT_TRUE(LogRecorder::WaitFor(kSocketType + " : 1"));
}

// Many descriptors

TEST_F(AService, HasNoTimerAbove1023Either) {
  ASSERT_TRUE(OccupyDescriptorsBelow(1024));
  std::atomic<int> waits{0};
  std::atomic<int> timed{0};
  // The test's own waits are for one descriptor, too, but have a time-out.
  const CallHook hook(Call::kPoll, [&](const CallArguments& call) -> std::optional<long> {
    ++(call.time ? timed : waits);
    return std::nullopt;
  });
  Start();
  EXPECT_TRUE(IsAnswered());
  EXPECT_TRUE(WaitUntil([&] { return waits == 2; }));
  const int before = timed;
  const auto client = MakeStuckClient(Stuck::kSilent);
  EXPECT_TRUE(WaitUntil([&] { return waits == 3; }));
  Stop();
  EXPECT_EQ(timed, before);
  EXPECT_EQ(UnknownCases(), 0);
}

TEST_F(AService, ServesWithDescriptorsAbove1023) {
  service.reset();
  ASSERT_TRUE(OccupyDescriptorsBelow(1030));
  service = std::make_unique<Service>();
  std::atomic<int> selects{0};
  const CallHook hook(Call::kSelect, [&](const CallArguments&) -> std::optional<long> {
    ++selects;
    return std::nullopt;
  });
  Start();
  EXPECT_TRUE(IsAnswered());
  const auto first = MakeStuckClient(Stuck::kSilent);
  EXPECT_GT(first->descriptor(), 1023);
  RawClient second;
  EXPECT_TRUE(second.EndsWithoutAnswer());
  Stop();
  EXPECT_EQ(selects, 0);
}

/// Counts how often the service waits by select.
class AServiceOfManyDescriptors : public AService {
 protected:
  std::atomic<int> selects{0};
  CallHook hook{Call::kSelect, [this](const CallArguments&) -> std::optional<long> {
                  ++selects;
                  return std::nullopt;
                }};
};

TEST_F(AServiceOfManyDescriptors, ServesWhenOnlyItsListenerIsAbove1023) {
  ASSERT_TRUE(OccupyDescriptorsBelow(1023));
  Start();
  EXPECT_EQ(LogRecorder::Count("listening socket : 1024"), 1);
  EXPECT_TRUE(IsAnswered());
  EXPECT_TRUE(IsAnswered());
  EXPECT_EQ(selects, 0);
}

TEST_F(AServiceOfManyDescriptors, WaitsBySelectBelow1024) {
  Start();
  EXPECT_TRUE(IsAnswered());
  EXPECT_GT(selects, 0);
}

// A client's own name

TEST_F(AServiceThatRuns, LeavesAloneTheFileOfAClientWithAName) {
  const std::string name = "/tmp/client.socket";
  {
    ipc::Socket client(ConnectFrom(name));
    ipc::Header header;
    header.method = static_cast<std::int32_t>(Method::kGetPyxState);
    const auto bytes = ipc::Encode(header);
    ASSERT_EQ(client.sendValue(static_cast<unsigned>(bytes.size()), bytes.data()), 0);
    ipc::PackageBytes<ipc::StatePackage> answer;
    EXPECT_EQ(client.receiveData(static_cast<unsigned>(answer.size()), answer.data()), 0);
  }
  EXPECT_TRUE(IsAnswered());
  Stop();
  Start();
  EXPECT_TRUE(IsAnswered());
  Stop();
  service.reset();
  EXPECT_TRUE(FileExists(name));
  EXPECT_FALSE(FileExists(kSocketFile));
}

// The end of the loop

class AServiceWithABacklog : public AServiceThatRuns {
 protected:
  /// Three clients come that are not accepted before the service is stopped.
  /// @param whenItIsShut  what happens then, before they are.
  void StopWithClientsInTheBacklog(const std::function<void()>& whenItIsShut) {
    std::once_flag first;
    std::atomic<bool> shut{false};
    const CallHook shutting(Call::kShutdown, [&](const CallArguments&) -> std::optional<long> {
      // The stop and the end of the loop both shut it; nobody is accepted before that is done.
      std::call_once(first, [&] {
        whenItIsShut();
        shut = true;
      });
      // An accept that succeeds leaves the error of an earlier call.
      errno = EAGAIN;
      return std::nullopt;
    });
    const CallHook accepting(Call::kAccept4, [&](const CallArguments&) -> std::optional<long> {
      if (shut) return std::nullopt;
      errno = EMFILE;
      return -1;
    });
    RawClient clients[3];
    Stop();
    for (RawClient& client : clients) EXPECT_TRUE(client.EndsWithoutAnswer());
  }
};

TEST_F(AServiceWithABacklog, RefusesItsClientsWhenItEnds) {
  StopWithClientsInTheBacklog([] {});
  const auto refusal = Line(kInfo, "start", MatchesRegex("SHUTDOWN : [0-9]+"));
  const auto closing = Closed(MatchesRegex(kSocketType + " : [0-9]+"));
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(refusal, closing, refusal, closing, refusal, closing, kStopped));
}

TEST_F(AServiceWithABacklog, EndsItsClientsAlsoWhereDescriptor0IsFree) {
  StopWithClientsInTheBacklog([] { close(0); });
  EXPECT_EQ(fcntl(0, F_GETFD), -1);
  EXPECT_EQ(Refusals(), 0) << "each of them was 0, and is closed";
}

TEST_F(AServiceWithABacklog, RefusesAClientOfDescriptor1) {
  const OutputDescriptor output;
  StopWithClientsInTheBacklog(OutputDescriptor::Free);
  // The next one gets it, too.
  EXPECT_EQ(LogRecorder::Count("SHUTDOWN : 1"), 3);
}

TEST_F(AServiceThatRuns, KeepsItsSocketFileUntilItsEnd) {
  Stop();
  EXPECT_TRUE(FileExists(kSocketFile));
}

TEST_F(AServiceThatRuns, JoinsItsLastConnectionBeforeItSaysThatItStopped) {
  ASSERT_TRUE(IsAnswered());
  LogRecorder::Clear();
  auto client = MakeStuckClient(Stuck::kInTheMiddleOfAString);
  Stop();
  const auto lines = LogRecorder::Lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_THAT(lines.back(), kStopped);
  EXPECT_THAT(lines, testing::Contains(Closed(MatchesRegex(kSocketType + " : [0-9]+"))));
}

// Threads

TEST_F(AServiceThatRuns, BlocksTheHostsSignalsInItsThreads) {
  const auto client = MakeStuckClient(Stuck::kSilent);
  int blocking = 0;
  for (const int thread : ThreadIds()) {
    if (others.contains(thread)) continue;
    const std::uint64_t blocked = BlockedSignals(thread);
    bool all = true;
    for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGUSR2, SIGALRM, SIGCHLD, SIGPIPE}) {
      all = all && (blocked >> (signal - 1) & 1) != 0;
    }
    if (all) ++blocking;
  }
  // The one that accepts and the one that serves.
  EXPECT_EQ(blocking, 2);
  EXPECT_EQ(BlockedSignals(getpid()) >> (SIGTERM - 1) & 1, 0U);
}

// Time

/// A client that keeps the service waiting, while another one tries to be served.
class AClientThatStays : public AService, public testing::WithParamInterface<Stuck> {};
INSTANTIATE_TEST_SUITE_P(All, AClientThatStays,
                         testing::Values(Stuck::kSilent, Stuck::kInTheMiddleOfAString, Stuck::kNotReadingItsReply),
                         [](const auto& each) {
                           switch (each.param) {
                             case Stuck::kSilent:
                               return "Silent";
                             case Stuck::kInTheMiddleOfAString:
                               return "SendingAByteNowAndThen";
                             default:
                               return "NotReadingItsReply";
                           }
                         });

TEST_P(AClientThatStays, IsCutOffForAnotherAfterThirtySeconds) {
  StoreHugeLog();
  Start();
  const auto begin = steady_clock::now();
  const auto client = MakeStuckClient(GetParam());
  const auto anotherIsServed = [&] {
    if (GetParam() == Stuck::kInTheMiddleOfAString) client->Send("x", 1);
    return IsAnsweredAtOnce();
  };
  EXPECT_TRUE(WaitUntil(anotherIsServed, seconds(60)));
  const auto taken = steady_clock::now() - begin;
  EXPECT_GE(taken, seconds(30));
  EXPECT_LT(taken, seconds(35));
  pollfd ended{client->descriptor(), POLLRDHUP, 0};
  EXPECT_EQ(poll(&ended, 1, 10'000), 1);
}

TEST_F(AServiceThatRuns, KeepsALoneClientThatIsSilent) {
  const auto client = MakeStuckClient(Stuck::kSilent);
  EXPECT_FALSE(client->EndsWithoutAnswer(seconds(32)));
  ASSERT_TRUE(client->SendHeader(Method::kGetPyxState));
  EXPECT_TRUE(client->Receive(ipc::StatePackage::kSize));
}

/// A request whose work the test holds up.
class AWholeRequest : public AServiceThatRuns, public testing::WithParamInterface<int> {
 protected:
  static bool SendTo(RawClient& client) {
    const auto method = static_cast<Method>(GetParam());
    if (!client.SendHeader(method)) return false;
    switch (method) {
      case Method::kLogThreatUrl:
        return client.SendString("url") && client.SendString("threat");
      case Method::kGetLog:
      case Method::kGetLogReverse:
        return client.SendPackage(ipc::LogPackage());
      case Method::kCountRecords:
        return client.SendPackage(ipc::FramePackage());
      default:
        return true;
    }
  }
};
INSTANTIATE_TEST_SUITE_P(OfMethod, AWholeRequest, testing::Values(4, 5, 6, 16, 17, 18, 19, 20),
                         [](const auto& each) { return std::to_string(each.param); });

TEST_P(AWholeRequest, HasNoDeadlineWhileTheServiceWorksOnIt) {
  State& state = State::Instance();
  RawClient client;
  std::unique_lock busy(state.Mutex());
  ASSERT_TRUE(SendTo(client));
  // All of it is here, and the thread waits for the state.
  ASSERT_TRUE(WaitUntil([] {
    const auto lines = LogRecorder::Lines();
    return std::any_of(lines.begin(), lines.end(), [](const LogEntry& line) { return line.function == "serve"; });
  }));
  ASSERT_TRUE(WaitUntilTaken(client) && WaitUntil([this] { return OwnThreadsAreAsleep(2); }));
  EXPECT_FALSE(IsCutAtTheEndOfTime(*service));
  busy.unlock();
  EXPECT_TRUE(client.IsAnswered());
}

TEST_F(AService, IsNotHeldUpByAClientThatDoesNotTakeTheStatus) {
  PrepareDevice(R"({"config":{"max_index":2000,"max_file_size":10,"max_logging_period":3600},)"
                R"("state":{"count":0,"last_index":-1,"kept":")" +
                std::string(3'000'000, 'k') + R"("}})");
  Start();
  RawClient client;
  ASSERT_TRUE(client.SendHeader(Method::kGetLogStatus));
  ASSERT_TRUE(WaitUntilReadable(client));
  auto stopping = std::async(std::launch::async, [this] { service->stop(); });
  EXPECT_EQ(stopping.wait_for(seconds(20)), std::future_status::ready);
  client.Close();
}

/// Looks at how the accept loop waits.
class AWaitingService : public AService {
 protected:
  std::atomic<int> waits{0};
  std::atomic<int> timed{0};
  CallHook hook{Call::kSelect, [this](const CallArguments& call) -> std::optional<long> {
                  ++(call.time ? timed : waits);
                  return std::nullopt;
                }};
};

TEST_F(AWaitingService, HasNoTimer) {
  Start();
  EXPECT_TRUE(WaitUntil([this] { return waits == 1; }));
  ASSERT_TRUE(IsAnswered());
  EXPECT_TRUE(WaitUntil([this] { return waits == 2; }));
  const auto client = MakeStuckClient(Stuck::kSilent);
  EXPECT_TRUE(WaitUntil([this] { return waits == 3; }));
  Stop();
  EXPECT_EQ(timed, 0);
}

TEST_F(AWaitingService, IsNotWokenByTheEndOfAConnectionThatNobodyWaitsFor) {
  Start();
  ASSERT_TRUE(WaitUntil([this] { return waits == 1 && OwnThreadsAreAsleep(1); }));
  const auto own = ThreadIds();
  std::vector<int> loop;
  std::set_difference(own.begin(), own.end(), others.begin(), others.end(), std::back_inserter(loop));
  ASSERT_EQ(loop.size(), 1U);
  const auto client = MakeStuckClient(Stuck::kSilent);
  ASSERT_TRUE(WaitUntil([this] { return waits == 2 && OwnThreadsAreAsleep(2); }));
  const auto before = SleepsOf(loop[0]);
  client->Close();
  ASSERT_TRUE(WaitUntil([this] { return TokenIsFree() && OwnThreadsAreAsleep(1); }));
  EXPECT_EQ(SleepsOf(loop[0]), before);
}

}  // namespace
}  // namespace zav::test
