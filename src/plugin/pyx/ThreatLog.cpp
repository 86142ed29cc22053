#include "pyx/ThreatLog.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <tuple>
#include <utility>

namespace zav::pyx {
namespace {

using policy::KeyAsString;
using policy::Policy;
using policy::PolicyView;

const char* const kUrl = "url";
const char* const kThreat = "threat";
const char* const kTimestamp = "timestamp";
const std::string kNothing;

/// What room is left unused after much has gone is given back, unless it is little. A summary is kept if it is.
constexpr std::size_t kRoomToKeep = 65536;
/// So many places of records that went are kept for a while.
constexpr std::size_t kPlacesToKeep = 64;

/// The number that a key begins with; -1 where there is none, or none that is an int.
int IndexStrToInt(const std::string& text) {
  try {
    return std::stoi(text);
  } catch (const std::logic_error&) {
    return -1;
  }
}

/// Whether a key is the plain decimal text of its index.
bool IsPlain(const std::string& key) {
  int index = 0;
  const char* end = key.data() + key.size();
  const auto [rest, error] = std::from_chars(key.data(), end, index);
  return error == std::errc() && rest == end && key[0] != '-' && (key.size() == 1 || key[0] != '0');
}

std::string PieceOf(const std::string& key, std::string_view value) {
  return std::string(",").append(KeyAsString(key)).append(":").append(value);
}

/// @param policy  an object.
std::string PieceOf(const std::string& key, const Policy& policy) {
  const std::string value = policy.AsString();
  return PieceOf(key, std::string_view(value).substr(0, value.size() - 1));
}

bool StandsBefore(const ThreatLog::Member* left, const ThreatLog::Member* right) {
  return left->offset < right->offset;
}

bool HasLowerKey(const ThreatLog::Member* left, const ThreatLog::Member* right) {
  return left->key < right->key;
}

bool HasLowerIndex(const ThreatLog::Record& left, const ThreatLog::Record& right) {
  return std::tie(left.index, left.key) < std::tie(right.index, right.key);
}

}  // namespace

ThreatLog::ThreatLog(const Policy& storage) {
  storage.ForEachMember([&](const std::string& key, const PolicyView& member) {
    if (key == configMember.key || key == countersMember.key) {
      if (member.isNull()) return;
      const bool isConfig = key == configMember.key;
      (isConfig ? config : counters) = member.Copy();
      Append(isConfig ? configMember : countersMember, storage.MemberAsString(key));
      return;
    }
    Record& record = records.emplace_back();
    record.key = key;
    Append(record, storage.MemberAsString(key));
    record.index = IndexStrToInt(key);
    if (member.isNull()) return;
    record.isObject = true;
    record.isPlain = IsPlain(key);
    record.timestamp = member.GetIntValue(kTimestamp);
    if (member.GetStringValue(kUrl).empty()) return;
    const std::string threat = member.GetStringValue(kThreat);
    Count(record, threat.empty() ? kUndefinedThreat : threat);
  });
  std::sort(records.begin(), records.end(), HasLowerIndex);
}

const std::string& ThreatLog::Text() const {
  return text.size() > kEnd.size() ? text : kNothing;
}

Policy ThreatLog::Summary() const {
  int total = 0;
  Policy tally;
  for (const auto& [threat, count] : threats) {
    if (count == 0) continue;
    tally.SetIntValue(threat, count);
    total += count;
  }
  if (total > 0) tally.SetIntValue("count", total);

  Policy seen = counters;
  seen.DeleteValue("last_index");
  Policy result;
  result.SetSubPolicy("in_storage", std::move(tally));
  result.SetSubPolicy(configMember.key, config);
  result.SetSubPolicy(countersMember.key, std::move(seen));
  return result;
}

std::string ThreatLog::SummaryText() {
  if (!summary.empty()) return summary;
  std::string made = Summary().AsString();
  if (made.size() <= kRoomToKeep) summary = made;
  return made;
}

void ThreatLog::Count(Record& record, const std::string& threat) {
  record.threat = &*threats.try_emplace(threat, 0).first;
  ++record.threat->second;
}

void ThreatLog::Uncount(const Record& record) {
  if (record.threat != nullptr && --record.threat->second == 0) threats.erase(threats.find(record.threat->first));
}

template <class Visit>
void ThreatLog::ForEachMember(Visit visit) {
  for (Record& record : Present()) visit(static_cast<Member&>(record));
  visit(configMember);
  visit(countersMember);
}

/// @param member  of all the one with the last key.
void ThreatLog::Append(Member& member, std::string_view value) {
  Changed();
  const std::string piece = PieceOf(member.key, value);
  member.offset = text.size() - kEnd.size();
  member.size = piece.size();
  text.insert(member.offset, piece);
  text[0] = '{';
}

/// @param piece  there is room for it.
void ThreatLog::Insert(Member& member, std::string_view piece) {
  Changed();
  std::size_t at = text.size() - kEnd.size();
  ForEachMember([&](const Member& other) {
    if (other.size > 0 && other.offset < at && other.key > member.key) at = other.offset;
  });
  Shift(at, at + piece.size());
  text.insert(at, piece);
  if (at == 0) {
    if (text[piece.size()] == '{') text[piece.size()] = ',';
    text[0] = '{';
  }
  member.offset = at;
  member.size = piece.size();
}

/// Puts a member where it stands already, and inserts it where it does not.
/// @param piece  there is room for it.
void ThreatLog::Put(Member& member, std::string_view piece) {
  if (member.size == 0) {
    Insert(member, piece);
    return;
  }
  Changed();
  const std::size_t end = member.offset + member.size;
  const bool isLast = end + kEnd.size() == text.size();
  text.replace(member.offset, member.size, piece);
  if (member.offset == 0) text[0] = '{';
  member.size = piece.size();
  // The counters are the last member of most logs: then nothing else moves.
  if (!isLast) Shift(end, member.offset + member.size);
}

void ThreatLog::Erase(const Member& member) {
  Changed();
  text.erase(member.offset, member.size);
  if (text[0] == ',') text[0] = '{';
  Shift(member.offset + member.size, member.offset);
}

/// Notes that the members which stood from an offset on begin at another one.
void ThreatLog::Shift(std::size_t from, std::size_t to) {
  ForEachMember([&](Member& member) {
    if (member.offset >= from) member.offset += to - from;
  });
}

void ThreatLog::ShrinkText() {
  if (text.capacity() > kRoomToKeep && text.capacity() / 4 > text.size()) text.shrink_to_fit();
}

void ThreatLog::Set(Member& member, Policy& field, Policy&& policy) {
  if (policy.isNull()) return;
  const std::string piece = PieceOf(member.key, policy);
  text.reserve(text.size() + piece.size());
  Put(member, piece);
  field = std::move(policy);
}

void ThreatLog::Add(int index, const std::string& url, const std::string& threat, int timestamp, Policy&& newCounters) {
  Record record;
  record.key = std::to_string(index);
  record.index = index;
  Policy content;
  content.SetStringValue(kUrl, url);
  content.SetStringValue(kThreat, threat);
  content.SetIntValue(kTimestamp, timestamp);
  const std::string piece = PieceOf(record.key, content);
  const std::string countersPiece = PieceOf(countersMember.key, newCounters);

  text.reserve(text.size() + piece.size() + countersPiece.size());
  Threats::value_type& counted = *threats.try_emplace(threat, 0).first;
  auto place =
      std::lower_bound(records.begin() + static_cast<std::ptrdiff_t>(gone), records.end(), record, HasLowerIndex);
  if (place == records.end() || HasLowerIndex(record, *place)) place = records.insert(place, std::move(record));

  // From here on nothing needs memory.
  ++counted.second;
  Uncount(*place);
  place->isObject = place->isPlain = true;
  place->timestamp = timestamp;
  place->threat = &counted;
  Put(*place, piece);
  Put(countersMember, countersPiece);
  counters = std::move(newCounters);
}

void ThreatLog::RemoveFirst() {
  Record& first = records[gone];
  Erase(first);
  Uncount(first);
  if (++gone == kPlacesToKeep) CloseUp();
  ShrinkText();
}

/// Gives up the places of the records that went.
void ThreatLog::CloseUp() {
  records.erase(records.begin(), records.begin() + static_cast<std::ptrdiff_t>(gone));
  gone = 0;
}

bool ThreatLog::Keep(const std::function<bool(const Record&)>& isWanted) {
  const Records all = GetRecords();
  if (std::all_of(all.begin(), all.end(), isWanted)) return false;
  CloseUp();
  std::vector<Member*> kept{&configMember, &countersMember};
  for (Record& record : records) {
    if (isWanted(record)) kept.push_back(&record);
  }
  std::sort(kept.begin(), kept.end(), StandsBefore);

  // From here on nothing needs memory. One pass, however many go: what is kept closes up.
  Changed();
  std::size_t end = 0;
  for (Member* member : kept) {
    std::memmove(&text[end], &text[member->offset], member->size);
    member->offset = end;
    end += member->size;
  }
  text.erase(end, text.size() - kEnd.size() - end);
  if (end > 0) text[0] = '{';
  for (const Record& record : records) {
    if (!isWanted(record)) Uncount(record);
  }
  std::erase_if(records, std::not_fn(isWanted));
  ShrinkText();
  return true;
}

ThreatLog ThreatLog::Renumbered() const {
  ThreatLog fresh;
  fresh.text.reserve(text.size());
  const Records all = GetRecords();
  // By their new indexes; the places of the new ones stay what they are while there are more to come.
  fresh.records.reserve(all.size());
  std::vector<const Record*> old;
  std::vector<Member*> inTextOrder;
  for (auto record = all.begin(); record != all.end(); ++record) {
    const auto next = std::next(record);
    if (next != all.end() && next->index == record->index) continue;
    Record& renumbered = fresh.records.emplace_back();
    renumbered.index = static_cast<int>(old.size());
    renumbered.key = std::to_string(renumbered.index);
    renumbered.isObject = renumbered.isPlain = true;
    renumbered.timestamp = record->timestamp;
    if (record->threat != nullptr) fresh.Count(renumbered, record->threat->first);
    inTextOrder.push_back(&renumbered);
    old.push_back(&*record);
  }
  std::sort(inTextOrder.begin(), inTextOrder.end(), HasLowerKey);
  for (Member* member : inTextOrder) {
    fresh.Append(*member, ValueOf(*old[static_cast<unsigned>(static_cast<Record*>(member)->index)]));
  }
  fresh.SetConfig(Policy(config));
  fresh.SetCounters(Policy(counters));
  return fresh;
}

std::string_view ThreatLog::ValueOf(const Record& record) const {
  const std::string_view piece = std::string_view(text).substr(record.offset, record.size);
  return piece.substr(PieceOf(record.key, std::string_view()).size());
}

std::string ThreatLog::TextOf(Selection selection) const {
  if (selection.empty()) return {};
  std::sort(selection.begin(), selection.end(), StandsBefore);
  std::size_t size = kEnd.size();
  for (const Record* record : selection) size += record->size;
  std::string result;
  result.reserve(size);
  for (const Record* record : selection) {
    result.append(text, record->offset, record->size);
    result[result.size() - record->size] = ',';
  }
  result[0] = '{';
  return result.append(kEnd);
}

}  // namespace zav::pyx
