#include "Periods.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

namespace zav::pyxctl {
namespace {

using pyxclient::Time;
using std::chrono::days;
using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;

/// Friday, 2026-11-20 14:00:05 UTC.
constexpr Time kNow{seconds(1795183205)};

Zone Fixed(seconds ahead) {
  return {"X", [ahead](Time) { return ahead; }};
}

/// Clocks that are set back by an hour at a time, and forward at an other one.
Zone Summer(Time begin, Time end) {
  return {"X", [begin, end](Time time) { return time >= begin && time < end ? hours(2) : hours(1); }};
}

void ExpectOneBehindTheOther(const Periods& periods, Time first, Time last) {
  ASSERT_FALSE(periods.list.empty());
  EXPECT_LE(periods.list.front().begin, first);
  EXPECT_GT(periods.list.front().end, first);
  EXPECT_LE(periods.list.back().begin, last);
  EXPECT_GT(periods.list.back().end, last);
  const auto isGap = [](const Period& a, const Period& b) { return a.end != b.begin || a.end <= a.begin; };
  EXPECT_EQ(std::adjacent_find(periods.list.begin(), periods.list.end(), isGap), periods.list.end());
}

TEST(Periods, AreOfAKindThatGivesNoMoreThanAChartCanShow) {
  struct Case {
    seconds span;
    const char* unit;
  };
  for (const auto& [span, unit] :
       {Case{seconds(0), "minute"}, Case{minutes(40), "minute"}, Case{hours(1), "5 minutes"},
        Case{hours(5), "15 minutes"}, Case{hours(40), "hour"}, Case{days(5), "3 hours"}, Case{days(10), "6 hours"},
        Case{days(40), "day"}, Case{days(200), "week"}, Case{days(1000), "month"}, Case{days(3000), "3 months"},
        Case{days(20000), "year"}}) {
    const Periods periods = PeriodsBetween(kNow - span, kNow, Fixed(hours(1)));
    EXPECT_EQ(periods.unit, unit);
    ExpectOneBehindTheOther(periods, kNow - span, kNow);
    EXPECT_LE(periods.list.size(), 57U);
  }
}

TEST(Periods, ReachFromOneEndOfTimeToTheOther) {
  const Time first{seconds(std::numeric_limits<std::int32_t>::min())};
  const Time last{seconds(std::numeric_limits<std::int32_t>::max())};
  const Periods periods = PeriodsBetween(first, last, Fixed(-hours(12)));
  EXPECT_EQ(periods.unit, "year");
  EXPECT_EQ(periods.list.size(), 2038U - 1901U + 1U);
  ExpectOneBehindTheOther(periods, first, last);
}

TEST(Periods, BeginWhereClocksOfTheZoneHaveTheirBeginnings) {
  const Periods periods = PeriodsBetween(kNow - days(30), kNow, Fixed(hours(5) + minutes(30)));
  EXPECT_EQ(ZoneText(periods.list.front().begin, Fixed(hours(5) + minutes(30))), "2026-10-21 00:00:00");
  EXPECT_EQ(periods.list.front().label, "Wed 2026-10-21");
  EXPECT_EQ(periods.list.back().tick, "20 Nov");
}

TEST(Periods, OfAWeekBeginWithMondaysAlsoBeforeTheEpoch) {
  const Periods weeks = PeriodsBetween(kNow - days(200), kNow, Fixed(seconds(0)));
  EXPECT_EQ(weeks.list.back().label, "2026-11-16 to 2026-11-22");
  const Periods old = PeriodsBetween(Time(-days(200)), Time(-days(1)), Fixed(seconds(0)));
  EXPECT_EQ(old.list.back().label, "1969-12-29 to 1970-01-04");
}

TEST(Periods, AreNamedAsTheyAre) {
  const auto labels = [](seconds span) {
    const auto periods = PeriodsBetween(kNow - span, kNow, Fixed(seconds(0)));
    return periods.list.back().label + "; " + periods.list.back().tick;
  };
  EXPECT_EQ(labels(minutes(1)), "Fri 2026-11-20 14:00 to 14:01; 14:00");
  EXPECT_EQ(labels(hours(40)), "Fri 2026-11-20 14:00 to 15:00; 14:00");
  EXPECT_EQ(labels(days(5)), "Fri 2026-11-20 12:00 to 15:00; 12:00");
  EXPECT_EQ(labels(days(1000)), "November 2026; Nov 2026");
  EXPECT_EQ(labels(days(3000)), "October to December 2026; Oct 2026");
  EXPECT_EQ(labels(days(20000)), "2026; 2026");
}

TEST(Periods, AreRoundWhereALongerOneBegins) {
  const Periods periods = PeriodsBetween(kNow - days(5), kNow, Fixed(seconds(0)));
  for (const Period& period : periods.list)
    EXPECT_EQ(period.isRound, period.begin == std::chrono::floor<days>(period.begin));
  EXPECT_EQ(std::count_if(periods.list.begin(), periods.list.end(), [](const Period& each) { return each.isRound; }),
            5);
  EXPECT_EQ(
      std::find_if(periods.list.begin(), periods.list.end(), [](const Period& each) { return each.isRound; })->tick,
      "16 Nov");
}

TEST(Periods, HoldEverySecondOnceWhereClocksAreSet) {
  for (const seconds change : {seconds(hours(30)), seconds(hours(31)), seconds(days(3))}) {
    for (const Zone& zone : {Summer(kNow - change, kNow + days(99)), Summer(kNow - days(999), kNow - change)}) {
      for (const seconds span : {seconds(hours(40)), seconds(days(5)), seconds(days(30))}) {
        ExpectOneBehindTheOther(PeriodsBetween(kNow - span, kNow, zone), kNow - span, kNow);
      }
    }
  }
}

TEST(Periods, HoldTheLastSecondAlsoWhereItBeginsOne) {
  const Time full = std::chrono::floor<hours>(kNow);
  const Periods periods = PeriodsBetween(full - hours(40), full, Fixed(seconds(0)));
  ExpectOneBehindTheOther(periods, full - hours(40), full);
  EXPECT_EQ(periods.list.size(), 41U);
}

TEST(Periods, AreAsLongAsTheyAreCalledWhereAnHourIsPassedOver) {
  struct Case {
    const char* zone;
    Time change;
  };
  // 2026-03-29 01:00 UTC and 2026-03-08 07:00 UTC.
  for (const auto& [name, change] : {Case{"CET-1CEST,M3.5.0,M10.5.0/3", Time(seconds(1774746000))},
                                     Case{"EST5EDT,M3.2.0,M11.1.0", Time(seconds(1772953200))}}) {
    setenv("TZ", name, 1);
    tzset();
    const Zone zone = SystemZone(change);
    const Periods periods = PeriodsBetween(change - hours(20), change + hours(20), zone);
    EXPECT_EQ(periods.unit, "hour");
    for (const Period& period : periods.list) {
      EXPECT_EQ(period.end - period.begin, hours(1)) << period.label;
      EXPECT_EQ(period.label.substr(4, 16), ZoneText(period.begin, zone).substr(0, 16));
    }
    EXPECT_EQ(periods.list.size(), 41U) << name;
  }
}

TEST(Periods, HoldBothHoursOfTheSameNameWhereClocksAreSetBack) {
  setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  tzset();
  // 2026-10-25 01:00 UTC, when 03:00 becomes 02:00.
  const Time change{seconds(1792890000)};
  const Periods periods = PeriodsBetween(change - hours(20), change + hours(20), SystemZone(change));
  EXPECT_EQ(periods.list.size(), 40U);
  for (const Period& period : periods.list) {
    const bool isDouble = period.label == "Sun 2026-10-25 02:00 to 03:00";
    EXPECT_EQ(period.end - period.begin, hours(isDouble ? 2 : 1)) << period.label;
  }
}

TEST(AZone, IsNamedWithItsDistanceFromUtc) {
  EXPECT_EQ(ZoneName(kNow, Fixed(hours(1))), "X, UTC+01:00");
  EXPECT_EQ(ZoneName(kNow, Fixed(-hours(3) - minutes(30))), "X, UTC-03:30");
  EXPECT_EQ(ZoneName(kNow, Fixed(seconds(0))), "X, UTC+00:00");
  EXPECT_EQ(ZoneName(kNow, {"UTC", [](Time) { return seconds(0); }}), "UTC");
}

TEST(AZone, TellsTheTimeOfItsClocks) {
  EXPECT_EQ(ZoneText(kNow, Fixed(hours(10))), "2026-11-21 00:00:05");
  EXPECT_EQ(ZoneText(Time(seconds(-1)), Fixed(seconds(0))), "1969-12-31 23:59:59");
}

TEST(AZone, OfTheSystemKnowsTheTimeInSummer) {
  setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  tzset();
  const Zone zone = SystemZone(kNow);
  EXPECT_EQ(zone.name, "CET");
  EXPECT_EQ(zone.offset(kNow), hours(1));
  EXPECT_EQ(zone.offset(kNow - days(120)), hours(2));
}

}  // namespace
}  // namespace zav::pyxctl
