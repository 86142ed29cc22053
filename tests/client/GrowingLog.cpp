#include "GrowingLog.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <thread>
#include <vector>

namespace zav::client::test {
namespace {

constexpr std::int32_t kIsEnabled = 4;
constexpr std::int32_t kForward = 17;
constexpr std::int32_t kReverse = 18;
constexpr std::int32_t kReset = 19;
constexpr std::int32_t kCount = 20;

std::int32_t MethodOf(const std::string& header) {
  std::int32_t method = 0;
  std::memcpy(&method, header.data() + header.size() - sizeof(method), sizeof(method));
  return method;
}

template <std::size_t kNumber>
std::array<std::int32_t, kNumber> ReadWords(Peer& peer) {
  std::array<std::int32_t, kNumber> words{};
  const std::string bytes = peer.Read(sizeof(words));
  std::memcpy(words.data(), bytes.data(), std::min(bytes.size(), sizeof(words)));
  return words;
}

std::string JsonText(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

}  // namespace

void GrowingLog::Add(const std::string& url, std::int32_t timestamp, const std::string& threat) {
  const std::lock_guard guard(mutex_);
  entries_[++last_] = {url, timestamp, threat};
}

void GrowingLog::AddUpTo(int first, int last) {
  for (int number = first; number <= last; ++number) Add(number);
}

void GrowingLog::DropOldest(int count) {
  const std::lock_guard guard(mutex_);
  for (; count > 0; --count) entries_.erase(entries_.begin());
}

void GrowingLog::Reset() {
  const std::lock_guard guard(mutex_);
  entries_.clear();
}

void GrowingLog::ResetAll() {
  Reset();
  last_ = -1;
}

void GrowingLog::Renumber() {
  const std::lock_guard guard(mutex_);
  std::map<std::int32_t, Entry> renumbered;
  last_ = -1;
  for (const auto& [index, entry] : entries_) renumbered[++last_] = entry;
  entries_ = renumbered;
}

void GrowingLog::Serve(Peer& peer) {
  if (busy_) return Refuse(peer);
  std::this_thread::sleep_for(delay_.load());
  const std::int32_t method = MethodOf(peer.Read(Header(kForward).size()));
  if (method == kIsEnabled) return peer.Send(Words({0, 301, 1}));
  if (method == kForward || method == kReverse) {
    const auto [none, unused, from, to, count, start] = ReadWords<6>(peer);
    return peer.Send(AnswerTo(method == kReverse, from, to, count, start));
  }
  if (method == kCount) {
    const auto [none, unused, from, to] = ReadWords<4>(peer);
    return peer.Send(Words({Count(from, to)}));
  }
  if (method == kReset) {
    Reset();
    return peer.Send(Words({0}));
  }
  ADD_FAILURE() << "an unexpected method " << method;
}

std::string GrowingLog::AnswerTo(bool reverse, std::int32_t from, std::int32_t to, std::int32_t count,
                                 std::int32_t start) {
  const std::lock_guard guard(mutex_);
  if (to <= from) from = 0;
  const bool given = start >= 0 && start <= maxIndex_;
  std::vector<std::int32_t> found;
  for (const auto& [index, entry] : entries_) {
    if (given && (reverse ? index > start : index < start)) continue;
    if (from <= entry.timestamp && entry.timestamp <= to) found.push_back(index);
  }
  if (reverse) std::reverse(found.begin(), found.end());
  if (count > 0 && found.size() > static_cast<std::size_t>(count)) found.resize(static_cast<std::size_t>(count));
  if (found.empty()) return Words({-1});
  Json::Value records;
  for (const std::int32_t index : found) {
    const Entry& entry = entries_[index];
    Json::Value& record = records[std::to_string(index)];
    record["threat"] = entry.threat;
    record["timestamp"] = entry.timestamp;
    record["url"] = entry.url;
  }
  const std::string json = JsonText(records) + "\n";
  if (json.size() > kLongestAnswer) return Words({0, found.back()});
  return Words({0, found.back()}) + Text(json);
}

std::int32_t GrowingLog::Count(std::int32_t from, std::int32_t to) {
  const std::lock_guard guard(mutex_);
  return static_cast<std::int32_t>(std::count_if(entries_.begin(), entries_.end(), [from, to](const auto& each) {
    return from <= each.second.timestamp && each.second.timestamp <= to;
  }));
}

}  // namespace zav::client::test
