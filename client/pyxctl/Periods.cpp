#include "Periods.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <iomanip>
#include <sstream>

namespace zav::pyxctl {
namespace {

using pyxclient::Time;
using std::chrono::days;
using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::months;
using std::chrono::seconds;

/// What clocks on the wall show, as if it were UTC.
using WallTime = std::chrono::local_seconds;
using WallDays = std::chrono::local_days;

constexpr std::size_t kMostPeriods = 48;

/// A kind of period: so long by the clock, or so many months of the calendar.
struct Step {
  const char* unit;
  seconds length;
  months calendar;
  /// The place in the table below of the longer kind at whose beginnings one is round, and about how many make it up.
  std::size_t rounder;
  int stride;
  const char* tick;
  const char* roundTick;
};

constexpr std::array kSteps = {Step{"minute", minutes(1), months(0), 3, 60, "%H:%M", "%H:%M"},
                               Step{"5 minutes", minutes(5), months(0), 3, 12, "%H:%M", "%H:%M"},
                               Step{"15 minutes", minutes(15), months(0), 3, 4, "%H:%M", "%H:%M"},
                               Step{"hour", hours(1), months(0), 6, 24, "%H:%M", "%d %b"},
                               Step{"3 hours", hours(3), months(0), 6, 8, "%H:%M", "%d %b"},
                               Step{"6 hours", hours(6), months(0), 6, 4, "%H:%M", "%d %b"},
                               Step{"day", days(1), months(0), 7, 7, "%d %b", "%d %b"},
                               Step{"week", days(7), months(0), 7, 1, "%d %b", "%d %b"},
                               Step{"month", seconds(0), months(1), 10, 12, "%b %Y", "%b %Y"},
                               Step{"3 months", seconds(0), months(3), 10, 4, "%b %Y", "%b %Y"},
                               Step{"year", seconds(0), months(12), 10, 1, "%Y", "%Y"}};

WallTime OnTheWall(Time time, const Zone& zone) {
  return WallTime(time.time_since_epoch() + zone.offset(time));
}

/// Where clocks are set back and show a time twice, the first of both; where they pass over it, when they do.
Time FromTheWall(WallTime wall, const Zone& zone) {
  const Time asUtc(wall.time_since_epoch());
  // No clock is set twice within a day.
  const Time bySetBefore = asUtc - zone.offset(asUtc - days(1));
  const Time bySetAfter = asUtc - zone.offset(asUtc + days(1));
  const bool isAfter = OnTheWall(bySetBefore, zone) != wall && OnTheWall(bySetAfter, zone) == wall;
  return isAfter ? bySetAfter : bySetBefore;
}

std::string Formatted(const char* format, WallTime wall) {
  const std::time_t count = wall.time_since_epoch().count();
  std::tm parts{};
  ::gmtime_r(&count, &parts);
  std::ostringstream text;
  text << std::put_time(&parts, format);
  return text.str();
}

WallTime BeginningOf(WallTime wall, const Step& step) {
  if (step.calendar == months(0)) {
    // Weeks begin with Mondays; the epoch was a Thursday.
    const seconds shift = step.length == days(7) ? seconds(days(3)) : seconds(0);
    const seconds count = wall.time_since_epoch() + shift;
    return WallTime(count - (count % step.length + step.length) % step.length - shift);
  }
  const std::chrono::year_month_day date(std::chrono::floor<days>(wall));
  const unsigned month = static_cast<unsigned>(date.month()) - 1;
  const unsigned first = month - month % static_cast<unsigned>(step.calendar.count());
  return WallDays(date.year() / std::chrono::month(first + 1) / 1);
}

WallTime Next(WallTime beginning, const Step& step) {
  if (step.calendar == months(0)) return beginning + step.length;
  const std::chrono::year_month_day date(std::chrono::floor<days>(beginning));
  return WallDays(date + step.calendar);
}

std::string LabelOf(WallTime begin, WallTime end, const Step& step) {
  if (step.calendar == months(12)) return Formatted("%Y", begin);
  if (step.calendar == months(1)) return Formatted("%B %Y", begin);
  if (step.calendar != months(0)) return Formatted("%B", begin) + " to " + Formatted("%B %Y", end - days(1));
  if (step.length == days(1)) return Formatted("%a %Y-%m-%d", begin);
  if (step.length > days(1)) return Formatted("%Y-%m-%d", begin) + " to " + Formatted("%Y-%m-%d", end - days(1));
  return Formatted("%a %Y-%m-%d %H:%M", begin) + " to " + Formatted("%H:%M", end);
}

Period PeriodOf(Time begin, Time end, WallTime wall, const Step& step) {
  const bool isRound = BeginningOf(wall, kSteps.at(step.rounder)) == wall;
  return {begin, end, LabelOf(wall, Next(wall, step), step), Formatted(isRound ? step.roundTick : step.tick, wall),
          isRound};
}

/// @return no more than one above the most; the years are all there are.
std::vector<Period> PeriodsOf(Time first, Time last, const Zone& zone, const Step& step) {
  const bool isLongest = &step == &kSteps.back();
  std::vector<Period> periods;
  WallTime wall = BeginningOf(OnTheWall(first, zone), step);
  Time begin = FromTheWall(wall, zone);
  while (begin <= last && (isLongest || periods.size() <= kMostPeriods)) {
    const WallTime next = Next(wall, step);
    const Time end = FromTheWall(next, zone);
    // An hour that clocks pass over is none.
    if (end > begin) periods.push_back(PeriodOf(begin, end, wall, step));
    wall = next;
    begin = std::max(begin, end);
  }
  return periods;
}

}  // namespace

Zone SystemZone(Time at) {
  const auto parts = [](Time time) {
    const std::time_t count = std::chrono::system_clock::to_time_t(time);
    std::tm result{};
    ::localtime_r(&count, &result);
    return result;
  };
  return {parts(at).tm_zone, [parts](Time time) { return seconds(parts(time).tm_gmtoff); }};
}

std::string ZoneText(Time time, const Zone& zone) {
  return Formatted("%Y-%m-%d %H:%M:%S", OnTheWall(time, zone));
}

std::string ZoneName(Time at, const Zone& zone) {
  const auto ahead = std::chrono::duration_cast<minutes>(zone.offset(at));
  const auto size = std::chrono::abs(ahead);
  std::array<char, 16> offset{};
  std::snprintf(offset.data(), offset.size(), "UTC%c%02d:%02d", ahead < minutes(0) ? '-' : '+',
                static_cast<int>(size / hours(1)), static_cast<int>(size % hours(1) / minutes(1)));
  return zone.name == "UTC" ? zone.name : zone.name + ", " + offset.data();
}

Periods PeriodsBetween(Time first, Time last, const Zone& zone) {
  for (const Step& step : kSteps) {
    std::vector<Period> periods = PeriodsOf(first, last, zone, step);
    if (periods.size() <= kMostPeriods || &step == &kSteps.back()) {
      return {step.unit, step.stride, std::move(periods)};
    }
  }
  return {};
}

}  // namespace zav::pyxctl
