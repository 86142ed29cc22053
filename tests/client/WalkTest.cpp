#include <gmock/gmock.h>

#include <algorithm>
#include <limits>

#include "Clients.h"
#include "GrowingLog.h"

namespace zav::client::test {
namespace {

using pyxclient::Log;
using testing::ElementsAre;
using testing::IsEmpty;

/// The urls of what a walk gives up to its end; of a long one its length.
std::vector<std::string> Rest(Log& log) {
  std::vector<std::string> urls;
  while (const auto record = log.Next()) {
    urls.push_back(record->url.size() < 100 ? record->url : std::to_string(record->url.size()));
  }
  return urls;
}

std::vector<std::string> Numbers(int first, int last) {
  std::vector<std::string> numbers;
  for (int number = first; number <= last; ++number) numbers.push_back(std::to_string(number));
  return numbers;
}

TEST(AWalk, GivesALogOfManyPiecesOnceAndInOrder) {
  GrowingLog log;
  log.AddUpTo(0, 1999);
  EXPECT_EQ(ReadLog(log.path()).size(), 2000U);
  Client client = ClientOf(log.path());
  Log forward = client.Log();
  EXPECT_EQ(Rest(forward), Numbers(0, 1999));
  Log backward = client.Log({.reverse = true});
  auto numbers = Numbers(0, 1999);
  std::reverse(numbers.begin(), numbers.end());
  EXPECT_EQ(Rest(backward), numbers);
  EXPECT_LT(log.requests(), 30);
}

TEST(AWalk, AsksOnceForALogOfOnePiece) {
  GrowingLog log;
  log.AddUpTo(0, 62);
  EXPECT_EQ(ReadLog(log.path()).size(), 63U);
  EXPECT_EQ(log.requests(), 1);
}

TEST(AWalk, GivesAsManyRecordsAsWereAskedFor) {
  GrowingLog log;
  log.AddUpTo(0, 199);
  EXPECT_EQ(ReadLog(log.path(), {.maxCount = 100}).size(), 100U);
  EXPECT_EQ(ReadLog(log.path(), {.maxCount = 100, .startIndex = 150}).size(), 50U);
  EXPECT_EQ(ReadLog(log.path(), {.maxCount = 100, .startIndex = 150, .reverse = true}).back().index, 51);
}

TEST(AWalk, ReadsALogThatIsLargerThanAnAnswerInPieces) {
  GrowingLog log;
  // Two of them fit into one answer.
  for (int number = 0; number < 5; ++number) log.Add(std::string(6'000'000, 'u'), number);
  EXPECT_EQ(ReadLog(log.path()).size(), 5U);
  EXPECT_EQ(ReadLog(log.path(), {.reverse = true}).size(), 5U);
}

TEST(AWalk, ReadsLargeRecordsOfWhichOnlyOneFitsIntoAnAnswer) {
  GrowingLog log;
  for (int number = 0; number < 3; ++number) log.Add(std::string(16'000'000, 'u'), number);
  log.Add(3);
  Client client = ClientOf(log.path());
  Log forward = client.Log();
  EXPECT_THAT(Rest(forward), ElementsAre("16000000", "16000000", "16000000", "3"));
  EXPECT_THAT(Rest(forward), IsEmpty());
  log.Add(4);
  EXPECT_THAT(Rest(forward), ElementsAre("4"));
}

TEST(AWalk, PassesOverARecordThatNoAnswerCanHold) {
  for (const bool reverse : {false, true}) {
    GrowingLog log;
    log.AddUpTo(0, 1);
    log.Add(std::string(kLongestAnswer, 'u'), 2);
    log.AddUpTo(3, 4);
    Client client = ClientOf(log.path());
    Log walk = client.Log({.reverse = reverse});
    std::vector<std::string> urls;
    EXPECT_EQ(FailureOf([&] {
                while (const auto record = walk.Next()) urls.push_back(record->url);
              }),
              Failure::kTooLarge);
    for (const std::string& url : Rest(walk)) urls.push_back(url);
    if (reverse) std::reverse(urls.begin(), urls.end());
    EXPECT_THAT(urls, ElementsAre("0", "1", "3", "4"));
  }
}

TEST(AWalk, GoesOnAfterItsEndWithWhatCameSince) {
  GrowingLog log;
  log.Add(0);
  Client client = ClientOf(log.path());
  Log walk = client.Log();
  EXPECT_THAT(Rest(walk), ElementsAre("0"));
  EXPECT_THAT(Rest(walk), IsEmpty());
  log.AddUpTo(1, 2);
  EXPECT_THAT(Rest(walk), ElementsAre("1", "2"));
  EXPECT_FALSE(walk.TakeChanged());
}

TEST(AWalk, OverALogThatIsEmptyAtFirstGivesWhatComes) {
  GrowingLog log;
  Client client = ClientOf(log.path());
  Log walk = client.Resume("");
  EXPECT_THAT(Rest(walk), IsEmpty());
  log.Add(0);
  EXPECT_THAT(Rest(walk), ElementsAre("0"));
}

TEST(AWalk, StandsWhereItStoodAfterAFailure) {
  GrowingLog log;
  log.AddUpTo(0, 99);
  Client client({.socket = log.path(), .timeout = std::chrono::milliseconds(20000)});
  Log walk = client.Log();
  for (int number = 0; number < 64; ++number) ASSERT_TRUE(walk.Next());
  const std::string cursor = walk.Cursor();
  Client other = ClientOf("/nowhere");
  Log resumed = other.Resume(cursor);
  EXPECT_EQ(FailureOf([&] { resumed.Next(); }), Failure::kNoService);
  EXPECT_EQ(resumed.Cursor(), cursor);
  EXPECT_EQ(Rest(walk), Numbers(64, 99));
}

/// A walk that has given the records 0 to 9 of a log, and is taken up again by its cursor.
class ACursor : public testing::Test {
 protected:
  ACursor() {
    log.AddUpTo(0, 9);
    Log walk = client.Resume("");
    Rest(walk);
    cursor = walk.Cursor();
  }

  std::vector<std::string> Resumed() {
    Log walk = client.Resume(cursor);
    auto urls = Rest(walk);
    changed = walk.TakeChanged();
    cursor = walk.Cursor();
    return urls;
  }

  GrowingLog log;
  Client client = ClientOf(log.path());
  std::string cursor;
  bool changed = false;
};

TEST_F(ACursor, IsAWordOfAscii) {
  EXPECT_THAT(cursor, testing::MatchesRegex("pyx1:9:9:[0-9a-f]+"));
}

TEST_F(ACursor, ResumesWithWhatCameSince) {
  EXPECT_THAT(Resumed(), IsEmpty());
  log.AddUpTo(10, 11);
  EXPECT_THAT(Resumed(), ElementsAre("10", "11"));
  EXPECT_THAT(Resumed(), IsEmpty());
  EXPECT_FALSE(changed);
}

TEST_F(ACursor, ResumesWhereItsRecordIsGoneAndNoneWasLost) {
  log.DropOldest(10);
  EXPECT_THAT(Resumed(), IsEmpty());
  log.AddUpTo(10, 11);
  EXPECT_THAT(Resumed(), ElementsAre("10", "11"));
  EXPECT_FALSE(changed);
}

TEST_F(ACursor, TellsThatRecordsWereDroppedBeforeTheyWereRead) {
  log.AddUpTo(10, 19);
  log.DropOldest(15);
  EXPECT_THAT(Resumed(), ElementsAre("15", "16", "17", "18", "19"));
  EXPECT_TRUE(changed);
}

TEST_F(ACursor, FindsItsRecordInALogThatWasNumberedAnew) {
  log.DropOldest(5);
  log.AddUpTo(10, 11);
  log.Renumber();
  log.Add(12);
  EXPECT_THAT(Resumed(), ElementsAre("10", "11", "12"));
  EXPECT_FALSE(changed);
  log.Add(13);
  EXPECT_THAT(Resumed(), ElementsAre("13"));
}

TEST_F(ACursor, FindsItsRecordWhereAnotherHasItsIndexNow) {
  log.DropOldest(5);
  log.Renumber();
  log.AddUpTo(10, 19);
  EXPECT_EQ(Resumed(), Numbers(10, 19));
  EXPECT_FALSE(changed);
}

TEST_F(ACursor, TellsThatTheLogWasNumberedAnewWithoutItsRecord) {
  log.DropOldest(10);
  log.AddUpTo(20, 24);
  log.Renumber();
  EXPECT_EQ(Resumed(), Numbers(20, 24));
  EXPECT_TRUE(changed);
}

TEST_F(ACursor, ResumesAfterAResetThatKeepsTheNumbers) {
  log.Reset();
  EXPECT_THAT(Resumed(), IsEmpty());
  log.AddUpTo(10, 11);
  EXPECT_THAT(Resumed(), ElementsAre("10", "11"));
  EXPECT_FALSE(changed);
}

TEST_F(ACursor, TellsThatTheLogBeganAnew) {
  log.ResetAll();
  log.AddUpTo(20, 22);
  EXPECT_EQ(Resumed(), Numbers(20, 22));
  EXPECT_TRUE(changed);
}

TEST_F(ACursor, TellsThatTheLogBeganAnewAndIsLongerThanItWas) {
  log.ResetAll();
  log.AddUpTo(20, 39);
  EXPECT_EQ(Resumed(), Numbers(20, 39));
  EXPECT_TRUE(changed);
}

TEST_F(ACursor, AboveTheGreatestIndexOfTheSettingsLosesAndRepeatsNothing) {
  log.SetMaxIndex(5);
  EXPECT_THAT(Resumed(), IsEmpty());
  log.Add(10);
  EXPECT_THAT(Resumed(), ElementsAre("10"));
  EXPECT_FALSE(changed);
}

TEST_F(ACursor, TellsRecordsApartThatDifferInNothingButTheirIndexAsWellAsCanBe) {
  log.Add("9", 9);
  EXPECT_THAT(Resumed(), ElementsAre("9"));
  log.Renumber();
  EXPECT_THAT(Resumed(), IsEmpty());
}

TEST(AHostileService, CannotLeadAWalkAround) {
  // Going back the record is there, going on another one is: whoever looks for it never finds it.
  std::atomic<bool> contradicts = false;
  const FakeService service{[&contradicts](Peer& peer) {
    const std::string request = peer.Read(40);
    const bool isBackward = request[12] == 18;
    const char* const url = contradicts && !isBackward ? "b" : "a";
    peer.Send(LogAnswer(R"({"5":{"threat":"","timestamp":1,"url":")" + std::string(url) + "\"}}"));
  }};
  Client client = ClientOf(service.path());
  Log walk = client.Log();
  ASSERT_TRUE(walk.Next());
  contradicts = true;
  for (int step = 0; step < 10; ++step) walk.Next();
  EXPECT_TRUE(walk.TakeChanged());
  EXPECT_LT(service.connections(), 100);
}

TEST(AHostileService, CannotLeadAWalkBeyondTheLastIndex) {
  constexpr std::int32_t kMaxInt = std::numeric_limits<std::int32_t>::max();
  for (const std::int32_t last : {-1, kMaxInt}) {
    // Every answer ends where its text should be.
    const FakeService service{[last](Peer& peer) {
      peer.Read(40);
      peer.Send(Words({0, last}));
    }};
    Client client = ClientOf(service.path());
    Log walk = client.Log();
    EXPECT_EQ(FailureOf([&] { walk.Next(); }), last == kMaxInt ? Failure::kTooLarge : Failure::kMalformed);
    if (last == kMaxInt) {
      EXPECT_FALSE(walk.Next());
    }
  }
}

TEST(ACursorsText, IsOutOfRangeWhenItIsNone) {
  Client client = ClientOf("/nowhere");
  for (const char* text :
       {"x", "pyx1", "pyx1:", "pyx1:1", "pyx1:1:", "pyx1:-1:5", "pyx1:1:2:", "pyx1:1:2:x", "pyx1:1:2:3:4",
        "pyx1:1:2:11111111111111111", "pyx1:4294967296:1", " pyx1:1:2", "pyx1:1:2 ", "pyx2:1:2"}) {
    EXPECT_EQ(FailureOf([&] { client.Resume(text); }), Failure::kOutOfRange) << text;
  }
  for (const char* text : {"pyx1:1:2", "pyx1:1:-2", "pyx1:1:2:3", "pyx1:2147483647:2147483647:ffffffffffffffff"}) {
    EXPECT_EQ(client.Resume(text).Cursor().substr(0, 7), std::string(text).substr(0, 7)) << text;
  }
}

TEST(AWalkInReverse, EndsWhenTheLogIsNumberedAnewMeanwhile) {
  GrowingLog log;
  log.AddUpTo(0, 199);
  log.DropOldest(50);
  Client client = ClientOf(log.path());
  Log walk = client.Log({.reverse = true});
  for (int number = 0; number < 64; ++number) ASSERT_TRUE(walk.Next());
  log.Renumber();
  EXPECT_THAT(Rest(walk), IsEmpty());
  EXPECT_TRUE(walk.TakeChanged());
  EXPECT_EQ(walk.Cursor(), "");
}

}  // namespace
}  // namespace zav::client::test
