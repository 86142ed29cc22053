#include "Times.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <ctime>
#include <iomanip>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace zav::pyxctl {
namespace {

using pyxclient::Time;
using std::chrono::seconds;

[[noreturn]] void Refuse(const std::string& text) {
  throw std::invalid_argument("'" + text +
                              "' is no time, such as 2026-11-20, '2026-11-20 14:00', 14:00, yesterday, 1h, " +
                              "'2 days ago', @1763647205 or 2026-11-20T14:00:00Z");
}

std::string Cased(std::string text, int (*change)(int)) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [change](unsigned char character) { return static_cast<char>(change(character)); });
  return text;
}

std::tm LocalParts(Time time) {
  const std::time_t count = std::chrono::system_clock::to_time_t(time);
  std::tm parts{};
  if (::localtime_r(&count, &parts) == nullptr) throw std::invalid_argument("the time zone is not known");
  return parts;
}

/// The time of parts that name a day and a time of it; nothing where there is no such day.
template <class Make>
std::optional<Time> TimeOfParts(std::tm parts, Make make) {
  const std::tm named = parts;
  const std::time_t count = make(&parts);
  const bool sameDay = parts.tm_mday == named.tm_mday && parts.tm_mon == named.tm_mon && parts.tm_year == named.tm_year;
  if (!sameDay) return std::nullopt;
  return Time(seconds(count));
}

std::optional<Time> LocalTime(std::tm parts) {
  parts.tm_isdst = -1;
  return TimeOfParts(parts, [](std::tm* each) { return std::mktime(each); });
}

/// What a text ends with after a date: nothing, or a time zone.
std::optional<Time> WithZone(std::tm parts, const char* rest) {
  if (*rest == '\0') return LocalTime(parts);
  std::tm zone{};
  const char* const end = ::strptime(rest, "%z", &zone);
  if (end == nullptr || *end != '\0') return std::nullopt;
  const auto time = TimeOfParts(parts, [](std::tm* each) { return ::timegm(each); });
  return time ? std::optional(*time - seconds(zone.tm_gmtoff)) : std::nullopt;
}

/// Behind the seconds: a fraction, which is left out.
const char* SkipFraction(const char* rest) {
  if (*rest != '.' || std::isdigit(static_cast<unsigned char>(rest[1])) == 0) return rest;
  for (++rest; std::isdigit(static_cast<unsigned char>(*rest)) != 0;) ++rest;
  return rest;
}

std::optional<Time> ParseDate(const std::string& text) {
  struct Format {
    const char* format;
    bool hasSeconds;
  };
  constexpr std::array kFormats = {Format{"%Y-%m-%dT%H:%M:%S", true}, Format{"%Y-%m-%d %H:%M:%S", true},
                                   Format{"%Y-%m-%dT%H:%M", false}, Format{"%Y-%m-%d %H:%M", false},
                                   Format{"%Y-%m-%d", false}};
  for (const auto& [format, hasSeconds] : kFormats) {
    std::tm parts{};
    const char* rest = ::strptime(text.c_str(), format, &parts);
    if (rest != nullptr) return WithZone(parts, hasSeconds ? SkipFraction(rest) : rest);
  }
  return std::nullopt;
}

/// The time of a day, as text, of the day that `day` lies in.
std::optional<Time> ParseTimeOfDay(const std::string& text, std::tm day) {
  for (const char* format : {"%H:%M:%S", "%H:%M"}) {
    std::tm parts = day;
    parts.tm_sec = 0;
    const char* const rest = ::strptime(text.c_str(), format, &parts);
    if (rest != nullptr && *rest == '\0') return LocalTime(parts);
  }
  return std::nullopt;
}

/// "yesterday" and its like, alone or with a time.
std::optional<Time> ParseDay(const std::string& text, Time now) {
  struct Day {
    std::string_view name;
    int offset;
  };
  constexpr std::array kDays = {Day{"today", 0}, Day{"yesterday", -1}, Day{"tomorrow", 1}};
  const std::string name = text.substr(0, text.find(' '));
  for (const auto& [known, offset] : kDays) {
    if (name != known) continue;
    std::tm parts = LocalParts(now);
    parts.tm_mday += offset;
    parts.tm_hour = 12;
    parts.tm_isdst = -1;
    std::mktime(&parts);
    return ParseTimeOfDay(name.size() < text.size() ? text.substr(name.size() + 1) : "00:00", parts);
  }
  return std::nullopt;
}

struct Unit {
  std::string_view name;
  std::int64_t seconds;
};

constexpr std::int64_t kMinute = 60;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;
constexpr std::array kUnits = {Unit{"s", 1},           Unit{"sec", 1},          Unit{"second", 1},
                               Unit{"m", kMinute},     Unit{"min", kMinute},    Unit{"minute", kMinute},
                               Unit{"h", kHour},       Unit{"hr", kHour},       Unit{"hour", kHour},
                               Unit{"d", kDay},        Unit{"day", kDay},       Unit{"w", 7 * kDay},
                               Unit{"week", 7 * kDay}, Unit{"mo", 30 * kDay},   Unit{"month", 30 * kDay},
                               Unit{"y", 365 * kDay},  Unit{"year", 365 * kDay}};

std::optional<std::int64_t> SecondsOf(std::string_view unit) {
  for (const auto& [name, length] : kUnits) {
    const bool isPlural =
        name.size() > 1 && unit.size() == name.size() + 1 && unit.starts_with(name) && unit.back() == 's';
    if (unit == name || isPlural) return length;
  }
  return std::nullopt;
}

void SkipBlanks(std::string_view& text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
}

std::string_view TakeWord(std::string_view& text) {
  const auto end = std::find_if_not(text.begin(), text.end(), [](char each) { return each >= 'a' && each <= 'z'; });
  const std::string_view word = text.substr(0, static_cast<std::size_t>(end - text.begin()));
  text.remove_prefix(word.size());
  SkipBlanks(text);
  return word;
}

/// Takes as many numbers with units as there are, and the blanks between and behind them.
std::optional<seconds> TakePeriod(std::string_view& text) {
  // Enough for the time since the beginning of the calendar, in any unit; and no sum of a line of them overflows.
  constexpr std::int64_t kLargest = 100'000'000'000;
  std::optional<seconds> sum;
  while (!text.empty() && std::isdigit(static_cast<unsigned char>(text.front())) != 0) {
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    SkipBlanks(text);
    const auto unit = SecondsOf(TakeWord(text));
    if (error != std::errc() || !unit || number > kLargest / *unit) return std::nullopt;
    sum = sum.value_or(seconds(0)) + seconds(number * *unit);
    if (sum->count() > kLargest) return std::nullopt;
  }
  return sum;
}

/// "1h", "2 days ago", "-90s", "+5 min".
std::optional<Time> ParseDistance(std::string_view text, Time now) {
  const bool isSigned = text.starts_with('-') || text.starts_with('+');
  const bool isAhead = text.starts_with('+');
  if (isSigned) text.remove_prefix(1);
  const auto period = TakePeriod(text);
  if (!period) return std::nullopt;
  if (!text.empty() && (isSigned || text != "ago")) return std::nullopt;
  return isAhead ? now + *period : now - *period;
}

std::optional<Time> ParseEpoch(std::string_view text) {
  if (!text.starts_with('@')) return std::nullopt;
  text.remove_prefix(1);
  std::int32_t count = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
  if (error != std::errc() || end != text.data() + text.size() || count < 0) return std::nullopt;
  return Time(seconds(count));
}

std::string Formatted(const char* format, const std::tm& parts) {
  std::ostringstream text;
  text << std::put_time(&parts, format);
  return text.str();
}

/// Whether the clocks show this time once more, before or after they were turned back.
bool IsTwice(const std::tm& parts) {
  std::tm other = parts;
  other.tm_isdst = parts.tm_isdst > 0 ? 0 : 1;
  std::mktime(&other);
  return other.tm_hour == parts.tm_hour && other.tm_min == parts.tm_min && other.tm_gmtoff != parts.tm_gmtoff;
}

/// As RFC 3339 has it, such as "+01:00".
std::string ZoneText(long offset) {
  constexpr int kMinutesOfAnHour = 60;
  const long minutes = std::abs(offset) / kMinute;
  std::ostringstream text;
  text << (offset < 0 ? '-' : '+') << std::setfill('0') << std::setw(2) << minutes / kMinutesOfAnHour << ':'
       << std::setw(2) << minutes % kMinutesOfAnHour;
  return text.str();
}

}  // namespace

Time ParseTime(const std::string& text, Time now) {
  const std::string lower = Cased(text, std::tolower);
  // A zero byte would end the text before its end.
  if (text.find('\0') != std::string::npos) Refuse(text);
  if (lower == "now") return now;
  if (const auto time = ParseEpoch(lower)) return *time;
  if (const auto time = ParseDate(Cased(text, std::toupper))) return *time;
  if (const auto time = ParseTimeOfDay(lower, LocalParts(now))) return *time;
  if (const auto time = ParseDay(lower, now)) return *time;
  if (const auto time = ParseDistance(lower, now)) return *time;
  Refuse(text);
}

seconds ParsePeriod(const std::string& text) {
  const std::string lower = Cased(text, std::tolower);
  std::string_view rest = lower;
  const auto period = TakePeriod(rest);
  if (period && rest.empty()) return *period;
  throw std::invalid_argument("'" + text + "' is no stretch of time, such as 90s, 1h, '2 days' or 1h30m");
}

std::string LocalText(Time time) {
  const std::tm parts = LocalParts(time);
  const std::string text = Formatted("%Y-%m-%d %H:%M:%S", parts);
  return IsTwice(parts) ? text + ZoneText(parts.tm_gmtoff) : text;
}

std::string Rfc3339Text(Time time) {
  const std::time_t count = std::chrono::system_clock::to_time_t(time);
  std::tm parts{};
  ::gmtime_r(&count, &parts);
  return Formatted("%Y-%m-%dT%H:%M:%SZ", parts);
}

}  // namespace zav::pyxctl
