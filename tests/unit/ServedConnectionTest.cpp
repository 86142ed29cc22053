#include "ipc/service/ServedConnection.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "support/LogRecorder.h"
#include "support/WaitUntil.h"

namespace zav::test {
namespace {

using ipc::ServedConnection;
using std::chrono::milliseconds;
using std::chrono::seconds;

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
  bool IsAwake() {
    pollfd readable{connection.wakeUp().descriptor(), POLLIN, 0};
    return poll(&readable, 1, 0) == 1;
  }

  int service = -1;
  int client = -1;
  ServedConnection connection;
};

TEST_F(AServedConnection, NeedsNoLookWhileThereIsNone) {
  EXPECT_EQ(connection.watch(), std::nullopt);
  connection.enter(service);
  connection.leave();
  EXPECT_EQ(connection.watch(), std::nullopt);
}

// A clock that is set must move no deadline.
static_assert(ServedConnection::Clock::is_steady);

TEST_F(AServedConnection, HasThirtySecondsForItsRequest) {
  connection.enter(service);
  auto left = connection.watch();
  ASSERT_TRUE(left);
  EXPECT_LE(*left, seconds(30));
  EXPECT_GT(*left, seconds(10));
  EXPECT_LT(*connection.watch(), *left);
}

TEST_F(AServedConnection, IsNotCutOffBeforeItsTimeIsUp) {
  connection.enter(service);
  connection.cutOverdue();
  EXPECT_TRUE(ServiceWaits());
  EXPECT_TRUE(ServiceCanSend());
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

TEST_F(AServedConnection, NeedsNoLookForThirtySecondsWhileTheServiceWorks) {
  connection.enter(service);
  connection.requestReceived();
  EXPECT_EQ(connection.watch(), seconds(30));
}

TEST_F(AServedConnection, IsNotCutOffByAStopWhileTheServiceWorks) {
  connection.enter(service);
  connection.requestReceived();
  connection.stop();
  connection.cutOverdue();
  EXPECT_TRUE(ServiceWaits());
  EXPECT_TRUE(ServiceCanSend());
}

/// Whether the reply was under way when the stop came.
class AReplyThatIsNotTaken : public AServedConnection, public testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(Stop, AReplyThatIsNotTaken, testing::Bool(),
                         [](const auto& each) { return each.param ? "AfterItBegan" : "BeforeItBegan"; });

TEST_P(AReplyThatIsNotTaken, IsCutOffWithinTheSecondOfAStop) {
  connection.enter(service);
  connection.requestReceived();
  if (GetParam()) connection.replyStarts();
  connection.stop();
  if (!GetParam()) connection.replyStarts();
  EXPECT_LT(*connection.watch(), seconds(1));
  EXPECT_TRUE(ServiceCanSend());
  EXPECT_TRUE(WaitUntil([&] {
    connection.cutOverdue();
    return send(service, "r", 1, MSG_NOSIGNAL) == -1 && errno == EPIPE;
  }));
}

TEST_P(AReplyThatIsNotTaken, HasHalfASecondFromWhenBothAStopAndItHaveCome) {
  connection.enter(service);
  connection.requestReceived();
  if (GetParam()) {
    connection.replyStarts();
  } else {
    connection.stop();
  }
  const auto before = ServedConnection::Clock::now();
  if (GetParam()) {
    connection.stop();
  } else {
    connection.replyStarts();
  }
  const auto left = *connection.watch();
  EXPECT_LE(left, milliseconds(500));
  EXPECT_GE(ServedConnection::Clock::now() + left, before + milliseconds(500));
}

TEST_F(AServedConnection, HasTheTimeOfItsReplyOnceHoweverManyPartsItHas) {
  connection.enter(service);
  connection.requestReceived();
  connection.replyStarts();
  const auto left = connection.watch();
  ASSERT_TRUE(left);
  connection.replyStarts();
  EXPECT_LT(*connection.watch(), *left);
}

TEST_F(AServedConnection, HasThirtySecondsForItsReplyHoweverLongItsRequestTook) {
  connection.enter(service);
  ASSERT_TRUE(WaitUntil([&] { return *connection.watch() < seconds(30) - milliseconds(50); }));
  connection.requestReceived();
  const auto before = ServedConnection::Clock::now();
  connection.replyStarts();
  const auto left = *connection.watch();
  EXPECT_GE(ServedConnection::Clock::now() + left, before + seconds(30));
}

TEST_F(AServedConnection, IsWaitedForAgainAfterAStopWasTakenBack) {
  connection.stop();
  connection.resume();
  connection.enter(service);
  EXPECT_TRUE(ServiceWaits());
}

TEST_F(AServedConnection, IsNeverShutAfterItsEnd) {
  // The number may be another one's descriptor by then.
  connection.enter(service);
  connection.leave();
  connection.stop();
  connection.cutOverdue();
  EXPECT_TRUE(ServiceWaits());
  EXPECT_TRUE(ServiceCanSend());
}

TEST_F(AServedConnection, WakesWhoWaitsWithATimeOutAtItsEnd) {
  connection.enter(service);
  ASSERT_TRUE(connection.watch());
  EXPECT_FALSE(IsAwake());
  connection.leave();
  EXPECT_TRUE(IsAwake());
}

TEST_F(AServedConnection, WakesNobodyWhoDoesNotWaitForIt) {
  EXPECT_EQ(connection.watch(), std::nullopt);
  connection.enter(service);
  connection.leave();
  EXPECT_FALSE(IsAwake());
  connection.leave();
  EXPECT_FALSE(IsAwake());
}

}  // namespace
}  // namespace zav::test
