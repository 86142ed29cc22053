#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "APlugin.h"
#include "Requests.h"

namespace zav::test {
namespace {

using std::chrono::steady_clock;

/// How long the service waits for one connection to end before it refuses the next one.
constexpr std::chrono::milliseconds kIdleWait{100};

/// One long run, memory and all the rest being the same at its first tenth and at its end.
class ASoak : public APlugin {
 protected:
  const std::string& AnyRequest(std::mt19937& generator) { return requests[generator() % requests.size()].bytes; }

  /// Makes requests so many at a time, and looks at the process at the first tenth and at the end.
  template <class Visit>
  void Soak(int clients, Visit visit) {
    const int count = CampaignLength(4000);
    const auto start = steady_clock::now();
    for (int done = 0; done < count; done += clients) {
      if (!before && done >= count / 10) before = AtRest();
      visit();
    }
    const std::chrono::duration<double> time = steady_clock::now() - start;
    Note(std::to_string(static_cast<int>(count / time.count())) + " a second");
    ASSERT_TRUE(AnHonestClientIsServed());
    ExpectNoGrowthSince(*before);
  }

  std::mt19937 random = CampaignRandom();
  const std::vector<Sample> requests = AllRequests();
  std::optional<Footprint> before;
};

TEST_F(ASoak, OfClientsThatComeAloneRefusesNone) {
  int late = 0;
  Soak(1, [&] {
    const std::string& bytes = AnyRequest(random);
    const auto start = steady_clock::now();
    std::string answer = Exchange(bytes);
    // The machine, not the service: it gave no time to the end of the connection before this one for so long.
    if (answer.empty() && steady_clock::now() - start >= kIdleWait) {
      ++late;
      answer = Exchange(bytes);
    }
    EXPECT_TRUE(Tried(IsAnswerTo(bytes, answer))) << testing::PrintToString(bytes);
  });
  Note(std::to_string(late) + " refused after the whole wait");
}

TEST_F(ASoak, OfClientsThatComeAtTheSameTimeAnswersEachOfThemInTheEnd) {
  constexpr int kClients = 4;
  const auto visit = [this](std::mt19937 own) {
    const std::string& bytes = AnyRequest(own);
    std::string answer;
    const auto end = steady_clock::now() + std::chrono::seconds(30);
    while (answer.empty() && steady_clock::now() < end) answer = Exchange(bytes);
    EXPECT_TRUE(Tried(IsAnswerTo(bytes, answer))) << testing::PrintToString(bytes);
  };
  Soak(kClients, [&] {
    std::vector<std::thread> clients;
    for (int i = 0; i < kClients; ++i) clients.emplace_back(visit, std::mt19937(random()));
    for (auto& client : clients) client.join();
  });
}

}  // namespace
}  // namespace zav::test
