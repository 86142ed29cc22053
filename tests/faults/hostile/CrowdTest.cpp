#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <deque>
#include <filesystem>
#include <future>
#include <memory>
#include <thread>

#include "APlugin.h"
#include "PassingClient.h"
#include "Requests.h"
#include "support/WaitUntil.h"

namespace zav::test {
namespace {

using std::chrono::milliseconds;

class ACrowd : public APluginThatStaysAsItIs {
 protected:
  std::mt19937 random = CampaignRandom();
};

TEST_F(ACrowd, OfConnectionsThatAreLeftAtOnceLetsAnHonestClientThrough) {
  const int connects = CampaignLength(2000);
  // So many at a time stay open.
  constexpr size_t kOpen = 64;
  auto flood = std::async(std::launch::async, [&] {
    std::deque<std::unique_ptr<PassingClient>> open;
    for (int made = 0; made < connects;) {
      open.push_back(std::make_unique<PassingClient>());
      made += open.back()->IsConnected() ? 1 : 0;
      if (!open.back()->IsConnected()) std::this_thread::yield();
      if (open.size() >= kOpen) open.pop_front();
    }
  });
  do {
    ASSERT_TRUE(Tried(AnHonestClientIsServed()));
  } while (flood.wait_for(milliseconds(0)) != std::future_status::ready);
  Note(std::to_string(connects) + " connects meanwhile");
}

TEST_F(ACrowd, OfClientsOfEveryKindLetsAnHonestClientThrough) {
  const auto requests = AllRequests();
  for (int round = CampaignLength(30, 10); round > 0; --round) {
    std::vector<std::unique_ptr<PassingClient>> crowd;
    for (int i = 0; i < 40; ++i) {
      const std::string& bytes = requests[random() % requests.size()].bytes;
      crowd.push_back(std::make_unique<PassingClient>());
      crowd.back()->Send(bytes.substr(0, random() % (bytes.size() + 1)));
    }
    crowd.clear();
    ASSERT_TRUE(Tried(AnHonestClientIsServed()));
  }
}

/// Comes from a name of its own, says nothing and waits for its end.
void VisitFrom(const std::string& name) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un own = Address(name);
  const sockaddr_un service = Address(kSocketFile);
  ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&own), sizeof(own)), 0);
  ASSERT_TRUE(
      WaitUntil([&] { return connect(fd, reinterpret_cast<const sockaddr*>(&service), sizeof(service)) == 0; }));
  shutdown(fd, SHUT_WR);
  char byte = 0;
  EXPECT_EQ(recv(fd, &byte, 1, 0), 0);
  close(fd);
}

TEST_F(ACrowd, OfClientsWithNamesOfTheirOwnTouchesNobodysFiles) {
  // As long as an address can be, without a zero at its end.
  const std::string endless = "/tmp/" + std::string(sizeof(sockaddr_un::sun_path) - 5, 'n');
  SwitchOff();
  SwitchOn();
  for (int round = CampaignLength(20, 100); round > 0; --round) {
    for (const std::string& name : {std::string("/tmp/named"), endless}) {
      // The first one to come: the service has a whole address to write its name into.
      VisitFrom(name);
      SwitchOff();
      SwitchOn();
      ASSERT_TRUE(AnHonestClientIsServed());
      SwitchOff();
      SwitchOn();
      EXPECT_TRUE(Tried(FileExists(name)));
      EXPECT_TRUE(std::filesystem::remove(name));
    }
  }
}

/// Sends bytes with descriptors.
bool SendWith(const RawClient& client, std::string bytes, const std::vector<int>& descriptors) {
  std::vector<char> control(CMSG_SPACE(descriptors.size() * sizeof(int)));
  iovec piece{bytes.data(), bytes.size()};
  msghdr message{};
  message.msg_iov = &piece;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(descriptors.size() * sizeof(int));
  std::memcpy(CMSG_DATA(header), descriptors.data(), descriptors.size() * sizeof(int));
  return sendmsg(client.descriptor(), &message, MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

TEST_F(ACrowd, OfClientsThatSendDescriptorsLeavesNoneBehind) {
  for (int round = CampaignLength(30, 100); round > 0; --round) {
    std::array<int, 2> pipe{};
    ASSERT_EQ(pipe2(pipe.data(), O_CLOEXEC | O_NONBLOCK), 0);
    for (const auto& [method, bytes] : AllRequests()) {
      RawClient client;
      ASSERT_TRUE(SendWith(client, bytes, std::vector<int>(100, pipe[1])));
      client.HalfClose();
      EXPECT_TRUE(Tried(IsAnswerTo(bytes, ReceiveAll(client))));
      client.Close();
      ASSERT_TRUE(AnHonestClientIsServed());
    }
    close(pipe[1]);
    // Its end shows that nobody has the other side any more.
    char byte = 0;
    EXPECT_TRUE(WaitUntil([&] { return read(pipe[0], &byte, 1) == 0; }));
    close(pipe[0]);
  }
}

}  // namespace
}  // namespace zav::test
