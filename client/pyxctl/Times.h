#pragma once

#include <pyxclient/pyxclient.hpp>

#include <string>

namespace zav::pyxctl {

/// A time as people write it, in the time zone of the system unless it names one:
///
///   2026-11-20T14:00:05Z, 2026-11-20T14:00:05+01:00     RFC 3339, a fraction of a second is left out
///   2026-11-20 14:00:05, 2026-11-20 14:00, 2026-11-20    the beginning of the minute, of the day
///   14:00:05, 14:00                                      of today
///   today, yesterday, tomorrow, yesterday 14:00          the beginning of the day, or that time of it
///   now, 1h, 1h30m, 2 days ago, -90s, +5 min             so long ago; with a plus from now on
///   @1763647205                                          seconds since the epoch
///
/// A unit of time is a second, minute, hour, day (24 hours), week, month (30 days) or year (365 days): the whole word,
/// its plural, or s, sec, m, min, h, hr, d, w, mo, y. Upper and lower case are the same.
///
/// @param now  the time that others are counted from.
/// @throws std::invalid_argument, in words, for what is none of these.
pyxclient::Time ParseTime(const std::string& text, pyxclient::Time now);

/// A stretch of time: what may stand before "ago".
/// @throws std::invalid_argument as `ParseTime` does.
std::chrono::seconds ParsePeriod(const std::string& text);

/// A time for a person, such as "2026-11-20 14:00:05", in the time zone of the system, which it names where the clocks
/// show the same time twice: "2026-10-25 02:30:00+01:00". `ParseTime` takes it.
std::string LocalText(pyxclient::Time time);

/// A time for a program: RFC 3339 in UTC, such as "2026-11-20T13:00:05Z". `ParseTime` takes it.
std::string Rfc3339Text(pyxclient::Time time);

}  // namespace zav::pyxctl
