#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "APlugin.h"
#include "PassingClient.h"
#include "Requests.h"
#include "faults/surroundings/TestClock.h"
#include "ipc/service/ServedConnection.h"
#include "support/StoredState.h"
#include "support/WaitUntil.h"

namespace zav::test {
namespace {

using ipc::ServedConnection;
using std::chrono::milliseconds;

bool HasEnded(const RawClient& client) {
  pollfd state{client.descriptor(), POLLRDHUP, 0};
  return poll(&state, 1, 0) == 1;
}

/// A client that is being served and keeps the service waiting; a busy machine may refuse one at first.
std::unique_ptr<RawClient> MakeServedStuckClient(Stuck how) {
  std::unique_ptr<RawClient> client;
  WaitUntil([&] {
    client = MakeStuckClient(how);
    return !HasEnded(*client);
  });
  return client;
}

/// Sends or takes one byte, as a client does that is not quite stuck.
void MoveAByte(RawClient& client, Stuck how) {
  char byte = 'b';
  if (how == Stuck::kInTheMiddleOfAString) client.Send(&byte, 1);
  if (how == Stuck::kNotReadingItsReply) recv(client.descriptor(), &byte, 1, MSG_DONTWAIT);
}

/// How a client stays to the end of its time.
struct Stay {
  const char* name;
  Stuck how;
  /// It moves a byte now and then.
  bool isSlow;
};

void PrintTo(const Stay& stay, std::ostream* out) {
  *out << stay.name;
}

/// One after another, each to the end of its time, which passes at once.
class ClientsThatStay : public APluginThatStaysAsItIs, public testing::WithParamInterface<Stay> {
 protected:
  ClientsThatStay() : APluginThatStaysAsItIs(StoreHugeLog) {}

  void StayToTheEnd(RawClient& client) {
    constexpr int kParts = 3;
    for (int part = 0; part < kParts; ++part) {
      ASSERT_FALSE(HasEnded(client));
      if (GetParam().isSlow) MoveAByte(client, GetParam().how);
      clock.Pass(ServedConnection::kClientTime / kParts);
    }
  }

  TestClock clock{Now()};
};

TEST_P(ClientsThatStay, AreEachFollowedByAnHonestOne) {
  for (int left = CampaignLength(10, 50); left > 0; --left) {
    const auto client = MakeServedStuckClient(GetParam().how);
    // Before every other one's time is up, somebody is refused.
    ASSERT_TRUE(left % 2 == 0 || RawClient().EndsWithoutAnswer());
    StayToTheEnd(*client);
    ASSERT_TRUE(Tried(AnHonestClientIsServed()));
    ASSERT_TRUE(WaitUntil([&] { return HasEnded(*client); }));
  }
}

constexpr Stay kStays[] = {{"Silent", Stuck::kSilent, false},
                           {"InTheMiddleOfAString", Stuck::kInTheMiddleOfAString, false},
                           {"InTheMiddleOfAStringWithAByteNowAndThen", Stuck::kInTheMiddleOfAString, true},
                           {"NotReadingTheReply", Stuck::kNotReadingItsReply, false},
                           {"ReadingAByteOfTheReplyNowAndThen", Stuck::kNotReadingItsReply, true}};

INSTANTIATE_TEST_SUITE_P(All, ClientsThatStay, testing::ValuesIn(kStays),
                         [](const auto& stay) { return std::string(stay.param.name); });

// In real time

/// Half a report, for more of which there is room.
const std::string kHalfAReport = HeaderBytes(ipc::Method::kLogThreatUrl) + Length(1000) + "half";

/// What clients send that keep the service waiting, if they are served: nothing, a part of a request, and a request
/// whose reply nobody takes.
const std::string kUnfinished[] = {"", kHalfAReport, HeaderBytes(ipc::Method::kCountRecords), GetLogBytes()};

class ACrowdThatStays : public APluginThatStaysAsItIs {
 protected:
  ACrowdThatStays() : APluginThatStaysAsItIs(StoreHugeLog) {}

  void Gather(size_t size) {
    while (crowd.size() < size) {
      auto client = std::make_unique<PassingClient>();
      if (!client->IsConnected()) continue;
      client->Send(kUnfinished[crowd.size() % std::size(kUnfinished)]);
      const std::lock_guard guard(mutex);
      crowd.push_back(std::move(client));
    }
  }

  /// A byte more of each of the clients that are in the middle of a string.
  void MoveBytes() {
    const std::lock_guard guard(mutex);
    for (size_t i = 1; i < crowd.size(); i += std::size(kUnfinished)) crowd[i]->Send("b");
  }

  std::mutex mutex;
  // Guarded by it where both may look at it.
  std::vector<std::unique_ptr<PassingClient>> crowd;
};

TEST_F(ACrowdThatStays, BehindASlowClientIsFollowedByAnHonestOneWithinTheTimeOfOne) {
  const auto slow = MakeServedStuckClient(Stuck::kInTheMiddleOfAString);
  const auto size = static_cast<size_t>(CampaignLength(40, 10));
  auto meanwhile = std::async(std::launch::async, [&] {
    Gather(size);
    return AnHonestClientIsServed();
  });
  int sent = 0;
  while (meanwhile.wait_for(milliseconds(200)) != std::future_status::ready) {
    sent += slow->Send("b", 1) ? 1 : 0;
    MoveBytes();
  }
  EXPECT_TRUE(Tried(meanwhile.get()));
  crowd.clear();
  EXPECT_GT(sent, 100);
  Note(std::to_string(size) + " at once, " + std::to_string(sent) + " bytes of the slow one");
}

}  // namespace
}  // namespace zav::test
