#pragma once

#include <pyxclient/pyxclient.hpp>

#include <functional>
#include <string>
#include <vector>

namespace zav::pyxctl {

/// How the clocks on the wall go.
struct Zone {
  /// What it is called at the time that matters, such as "CET".
  std::string name;
  /// By how much its clocks are ahead of UTC at a time.
  std::function<std::chrono::seconds(pyxclient::Time)> offset;
};

/// The zone of the system, named as it is at a time.
Zone SystemZone(pyxclient::Time at);

/// "2026-11-20 14:00:05".
std::string ZoneText(pyxclient::Time time, const Zone& zone);
/// "CET, UTC+01:00"; "UTC".
std::string ZoneName(pyxclient::Time at, const Zone& zone);

/// One of the stretches of time that a chart counts by.
struct Period {
  pyxclient::Time begin;
  /// The first second that is not of it.
  pyxclient::Time end;
  /// What it is called, such as "2026-11-20 14:00 to 15:00".
  std::string label;
  /// The same in short, below a chart, such as "14:00".
  std::string tick;
  /// Whether it begins an hour, a day, a week or a year, as the next longer kind of period is.
  bool isRound = false;
};

/// Periods of equal kind, one after the other, that hold every second from the first to the last one.
struct Periods {
  /// What each of them is: "5 minutes", "hour", "day", "month".
  std::string unit;
  /// About how many of them lie between two that are round.
  int stride = 1;
  std::vector<Period> list;
};

/// The shortest periods of which there are not too many for a chart, 48 but for years. They begin where clocks and
/// calendars of the zone have their beginnings.
/// @param last  not before `first`.
Periods PeriodsBetween(pyxclient::Time first, pyxclient::Time last, const Zone& zone);

}  // namespace zav::pyxctl
