#include "ipc/service/ServedConnection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

#include "support/LogRecorder.h"
#include "support/WaitUntil.h"

namespace zav::test {
namespace {

using ipc::ServedConnection;
using Clock = ServedConnection::Clock;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

constexpr auto kTheEndOfTime = Clock::time_point::max();

void AwaitTheNextInstant() {
  const auto now = Clock::now();
  while (Clock::now() == now) {
  }
}

/// A connection and, in place of the service's threads, both of its ends.
class AServedConnection : public testing::Test {
 protected:
  AServedConnection() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    service = ends[0];
    client = ends[1];
  }
  ~AServedConnection() override {
    close(service);
    close(client);
  }

  /// What the service's end reads: so many bytes, 0 at the end, or -1 when it would have to wait.
  ssize_t ServiceReads() {
    char bytes[16];
    return recv(service, bytes, sizeof(bytes), 0);
  }
  bool ServiceCanSend() { return send(service, "r", 1, MSG_NOSIGNAL) == 1; }
  bool ServiceWaits() { return ServiceReads() == -1 && errno == EAGAIN; }
  bool ServiceIsShut() { return send(service, "r", 1, MSG_NOSIGNAL) == -1 && errno == EPIPE; }

  void StartReply() {
    connection.enter(service);
    connection.requestReceived();
    connection.replyStarts();
  }

  int service = -1;
  int client = -1;
  ServedConnection connection;
};

// A clock that is set must move no deadline.
static_assert(Clock::is_steady);

TEST_F(AServedConnection, HasThirtySecondsForItsRequest) {
  const auto before = Clock::now();
  connection.enter(service);
  const auto after = Clock::now();
  connection.cutOverdue(before + seconds(30) - nanoseconds(1));
  EXPECT_TRUE(ServiceWaits());
  connection.cutOverdue(after + seconds(30));
  EXPECT_EQ(ServiceReads(), 0);
  EXPECT_TRUE(ServiceCanSend());
}

TEST_F(AServedConnection, KeepsWhatItSentBeforeItsTimeWasUp) {
  connection.enter(service);
  ASSERT_EQ(send(client, "whole", 5, 0), 5);
  connection.cutOverdue(kTheEndOfTime);
  EXPECT_EQ(ServiceReads(), 5);
  EXPECT_EQ(ServiceReads(), 0);
}

TEST_F(AServedConnection, IsCutOffByAStopWhileItsRequestIsWaitedFor) {
  connection.enter(service);
  connection.stop();
  EXPECT_EQ(ServiceReads(), 0);
}

TEST_F(AServedConnection, IsCutOffAtOnceWhenItComesAfterAStop) {
  connection.stop();
  connection.enter(service);
  EXPECT_EQ(ServiceReads(), 0);
}

TEST_F(AServedConnection, KeepsWhatItSentBeforeAStopAndGetsItsAnswer) {
  connection.enter(service);
  ASSERT_EQ(send(client, "whole", 5, 0), 5);
  connection.stop();
  EXPECT_EQ(ServiceReads(), 5);
  EXPECT_TRUE(ServiceCanSend());
}

/// Whether a stop came before.
class AServiceAtWork : public AServedConnection, public testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(Stop, AServiceAtWork, testing::Bool(),
                         [](const auto& each) { return each.param ? "Asked" : "NotAsked"; });

TEST_P(AServiceAtWork, MayTakeAsLongAsItTakes) {
  connection.enter(service);
  connection.requestReceived();
  if (GetParam()) connection.stop();
  connection.cutOverdue(kTheEndOfTime);
  EXPECT_TRUE(ServiceWaits());
  EXPECT_TRUE(ServiceCanSend());
}

TEST_F(AServedConnection, HasThirtySecondsForItsReplyHoweverLongItsRequestTook) {
  connection.enter(service);
  AwaitTheNextInstant();
  connection.requestReceived();
  const auto before = Clock::now();
  connection.replyStarts();
  const auto after = Clock::now();
  connection.cutOverdue(before + seconds(30) - nanoseconds(1));
  EXPECT_TRUE(ServiceCanSend());
  connection.cutOverdue(after + seconds(30));
  EXPECT_TRUE(ServiceIsShut());
  EXPECT_EQ(ServiceReads(), 0);
}

TEST_F(AServedConnection, HasTheTimeOfItsReplyOnceHoweverManyPartsItHas) {
  StartReply();
  const auto after = Clock::now();
  AwaitTheNextInstant();
  connection.replyStarts();
  connection.cutOverdue(after + seconds(30));
  EXPECT_TRUE(ServiceIsShut());
}

/// Whether the reply was under way when the stop came.
class AReplyThatIsNotTaken : public AServedConnection, public testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(Stop, AReplyThatIsNotTaken, testing::Bool(),
                         [](const auto& each) { return each.param ? "AfterItBegan" : "BeforeItBegan"; });

TEST_P(AReplyThatIsNotTaken, IsCutOffHalfASecondAfterBothAStopAndItHaveCome) {
  connection.enter(service);
  connection.requestReceived();
  const std::function<void()> reply = [this] { connection.replyStarts(); };
  const std::function<void()> stop = [this] { connection.stop(); };
  (GetParam() ? reply : stop)();
  AwaitTheNextInstant();
  const auto before = Clock::now();
  (GetParam() ? stop : reply)();
  const auto after = Clock::now();
  connection.cutOverdue(before + milliseconds(500) - nanoseconds(1));
  EXPECT_TRUE(ServiceCanSend());
  connection.cutOverdue(after + milliseconds(500));
  EXPECT_TRUE(ServiceIsShut());
}

TEST_F(AServedConnection, IsGivenNoMoreTimeByAStopThanItHad) {
  StartReply();
  connection.stop();
  const auto after = Clock::now();
  AwaitTheNextInstant();
  connection.stop();
  connection.cutOverdue(after + milliseconds(500));
  EXPECT_TRUE(ServiceIsShut());
}

TEST_F(AServedConnection, IsNeverShutAfterItsEnd) {
  // The number may be another one's descriptor by then.
  connection.enter(service);
  connection.leave();
  connection.stop();
  connection.cutOverdue(kTheEndOfTime);
  EXPECT_TRUE(ServiceWaits());
  EXPECT_TRUE(ServiceCanSend());
}

TEST_F(AServedConnection, IsWaitedForAgainAfterAStopWasTakenBack) {
  connection.stop();
  connection.resume();
  connection.enter(service);
  EXPECT_TRUE(ServiceWaits());
}

}  // namespace
}  // namespace zav::test
