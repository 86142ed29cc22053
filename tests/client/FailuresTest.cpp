#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <future>

#include "Clients.h"
#include "FakeService.h"

namespace zav::client::test {
namespace {

std::optional<Failure> FailureOfState(const std::string& path, std::chrono::milliseconds timeout = kLong) {
  return FailureOf([&] { ClientOf(path, timeout).IsEnabled(); });
}

TEST(AnAbsentService, IsToldByAMissingFile) {
  const TemporaryDirectory directory;
  EXPECT_EQ(FailureOfState(directory.path() / "socket"), Failure::kNoService);
}

TEST(AnAbsentService, IsToldByASocketThatNobodyServes) {
  const TemporaryDirectory directory;
  const std::string left = directory.path() / "left";
  {
    const FakeService service{Refuse};
    std::filesystem::create_hard_link(service.path(), left);
  }
  EXPECT_EQ(FailureOfState(left), Failure::kNoService);
}

TEST(AnAbsentService, IsToldByAFileThatIsNoSocket) {
  const TemporaryDirectory directory;
  const std::string path = directory.path() / "file";
  std::ofstream(path).put('x');
  EXPECT_EQ(FailureOfState(path), Failure::kNoService);
}

TEST(AnAbsentService, IsNamedWithItsPathAndTheReason) {
  const TemporaryDirectory directory;
  const std::string path = directory.path() / "socket";
  try {
    ClientOf(path).IsEnabled();
    FAIL() << "there is a service";
  } catch (const Error& error) {
    EXPECT_EQ(error.what(), "no service at " + path + " (No such file or directory)");
  }
}

TEST(ASocketPath, IsOutOfRangeWhenNoSocketCanHaveIt) {
  EXPECT_EQ(FailureOfState(""), Failure::kOutOfRange);
  EXPECT_EQ(FailureOfState(std::string(108, 'x')), Failure::kOutOfRange);
  EXPECT_EQ(FailureOfState(std::string("/tmp/\0x", 7)), Failure::kOutOfRange);
  EXPECT_EQ(FailureOfState("/" + std::string(106, 'x')), Failure::kNoService);
}

TEST(ASilentService, IsLeftAtTheDeadline) {
  const FakeService service{[](Peer& peer) { EXPECT_EQ(peer.AwaitEnd(), Header(4)); }};
  EXPECT_EQ(FailureOfState(service.path(), kShort), Failure::kTimedOut);
}

TEST(ASilentService, IsLeftInTheMiddleOfItsAnswer) {
  const FakeService service{[](Peer& peer) {
    peer.Read(16);
    peer.Send(Words({0, 301}));
    peer.AwaitEnd();
  }};
  EXPECT_EQ(FailureOfState(service.path(), kShort), Failure::kTimedOut);
}

TEST(ASlowService, DoesNotMoveTheDeadlineWithAByteNowAndThen) {
  const FakeService service{[](Peer& peer) {
    peer.Read(40);
    peer.Dribble(Words({0, 0, 16'777'216}) + std::string(16'777'216, ' '));
  }};
  EXPECT_EQ(FailureOf([&] { ReadLog(service.path(), {}, kShort); }), Failure::kTimedOut);
}

TEST(ADeadline, HasAMillisecondToADay) {
  const FakeService service{Answering(Header(4), Words({0, 301, 1}))};
  for (const auto time : {std::chrono::milliseconds(0), std::chrono::milliseconds::min(),
                          std::chrono::milliseconds(86'400'001), std::chrono::milliseconds::max()}) {
    EXPECT_EQ(FailureOfState(service.path(), time), Failure::kOutOfRange);
  }
  EXPECT_EQ(service.connections(), 0);
  EXPECT_TRUE(ClientOf(service.path(), std::chrono::hours(24)).IsEnabled());
}

TEST(ABusyService, IsAskedAgainUntilItAnswers) {
  const FakeService service{Refuse, Refuse, Refuse, Answering(Header(4), Words({0, 301, 1}))};
  EXPECT_TRUE(ClientOf(service.path()).IsEnabled());
  EXPECT_EQ(service.connections(), 4);
}

TEST(ABusyService, IsAskedAgainAfterItLeftTheRequestUnread) {
  const FakeService service{[](Peer& peer) { peer.AwaitUnread(16); }, Answering(Header(4), Words({0, 301, 1}))};
  EXPECT_TRUE(ClientOf(service.path()).IsEnabled());
}

TEST(ABusyService, IsAskedAgainAfterItReadTheRequest) {
  const FakeService service{[](Peer& peer) { peer.Read(16); }, Answering(Header(4), Words({0, 301, 1}))};
  EXPECT_TRUE(ClientOf(service.path()).IsEnabled());
}

TEST(ABusyService, IsToldFromASilentOneAtTheDeadline) {
  const FakeService service{Refuse};
  EXPECT_EQ(FailureOfState(service.path(), kShort), Failure::kRefused);
  EXPECT_GT(service.connections(), 1);
}

TEST(ABusyService, IsAskedWithGrowingPauses) {
  // Each pause is twice as long as the one before: without that there would be hundreds of attempts.
  const FakeService service{Refuse};
  EXPECT_EQ(FailureOfState(service.path(), kShort), Failure::kRefused);
  EXPECT_LT(service.connections(), 20);
}

TEST(AFullQueue, IsWaitedForUntilTheDeadline) {
  const FullQueue queue;
  EXPECT_EQ(FailureOfState(queue.path(), kShort), Failure::kTimedOut);
}

TEST(AFullQueue, IsWaitedForUntilThereIsRoom) {
  FullQueue queue;
  auto enabled = std::async(std::launch::async, [&queue] { return ClientOf(queue.path()).IsEnabled(); });
  queue.Drain(Answering(Header(4), Words({0, 301, 1})));
  EXPECT_TRUE(enabled.get());
}

std::size_t OpenDescriptors() {
  const std::filesystem::directory_iterator descriptors("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors)));
}

TEST(AFailedRequest, LeavesNoDescriptorOpen) {
  const std::size_t before = OpenDescriptors();
  {
    const FakeService service{[](Peer& peer) { peer.AwaitUnread(16); }, [](Peer& peer) { peer.AwaitEnd(); }};
    EXPECT_EQ(FailureOfState(service.path(), kShort), Failure::kRefused);
    EXPECT_EQ(FailureOfState(service.path(), kShort), Failure::kTimedOut);
  }
  EXPECT_EQ(OpenDescriptors(), before);
}

}  // namespace
}  // namespace zav::client::test
