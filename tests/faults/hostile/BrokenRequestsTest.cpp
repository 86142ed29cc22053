#include <chrono>
#include <optional>

#include "APlugin.h"
#include "Requests.h"
#include "faults/surroundings/TestClock.h"
#include "ipc/service/ServedConnection.h"
#include "support/StoredState.h"

namespace zav::test {
namespace {

using ipc::Method;

constexpr std::uint32_t kLimit = ipc::kMaxStringSize;
constexpr std::uint32_t kTwoToThe31 = 1U << 31;
const std::uint32_t kOddLengths[] = {
    0, 1, kLimit - 1, kLimit, kLimit + 1, kTwoToThe31 - 1, kTwoToThe31, kTwoToThe31 + 1, 0xffffffffU};

/// An exchange; once more where nothing came, since a busy machine may refuse whoever comes right after another.
std::string ExchangeAgain(const std::string& bytes) {
  std::string answer = Exchange(bytes);
  if (answer.empty()) answer = Exchange(bytes);
  return answer;
}

std::string WithBitFlipped(std::string bytes, size_t bit) {
  bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ (1 << (bit % 8)));
  return bytes;
}

class ABrokenRequest : public APluginThatStaysAsItIs {
 protected:
  void ExpectAnswerTo(const std::string& bytes) {
    EXPECT_TRUE(Tried(IsAnswerTo(bytes, ExchangeAgain(bytes)))) << testing::PrintToString(bytes.substr(0, 100));
  }
};

/// Calls it with every request that is cut short somewhere, and with the whole one.
template <class Try>
void ForEveryPrefix(Try attempt) {
  for (const auto& [method, bytes] : AllRequests()) {
    for (size_t size = 0; size <= bytes.size(); ++size) {
      attempt(bytes.substr(0, size));
      if (testing::Test::HasFatalFailure()) return;
    }
  }
}

TEST_F(ABrokenRequest, ThatEndsAnywhereIsAnsweredByTheRules) {
  ForEveryPrefix([this](const std::string& bytes) { ExpectAnswerTo(bytes); });
}

TEST_F(ABrokenRequest, ThatIsLeftAnywhereHoldsNobodyUp) {
  ForEveryPrefix([this](const std::string& bytes) {
    RawClient client;
    client.Send(bytes.data(), bytes.size());
    client.Close();
    ASSERT_TRUE(Tried(AnHonestClientIsServed()));
  });
}

TEST_F(ABrokenRequest, ThatFallsSilentAnywhereHoldsNoStopUp) {
  ForEveryPrefix([this](const std::string& bytes) {
    RawClient client;
    client.Send(bytes.data(), bytes.size());
    ASSERT_TRUE(WaitUntilTaken(client));
    const auto start = std::chrono::steady_clock::now();
    SwitchOff();
    ASSERT_LT(std::chrono::steady_clock::now() - start, ipc::ServedConnection::kClientTime / 2);
    // What the service has not accepted by now is refused.
    const std::string answer = ReceiveAll(client);
    EXPECT_TRUE(Tried(answer.empty() || IsAnswerTo(bytes, answer))) << testing::PrintToString(bytes);
    SwitchOn();
  });
}

TEST_F(ABrokenRequest, ThatFallsSilentAnywhereHoldsAnHonestClientUpNoLongerThanItsTime) {
  TestClock clock(Now());
  ForEveryPrefix([&](const std::string& bytes) {
    // Nothing tells of one without a byte whether it is being served already.
    if (bytes.empty()) return;
    RawClient client;
    client.Send(bytes.data(), bytes.size());
    ASSERT_TRUE(WaitUntilTaken(client));
    clock.Pass(ipc::ServedConnection::kClientTime);
    ASSERT_TRUE(Tried(AnHonestClientIsServed()));
    const std::string answer = ReceiveAll(client);
    EXPECT_TRUE(answer.empty() || IsAnswerTo(bytes, answer)) << testing::PrintToString(bytes);
  });
}

TEST_F(ABrokenRequest, ThatIsCutInTwoAnywhereIsAnsweredByTheRules) {
  for (const auto& [method, bytes] : AllRequests()) {
    for (size_t first = 1; first < bytes.size(); ++first) {
      ASSERT_TRUE(AnHonestClientIsServed());
      RawClient client;
      client.Send(bytes.data(), first);
      ASSERT_TRUE(WaitUntilTaken(client));
      client.Send(bytes.data() + first, bytes.size() - first);
      client.HalfClose();
      const std::string answer = ReceiveAll(client);
      EXPECT_TRUE(Tried(IsAnswerTo(bytes, answer, first))) << testing::PrintToString(bytes) << " cut at " << first;
    }
  }
}

TEST_F(ABrokenRequest, WithAnyBitOfItsHeaderFlippedIsAnsweredByTheRules) {
  for (const auto& [method, bytes] : AllRequests()) {
    for (size_t bit = 0; bit < ipc::Header::kSize * 8; ++bit) ExpectAnswerTo(WithBitFlipped(bytes, bit));
  }
}

TEST_F(ABrokenRequest, WithAnyBitOfALengthFlippedIsAnsweredByTheRules) {
  const std::string report = ReportBytes("url", "threat");
  const size_t lengths[] = {ipc::Header::kSize, ipc::Header::kSize + 4 + 3};
  for (const size_t offset : lengths) {
    for (size_t bit = 0; bit < 32; ++bit) ExpectAnswerTo(WithBitFlipped(report, offset * 8 + bit));
  }
}

TEST_F(ABrokenRequest, WithAnyBitOfAPackageFlippedIsAnsweredByTheRules) {
  for (const auto& [method, bytes] : AllRequests()) {
    if (method == Method::kLogThreatUrl) continue;
    for (size_t bit = ipc::Header::kSize * 8; bit < bytes.size() * 8; ++bit) ExpectAnswerTo(WithBitFlipped(bytes, bit));
  }
}

TEST_F(ABrokenRequest, WithAnOddLengthAndNothingBehindItIsAnsweredByTheRules) {
  for (const std::uint32_t length : kOddLengths) {
    const std::string header = HeaderBytes(Method::kLogThreatUrl);
    ExpectAnswerTo(header + Length(length));
    ExpectAnswerTo(header + Length(length) + String("threat"));
    ExpectAnswerTo(header + String("url") + Length(length));
  }
}

TEST_F(ABrokenRequest, WithALongStringBehindItsLengthIsReceivedUpToTheLimit) {
  const std::string header = HeaderBytes(Method::kLogThreatUrl);
  const auto sendEach = [&] {
    for (const std::uint32_t length : {kLimit - 1, kLimit, kLimit + 1}) {
      // Without a url nothing is stored.
      const std::string bytes = header + String("") + String(std::string(length, 't'));
      RawClient client;
      // What is over the limit the service does not read.
      EXPECT_EQ(client.Send(bytes.data(), bytes.size()), length <= kLimit);
      client.HalfClose();
      EXPECT_TRUE(Tried(IsAnswerTo(bytes, ReceiveAll(client)))) << length;
      ASSERT_TRUE(AnHonestClientIsServed());
    }
  };
  // What malloc keeps of the first ones serves the others.
  sendEach();
  before = AtRest();
  for (int round = 0; round < 4; ++round) sendEach();
}

#ifndef ZAV_MEMORY_IS_THE_SANITIZERS

TEST_F(ABrokenRequest, ThatAnnouncesTheLongestStringCostsMemoryOnlyAsTheBytesCome) {
  const std::string start = HeaderBytes(Method::kLogThreatUrl) + Length(kLimit);
  const std::string some(1'000'000, 'u');
  // One after another: malloc has its ways with memory that was in use before.
  for (int client = 0; client < 6; ++client) {
    RawClient announcing;
    ASSERT_TRUE(announcing.Send(start.data(), start.size()));
    // Of the first piece, and so of each, the first bytes are taken when there is room for all.
    for (int piece = 0; piece <= client; ++piece) {
      ASSERT_TRUE(announcing.Send(some.data(), some.size()));
      ASSERT_TRUE(WaitUntilTaken(announcing));
      const long grown = Footprint::Now().anonymous - before.anonymous;
      EXPECT_TRUE(Tried(grown <= (client + 1) * 1000 + 1024))
          << grown << " KiB at " << piece + 1 << " MB of " << client;
    }
    announcing.Close();
    ASSERT_TRUE(AnHonestClientIsServed());
  }
  // They have left what they sent at most.
  before.anonymous += 6'000;
}

#endif

}  // namespace
}  // namespace zav::test
