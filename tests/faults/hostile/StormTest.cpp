#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "APlugin.h"
#include "PassingClient.h"
#include "Requests.h"
#include "support/WaitUntil.h"

namespace zav::test {
namespace {

/// Clients that each send the beginning of some request, wait a moment for an answer or not, and go; while it lives.
class Storm {
 public:
  explicit Storm(std::mt19937::result_type seed) {
    for (unsigned i = 0; i < 3; ++i) threads.emplace_back([this, seed, i] { Rage(seed + i); });
  }
  ~Storm() {
    over = true;
    for (auto& thread : threads) thread.join();
  }
  Storm(const Storm&) = delete;
  Storm& operator=(const Storm&) = delete;

  int Visits() const { return visits; }

 private:
  void Rage(std::mt19937::result_type seed) {
    std::mt19937 random(seed);
    const auto requests = AllRequests();
    while (!over) {
      Visit(requests[random() % requests.size()].bytes, random);
    }
  }

  void Visit(const std::string& bytes, std::mt19937& random) {
    const PassingClient client;
    if (!client.IsConnected()) return std::this_thread::yield();
    ++visits;
    const size_t size = random() % 2 == 0 ? bytes.size() : random() % bytes.size();
    client.Send(bytes.substr(0, size));
    if (random() % 2 == 0) client.HalfClose();
    if (random() % 2 == 0) client.LookForAnswer(std::chrono::milliseconds(5));
  }

  std::atomic<bool> over{false};
  std::atomic<int> visits{0};
  std::vector<std::thread> threads;
};

class AStorm : public APlugin {
 protected:
  /// What an allocator keeps for threads and the like is there before it is counted.
  void WarmUp() {
    const Storm storm(random());
    for (int i = 0; i < 5; ++i) Commands();
    ASSERT_TRUE(AnHonestClientIsServed());
  }

  void Commands() {
    EXPECT_TRUE(Succeeds("GetStatus"));
    EXPECT_TRUE(Succeeds("UpdateConfig", R"({"Storage":{"config":{"max_file_size":20}}})"));
    EXPECT_TRUE(Succeeds("ResetLogStat"));
    EXPECT_EQ(Command("Nonsense"), "fail");
  }

  std::mt19937 random = CampaignRandom();
};

TEST_F(AStorm, LeavesNothingBehindAfterManyTimesOffAndOn) {
  WarmUp();
  ASSERT_TRUE(AnHonestClientIsServed());
  const Footprint before = AtRest();
  const int times = CampaignLength(300);
  {
    const Storm storm(random());
    for (int turn = 0; turn < times; ++turn) {
      Commands();
      SwitchOff();
      SwitchOn();
      ASSERT_TRUE(Tried(turn % 20 != 0 || AnHonestClientIsServed()));
    }
    ASSERT_TRUE(AnHonestClientIsServed());
    Note(std::to_string(storm.Visits()) + " visits");
  }
  ASSERT_TRUE(AnHonestClientIsServed());
  ExpectNoGrowthSince(before);
}

TEST_F(AStorm, LeavesNothingBehindAfterManyUnloads) {
  const auto unload = [this] {
    const Storm storm(random());
    Commands();
    ASSERT_TRUE(AnHonestClientIsServed());
    plugin->Unload();
    ASSERT_TRUE(Tried(!Library::IsMapped()));
  };
  for (int i = 0; i < 3; ++i, Load()) unload();
  unload();
  const Footprint before = AtRest();
  const int times = CampaignLength(30, 10);
  for (int turn = 0; turn < times; ++turn) {
    Load();
    unload();
  }
  ExpectNoGrowthSince(before);
}

}  // namespace
}  // namespace zav::test
