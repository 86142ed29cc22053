#include "support/LogModel.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <iterator>
#include <utility>

namespace zav::test {
namespace {

constexpr int kNoIndex = -1;
constexpr int kIndexBound = 2000;

int NumberOf(const std::optional<Numbers>& numbers, const std::string& name) {
  if (!numbers) return 0;
  const auto found = numbers->find(name);
  return found != numbers->end() ? found->second.value : 0;
}

/// Sums of 32 bits that wrap.
int Sum(int left, int right) {
  return static_cast<int>(static_cast<std::uint32_t>(left) + static_cast<std::uint32_t>(right));
}

bool IsBlank(char character) {
  return character == ' ' || (character >= '\t' && character <= '\r');
}

bool IsDigit(char character) {
  return character >= '0' && character <= '9';
}

/// The integer that a key begins with, blanks and a sign before it allowed; -1 where there is none of 32 bits.
int IndexOf(const std::string& key) {
  auto at = std::find_if_not(key.begin(), key.end(), IsBlank);
  const bool negative = at != key.end() && *at == '-';
  if (at != key.end() && (*at == '-' || *at == '+')) ++at;
  if (at == key.end() || !IsDigit(*at)) return kNoIndex;
  std::int64_t value = 0;
  for (; at != key.end() && IsDigit(*at); ++at) {
    value = 10 * value + (negative ? '0' - *at : *at - '0');
    if (value < INT_MIN || value > INT_MAX) return kNoIndex;
  }
  return static_cast<int>(value);
}

bool IsPlainIndex(const std::string& key) {
  return key == std::to_string(IndexOf(key));
}

}  // namespace

LogModel::LogModel(LogContent stored, bool loggingIsOn, int now) : log(std::move(stored)) {
  if (ConfigIsInvalid()) log.config = {{"max_index", {2000}}, {"max_file_size", {10}}, {"max_logging_period", {3600}}};
  if (!loggingIsOn || CountersAreInvalid()) Reset();
  DropOutdated(now);
}

int LogModel::Setting(const std::string& name) const {
  return NumberOf(log.config, name);
}

int LogModel::Counter(const std::string& name) const {
  return NumberOf(log.counters, name);
}

bool LogModel::ConfigIsInvalid() const {
  return Setting("max_index") == 0 || Setting("max_file_size") == 0 || Setting("max_logging_period") == 0;
}

bool LogModel::CountersAreInvalid() const {
  return !log.counters || Counter("count") < 0 || LastIndex() < kNoIndex || LastIndex() > kIndexBound;
}

int LogModel::FirstIndex() const {
  int first = kIndexBound;
  for (const auto& [key, record] : log.records) first = std::min(first, IndexOf(key));
  return first < kIndexBound ? first : kNoIndex;
}

bool LogModel::IsOrderly() const {
  const int maxIndex = Setting("max_index");
  return maxIndex > 0 && maxIndex <= kIndexBound && LastIndex() <= kIndexBound &&
         std::all_of(log.records.begin(), log.records.end(), [this](const auto& member) {
           const int index = IndexOf(member.first);
           return IsPlainIndex(member.first) && index >= 0 && index <= LastIndex() && member.second;
         });
}

bool LogModel::Report(const std::string& url, const std::string& threat, int now) {
  DropOutdated(now);
  if (url.empty()) return false;
  const std::string name = threat.empty() ? "undefined" : threat;

  if (LastIndex() >= Setting("max_index")) Renumber();
  // Compared as unsigned numbers: a negative limit is none.
  if (static_cast<unsigned>(Count()) >= static_cast<unsigned>(MaxFileSize())) DropLowest();

  const int index = Sum(LastIndex(), 1);
  const int count = Sum(Counter("count"), 1);
  const int seen = Sum(Counter(name), 1);
  log.records[std::to_string(index)] = LogRecord{url, name, now};
  // A threat that bears the name of a counter is counted there, last of all.
  (*log.counters)["count"] = {count};
  (*log.counters)["last_index"] = {index};
  (*log.counters)[name] = {seen};
  return true;
}

void LogModel::Renumber() {
  std::map<int, std::optional<LogRecord>> byIndex;
  for (const auto& [key, record] : log.records) byIndex[IndexOf(key)] = record;
  log.records.clear();
  int next = 0;
  for (const auto& [index, record] : byIndex) log.records[std::to_string(next++)] = record;
  (*log.counters)["last_index"] = {next - 1};
}

void LogModel::DropLowest() {
  const int first = FirstIndex();
  const auto lowest = std::find_if(log.records.begin(), log.records.end(), [first](const auto& member) {
    return IndexOf(member.first) == first && first != kNoIndex;
  });
  if (lowest != log.records.end()) log.records.erase(lowest);
}

void LogModel::DropOutdated(int now) {
  const int period = Setting("max_logging_period");
  std::erase_if(log.records, [&](const auto& member) {
    const auto& [key, record] = member;
    return !record || IndexOf(key) < 0 || Sum(record->timestamp, period) < now;
  });
}

void LogModel::DropRecords() {
  log.records.clear();
}

void LogModel::Reset() {
  log.records.clear();
  log.counters = {{"count", {0}}, {"last_index", {kNoIndex}}};
}

void LogModel::Configure(const LogSettings& settings) {
  const auto given = [this](int value, const char* name) { return value != 0 ? value : Setting(name); };
  const int period = std::clamp(given(settings.maxLoggingPeriod, "max_logging_period"), 3600, 31622400);
  const int fileSize = std::clamp(given(settings.maxFileSize, "max_file_size"), 10, 1000);
  const int index = given(settings.maxIndex, "max_index");
  const bool indexIsUnfit = index < fileSize || index > kIndexBound;
  log.config = {{"max_index", {indexIsUnfit ? kIndexBound : index}},
                {"max_file_size", {fileSize}},
                {"max_logging_period", {period}}};
}

/// The records at a range of indexes with time stamps in a range, all ends included.
std::map<int, LogRecord> LogModel::Between(int firstIndex, int lastIndex, int from, int to) const {
  std::map<int, LogRecord> found;
  for (const auto& [key, record] : log.records) {
    const int index = IndexOf(key);
    if (!IsPlainIndex(key) || index < 0 || index < firstIndex || index > lastIndex) continue;
    if (record && from <= record->timestamp && record->timestamp <= to) found[index] = *record;
  }
  return found;
}

LogFinding LogModel::FindForward(const LogRange& range) const {
  const bool startIsGiven = range.startIndex >= 0 && range.startIndex <= Setting("max_index");
  const int start = startIsGiven ? range.startIndex : FirstIndex();
  if (start < 0) return {start, {}};
  auto found = Between(start, LastIndex(), range.to <= range.from ? 0 : range.from, range.to);
  while (range.maxCount > 0 && static_cast<int>(found.size()) > range.maxCount) found.erase(std::prev(found.end()));
  return {found.empty() ? start : found.rbegin()->first, found};
}

LogFinding LogModel::FindBackward(const LogRange& range) const {
  const bool startIsGiven = range.startIndex >= 0 && range.startIndex <= Setting("max_index");
  const int start = startIsGiven ? range.startIndex : LastIndex();
  if (FirstIndex() < 0) return {start, {}};
  auto found = Between(FirstIndex(), start, range.to <= range.from ? 0 : range.from, range.to);
  while (range.maxCount > 0 && static_cast<int>(found.size()) > range.maxCount) found.erase(found.begin());
  return {found.empty() ? start : found.begin()->first, found};
}

int LogModel::CountBetween(int from, int to) const {
  return FirstIndex() < 0 ? 0 : static_cast<int>(Between(FirstIndex(), LastIndex(), from, to).size());
}

LogSummary LogModel::Summarise(int now) {
  DropOutdated(now);
  LogSummary summary;
  int total = 0;
  for (const auto& [key, record] : log.records) {
    if (record->url.empty()) continue;
    ++total;
    ++summary.inStorage[record->threat.empty() ? "undefined" : record->threat].value;
  }
  // Over a threat of that name.
  if (total > 0) summary.inStorage["count"] = {total};
  summary.config = *log.config;
  summary.counters = *log.counters;
  summary.counters.erase("last_index");
  return summary;
}

}  // namespace zav::test
