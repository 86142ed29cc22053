#include "Times.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <stdexcept>

namespace zav::pyxctl {
namespace {

using pyxclient::Time;
using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;

/// 2026-11-20 14:00:05 of the time zone below.
constexpr Time kNow{seconds(1795179605)};

class ATime : public testing::Test {
 protected:
  ATime() { UseZone("CET-1CEST,M3.5.0,M10.5.0/3"); }

  static void UseZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }

  /// What a text is, in seconds from now.
  static seconds FromNow(const std::string& text) { return ParseTime(text, kNow) - kNow; }
};

TEST_F(ATime, OfADayAndATimeIsThatOfTheSystemsZone) {
  EXPECT_EQ(FromNow("2026-11-20 14:00:05"), seconds(0));
  EXPECT_EQ(FromNow("2026-11-20T14:00:05"), seconds(0));
  EXPECT_EQ(FromNow("2026-11-20 14:00"), seconds(-5));
  EXPECT_EQ(FromNow("2026-11-20"), -hours(14) - seconds(5));
  UseZone("UTC0");
  EXPECT_EQ(FromNow("2026-11-20 13:00:05"), seconds(0));
}

TEST_F(ATime, KnowsTheTimeInSummer) {
  EXPECT_EQ(ParseTime("2026-07-01 12:00", kNow), ParseTime("2026-07-01T10:00:00Z", kNow));
  EXPECT_EQ(ParseTime("2026-12-01 12:00", kNow), ParseTime("2026-12-01T11:00:00Z", kNow));
}

TEST_F(ATime, OfRfc3339HasAZoneOfItsOwn) {
  for (const char* text : {"2026-11-20T13:00:05Z", "2026-11-20t13:00:05z", "2026-11-20T13:00:05.999Z",
                           "2026-11-20T14:00:05+01:00", "2026-11-20 08:00:05-05:00", "2026-11-20T18:30:05+0530"}) {
    EXPECT_EQ(FromNow(text), seconds(0)) << text;
  }
}

TEST_F(ATime, WithoutADayIsOfToday) {
  EXPECT_EQ(FromNow("14:00"), seconds(-5));
  EXPECT_EQ(FromNow("14:00:05"), seconds(0));
  EXPECT_EQ(FromNow("23:59:59"), hours(10) - seconds(6));
  EXPECT_EQ(FromNow("00:00"), -hours(14) - seconds(5));
}

TEST_F(ATime, OfADayByItsNameIsThatDaysBeginning) {
  const seconds today = -hours(14) - seconds(5);
  EXPECT_EQ(FromNow("today"), today);
  EXPECT_EQ(FromNow("yesterday"), today - hours(24));
  EXPECT_EQ(FromNow("Tomorrow"), today + hours(24));
  EXPECT_EQ(FromNow("yesterday 14:00"), seconds(-5) - hours(24));
  EXPECT_EQ(FromNow("now"), seconds(0));
}

TEST_F(ATime, OfTheDayBeforeAChangeOfTheClocksIsThatDays) {
  const Time dayAfter = ParseTime("2026-10-25 12:00", kNow);
  EXPECT_EQ(ParseTime("yesterday", dayAfter), ParseTime("2026-10-24 00:00", kNow));
  EXPECT_EQ(ParseTime("today", dayAfter), ParseTime("2026-10-25 00:00", kNow));
}

TEST_F(ATime, OfADistanceLiesThatFarBack) {
  for (const char* text :
       {"90s", "-90s", "90 s", "90 seconds ago", "1m30s", "1 min 30 sec", "1 Minute 30 seconds ago"}) {
    EXPECT_EQ(FromNow(text), seconds(-90)) << text;
  }
  EXPECT_EQ(FromNow("1h"), -hours(1));
  EXPECT_EQ(FromNow("2 days ago"), -hours(48));
  EXPECT_EQ(FromNow("1w"), -hours(7 * 24));
  EXPECT_EQ(FromNow("1mo"), -hours(30 * 24));
  EXPECT_EQ(FromNow("2 years ago"), -hours(2 * 365 * 24));
  EXPECT_EQ(FromNow("+5 min"), minutes(5));
}

TEST_F(ATime, OfTheEpochIsCountedInSeconds) {
  EXPECT_EQ(ParseTime("@0", kNow), Time());
  EXPECT_EQ(ParseTime("@1795179605", kNow), kNow);
}

TEST_F(ATime, IsRefusedWithWordsWhereItIsNone) {
  for (const std::string text : {"",
                                 " ",
                                 "x",
                                 "2026",
                                 "2026-11",
                                 "2026-13-01",
                                 "2026-02-30",
                                 "2026-11-20 25:00",
                                 "2026-11-20 14",
                                 "2026-11-20x",
                                 "2026-11-20 14:00:05 x",
                                 "24:30",
                                 "14",
                                 "yesterday x",
                                 "yesterdays",
                                 "1",
                                 "1x",
                                 "1 h x",
                                 "h",
                                 "ago",
                                 "1h ago ago",
                                 "-1h ago",
                                 "+",
                                 "-",
                                 "--1h",
                                 "1.5h",
                                 "99999999999999999999s",
                                 "9999999999999y",
                                 "@",
                                 "@x",
                                 "@-1",
                                 "@2147483648",
                                 "@1x",
                                 "1sss",
                                 "ss"}) {
    EXPECT_THROW(ParseTime(text, kNow), std::invalid_argument) << text;
  }
  EXPECT_THROW(ParseTime(std::string("1h\0", 3), kNow), std::invalid_argument);
  try {
    ParseTime("soon", kNow);
  } catch (const std::invalid_argument& error) {
    EXPECT_EQ(std::string(error.what()).substr(0, 18), "'soon' is no time,");
  }
}

TEST_F(ATime, ThatIsPrintedIsAccepted) {
  EXPECT_EQ(LocalText(kNow), "2026-11-20 14:00:05");
  EXPECT_EQ(Rfc3339Text(kNow), "2026-11-20T13:00:05Z");
  for (const Time time : {pyxclient::kBeginning, kNow, kNow + hours(24 * 180), pyxclient::kEnd}) {
    EXPECT_EQ(ParseTime(LocalText(time), kNow), time);
    EXPECT_EQ(ParseTime(Rfc3339Text(time), kNow), time);
  }
}

TEST_F(ATime, ThatTheClocksShowTwiceIsPrintedWithItsZone) {
  const Time first = ParseTime("2026-10-25T00:30:00Z", kNow);
  EXPECT_EQ(LocalText(first), "2026-10-25 02:30:00+02:00");
  EXPECT_EQ(LocalText(first + hours(1)), "2026-10-25 02:30:00+01:00");
  EXPECT_EQ(LocalText(first - minutes(31)), "2026-10-25 01:59:00");
  EXPECT_EQ(LocalText(first + minutes(90)), "2026-10-25 03:00:00");
  for (minutes since(-240); since < minutes(240); since += minutes(10)) {
    EXPECT_EQ(ParseTime(LocalText(first + since), kNow), first + since) << since.count();
  }
  UseZone("XXX3:30YYY,M3.5.0,M10.5.0/3");
  EXPECT_EQ(LocalText(ParseTime("2026-10-25T05:00:00Z", kNow)), "2026-10-25 02:30:00-02:30");
}

TEST(APeriod, IsASumOfNumbersWithUnits) {
  EXPECT_EQ(ParsePeriod("90s"), seconds(90));
  EXPECT_EQ(ParsePeriod("1h 30m"), minutes(90));
  EXPECT_EQ(ParsePeriod("0s"), seconds(0));
  for (const char* text : {"", "1", "1h ago", "-1h", "x", "yesterday"}) {
    EXPECT_THROW(ParsePeriod(text), std::invalid_argument) << text;
  }
}

}  // namespace
}  // namespace zav::pyxctl
