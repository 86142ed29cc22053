#include <fcntl.h>
#include <sys/stat.h>

#include <thread>

#include "Clients.h"
#include "FakeService.h"

namespace zav::client::test {
namespace {

constexpr std::int32_t kMaxInt = std::numeric_limits<std::int32_t>::max();

TEST(ARequest, AsksForTheFeatureState) {
  const FakeService service{Answering(Header(4), Words({0, 301, 1})), Answering(Header(4), Words({0, 301, 0}))};
  EXPECT_TRUE(ClientOf(service.path()).IsEnabled());
  EXPECT_FALSE(ClientOf(service.path()).IsEnabled());
}

TEST(ARequest, AsksForTheLoggingState) {
  const FakeService service{Answering(Header(5), Words({0, 1301, 1})), Answering(Header(5), Words({0, 1301, 0}))};
  EXPECT_TRUE(ClientOf(service.path()).IsLogging());
  EXPECT_FALSE(ClientOf(service.path()).IsLogging());
}

TEST(ARequest, LeavesTheMeaninglessFirstWordOfAnAnswerAlone) {
  const FakeService service{Answering(Header(4), Words({-1, 301, 1}))};
  EXPECT_TRUE(ClientOf(service.path()).IsEnabled());
}

TEST(ARequest, ReportsAUrlAndItsThreat) {
  const FakeService service{Answering(Header(6) + Text("http://a.example/") + Text("phishing"), Words({0}))};
  EXPECT_NO_THROW(ClientOf(service.path()).Report("http://a.example/", "phishing"));
}

TEST(ARequest, ReportsWithoutAThreat) {
  const FakeService service{Answering(Header(6) + Text("u") + Text(""), Words({0}))};
  EXPECT_NO_THROW(ClientOf(service.path()).Report("u"));
}

TEST(ARequest, ReportsBytesOfAnyKind) {
  const std::string url("a\0b\xff\n", 5);
  const FakeService service{Answering(Header(6) + Text(url) + Text(url), Words({0}))};
  EXPECT_NO_THROW(ClientOf(service.path()).Report(url, url));
}

TEST(ARequest, ReportsTextsOfTheGreatestLength) {
  const std::string url(16'777'216, 'u');
  const FakeService service{Answering(Header(6) + Text(url) + Text(url), Words({0}))};
  EXPECT_NO_THROW(ClientOf(service.path()).Report(url, url));
}

TEST(ARequest, AsksForTheStatus) {
  const FakeService service{
      Answering(Header(16), Text(R"({"config":{"max_file_size":10,"max_index":2000,"max_logging_period":3600},)"
                                 R"("in_storage":{"count":3,"phishing":2,"undefined":1},)"
                                 R"("state":{"count":7,"phishing":6,"undefined":1}})"
                                 "\n"))};
  const pyxclient::Status status = ClientOf(service.path()).Status();
  EXPECT_EQ(status.maxIndex, 2000);
  EXPECT_EQ(status.maxRecords, 10);
  EXPECT_EQ(status.maxPeriod, std::chrono::hours(1));
  EXPECT_EQ(status.stored.total, 3);
  EXPECT_EQ(status.stored.byThreat, (std::map<std::string, std::int32_t>{{"phishing", 2}, {"undefined", 1}}));
  EXPECT_EQ(status.reported.total, 7);
  EXPECT_EQ(status.reported.byThreat, (std::map<std::string, std::int32_t>{{"phishing", 6}, {"undefined", 1}}));
}

TEST(ARequest, AsksForTheWholeLog) {
  const FakeService service{Answering(Header(17) + Words({0, 0, 0, kMaxInt, 64, -1}),
                                      LogAnswer(R"({"0":{"threat":"t","timestamp":5,"url":"u"}})"))};
  const std::vector<Record> records = ReadLog(service.path());
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].index, 0);
  EXPECT_EQ(records[0].url, "u");
  EXPECT_EQ(records[0].threat, "t");
  EXPECT_EQ(records[0].time, TimeOf(5));
}

TEST(ARequest, AsksForAPartOfTheLog) {
  const FakeService service{Answering(Header(17) + Words({0, 0, 100, 200, 5, 7}), Words({-1}))};
  EXPECT_TRUE(ReadLog(service.path(), {TimeOf(100), TimeOf(200), 5, 7, false}).empty());
}

TEST(ARequest, AsksForTheLogFromTheNewestRecordOn) {
  const FakeService service{Answering(Header(18) + Words({0, 0, 100, 200, 5, 7}), Words({-1}))};
  EXPECT_TRUE(ReadLog(service.path(), {TimeOf(100), TimeOf(200), 5, 7, true}).empty());
}

TEST(ARequest, CountsEveryRecord) {
  const FakeService service{Answering(Header(20) + Words({0, 0, 0, kMaxInt}), Words({42}))};
  EXPECT_EQ(ClientOf(service.path()).Count(), 42);
}

TEST(ARequest, CountsTheRecordsOfARangeEvenOfOneSecond) {
  const FakeService service{Answering(Header(20) + Words({0, 0, 0, 0}), Words({0})),
                            Answering(Header(20) + Words({0, 0, 7, 7}), Words({1}))};
  EXPECT_EQ(ClientOf(service.path()).Count(TimeOf(0), TimeOf(0)), 0);
  EXPECT_EQ(ClientOf(service.path()).Count(TimeOf(7), TimeOf(7)), 1);
}

TEST(ARequest, ResetsTheLog) {
  const FakeService service{Answering(Header(19), Words({0}))};
  EXPECT_NO_THROW(ClientOf(service.path()).Reset());
}

TEST(ARequest, ReadsAnAnswerThatComesByteByByte) {
  const FakeService service{[](Peer& peer) {
    peer.Read(40);
    peer.Dribble(LogAnswer(R"({"3":{"threat":"t","timestamp":5,"url":"u"}})"));
  }};
  EXPECT_EQ(ReadLog(service.path()).at(0).index, 3);
}

/// Every socket of the process whose descriptor a program that it starts would inherit.
std::vector<int> InheritedSockets() {
  std::vector<int> inherited;
  for (int fd = 3; fd < 1024; ++fd) {
    struct stat status {};
    if (::fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode) && (::fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) {
      inherited.push_back(fd);
    }
  }
  return inherited;
}

TEST(ARequest, HidesItsDescriptorFromStartedPrograms) {
  const std::vector<int> before = InheritedSockets();
  std::vector<int> during;
  {
    const FakeService service{[&during](Peer& peer) {
      peer.Read(16);
      during = InheritedSockets();
      peer.Send(Words({0, 301, 1}));
    }};
    EXPECT_TRUE(ClientOf(service.path()).IsEnabled());
  }
  EXPECT_EQ(during, before);
}

TEST(Clients, OfManyThreadsAreUsedAtOnce) {
  const FakeService service{Answering(Header(20) + Words({0, 0, 0, kMaxInt}), Words({9}))};
  std::vector<std::thread> threads;
  std::atomic<int> sum = 0;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&service, &sum] {
      Client client = ClientOf(service.path());
      for (int call = 0; call < 10; ++call) sum += client.Count();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(sum, 360);
}

}  // namespace
}  // namespace zav::client::test
