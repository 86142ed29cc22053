#include "pyx/State.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "common/Log.h"
#include "pyx/PolicyHandler.h"

namespace zav::pyx {
namespace {

using policy::Policy;
using policy::PolicyView;

const char* const kStatePolicy = "State";
const char* const kStoragePolicy = "Storage";

const char* const kPyxState = "pyx_state";
const char* const kLoggingState = "logging_state";
const char* const kEnabled = "enabled";
const char* const kDisabled = "disabled";

const char* const kConfig = "config";
const char* const kMaxIndex = "max_index";
const char* const kMaxFileSize = "max_file_size";
const char* const kMaxLoggingPeriod = "max_logging_period";
constexpr int kDefaultMaxIndex = 2000;
constexpr int kDefaultMaxFileSize = 10;
constexpr int kDefaultMaxLoggingPeriod = 3600;

const char* const kCounters = "state";
const char* const kCount = "count";
const char* const kLastIndex = "last_index";
constexpr int kNoIndex = -1;
// The highest last index that a stored log may have, and the bound of the search for the lowest one. Fixed, whatever
// the configured "max_index" is.
constexpr int kIndexBound = 2000;

const char* const kInStorage = "in_storage";
const char* const kUrl = "url";
const char* const kThreat = "threat";
const char* const kTimestamp = "timestamp";
const char* const kUndefinedThreat = "undefined";

// Made on first use, but ended with the library's globals: a local of Instance would end before the service manager
// does, whose threads still use it then.
std::unique_ptr<State> theState;

bool IsRecord(const std::string& key) {
  return key != kConfig && key != kCounters;
}

/// The number that a key begins with; -1 where there is none, or none that is an int.
int IndexStrToInt(const std::string& text) {
  try {
    return std::stoi(text);
  } catch (const std::logic_error&) {
    return kNoIndex;
  }
}

/// The index whose plain decimal text a key is.
std::optional<int> ExactIndex(const std::string& key) {
  int index = 0;
  const char* end = key.data() + key.size();
  const auto [rest, error] = std::from_chars(key.data(), end, index);
  if (error != std::errc() || rest != end || key[0] == '-' || (key.size() > 1 && key[0] == '0')) return std::nullopt;
  return index;
}

/// Counters and time stamps are any 32-bit values that once were stored: their sums wrap.
int WrappingAdd(int left, int right) {
  return static_cast<int>(static_cast<unsigned>(left) + static_cast<unsigned>(right));
}

int Now() {
  return static_cast<int>(time(nullptr));
}

/// The record with the lowest index below the bound; of two with one index, the first in key order.
struct Lowest {
  int index = kNoIndex;
  std::string key;
};

std::optional<Lowest> FindLowest(const Policy& storage) {
  std::optional<Lowest> lowest;
  int best = kIndexBound;
  storage.ForEachMember([&](const std::string& key, const PolicyView&) {
    if (!IsRecord(key)) return;
    const int index = IndexStrToInt(key);
    if (index >= best) return;
    best = index;
    lowest = Lowest{index, key};
  });
  return lowest;
}

using IndexedRecords = std::vector<std::pair<int, PolicyView>>;

/// The records of a range of indexes and times, both ends included, in ascending order of their indexes. Walks what
/// exists: the width of the range costs nothing.
IndexedRecords RecordsBetween(const Policy& storage, int firstIndex, int lastIndex, int from, int to) {
  IndexedRecords records;
  storage.ForEachMember([&](const std::string& key, const PolicyView& record) {
    const std::optional<int> index = ExactIndex(key);
    if (!index || *index < firstIndex || *index > lastIndex || record.isNull()) return;
    const int timestamp = record.GetIntValue(kTimestamp);
    if (from <= timestamp && timestamp <= to) records.emplace_back(*index, record);
  });
  std::sort(records.begin(), records.end(),
            [](const auto& left, const auto& right) { return left.first < right.first; });
  return records;
}

void ReadSwitch(const Policy& state, const char* key, State::Enum& field) {
  const std::string text = state.GetStringValue(key);
  if (text == kEnabled) field = State::Enabled;
  if (text == kDisabled) field = State::Disabled;
}

Policy DefaultConfig() {
  Policy config;
  config.SetIntValue(kMaxIndex, kDefaultMaxIndex);
  config.SetIntValue(kMaxFileSize, kDefaultMaxFileSize);
  config.SetIntValue(kMaxLoggingPeriod, kDefaultMaxLoggingPeriod);
  return config;
}

bool IsInvalidConfig(const PolicyView& config) {
  return config.isNull() || config.GetIntValue(kMaxIndex) == 0 || config.GetIntValue(kMaxFileSize) == 0 ||
         config.GetIntValue(kMaxLoggingPeriod) == 0;
}

void Increment(Policy& counters, const std::string& key) {
  counters.SetIntValue(key, WrappingAdd(counters.GetIntValue(key), 1));
}

}  // namespace

State& State::Instance() {
  static State& instance = *(theState = std::unique_ptr<State>(new State));
  return instance;
}

State::State() {
  Load();
  ValidateStorage();
  RemoveOutdatedRecords(Now());
}

void State::Load() {
  storage = PolicyHandler.GetPolicy(kStoragePolicy);
  const Policy state = PolicyHandler.GetPolicy(kStatePolicy);
  ReadSwitch(state, kPyxState, pyxState);
  ReadSwitch(state, kLoggingState, loggingState);
}

void State::ValidateStorage() {
  bool rewritten = false;
  if (IsInvalidConfig(Config())) {
    SetConfig(DefaultConfig());
    rewritten = true;
  }
  // A log that is switched off does not outlive a start.
  if (loggingState == Disabled || CountersAreInvalid()) {
    ResetState();
    rewritten = true;
  }
  if (rewritten && SaveStorage() != 0) LOG_ERROR("Failed to reset storage data");
}

bool State::CountersAreInvalid() const {
  const PolicyView counters = storage.Member(kCounters);
  return counters.isNull() || counters.GetIntValue(kCount) < 0 || counters.GetIntValue(kLastIndex) < kNoIndex ||
         counters.GetIntValue(kLastIndex) > kIndexBound;
}

int State::ApplySwitch(Enum& field, Enum value, const char* key) {
  if (value == field) return 0;
  field = value;
  Policy state = PolicyHandler.GetPolicy(kStatePolicy);
  state.SetStringValue(key, field == Disabled ? kDisabled : kEnabled);
  return PolicyHandler.UpdatePolicy(kStatePolicy, state);
}

int State::ApplyPyxState(const Enum& value) {
  const std::lock_guard guard(mutex);
  const int result = ApplySwitch(pyxState, value, kPyxState);
  if (result != 0) LOG_ERROR("Failed to change PYX state");
  return result;
}

int State::ApplyLoggingState(const Enum& value) {
  const std::lock_guard guard(mutex);
  const int result = ApplySwitch(loggingState, value, kLoggingState);
  if (result != 0) LOG_ERROR("Failed to change STAT state");
  return result;
}

void State::ResetState() {
  Policy counters;
  counters.SetIntValue(kCount, 0);
  counters.SetIntValue(kLastIndex, kNoIndex);
  Policy fresh;
  fresh.SetSubPolicy(kConfig, storage.GetSubPolicy(kConfig));
  fresh.SetSubPolicy(kCounters, std::move(counters));
  storage = std::move(fresh);
}

int State::SaveStorage() {
  return PolicyHandler.UpdatePolicy(kStoragePolicy, storage);
}

void State::RemoveOutdatedRecords(int now) {
  const int period = Config().GetIntValue(kMaxLoggingPeriod);
  std::vector<std::string> outdated;
  storage.ForEachMember([&](const std::string& key, const PolicyView& record) {
    if (!IsRecord(key)) return;
    if (record.isNull() || IndexStrToInt(key) < 0 || WrappingAdd(record.GetIntValue(kTimestamp), period) < now) {
      outdated.push_back(key);
    }
  });
  if (outdated.empty()) return;
  for (const std::string& key : outdated) storage.DeleteValue(key);
  SaveStorage();
}

int State::ResetLog() {
  const std::lock_guard guard(mutex);
  Policy kept;
  kept.SetSubPolicy(kConfig, storage.GetSubPolicy(kConfig));
  kept.SetSubPolicy(kCounters, storage.GetSubPolicy(kCounters));
  storage = std::move(kept);
  return SaveStorage();
}

Policy State::GetLogStatus() {
  const std::lock_guard guard(mutex);
  RemoveOutdatedRecords(Now());

  int total = 0;
  Policy tally;
  storage.ForEachMember([&](const std::string& key, const PolicyView& record) {
    if (!IsRecord(key) || record.GetStringValue(kUrl).empty()) return;
    ++total;
    const std::string threat = record.GetStringValue(kThreat);
    Increment(tally, threat.empty() ? kUndefinedThreat : threat);
  });
  if (total > 0) tally.SetIntValue(kCount, total);

  Policy counters = storage.GetSubPolicy(kCounters);
  counters.DeleteValue(kLastIndex);
  Policy status;
  status.SetSubPolicy(kInStorage, std::move(tally));
  status.SetSubPolicy(kConfig, storage.GetSubPolicy(kConfig));
  status.SetSubPolicy(kCounters, std::move(counters));
  return status;
}

int State::GetFirstIndex() const {
  const std::optional<Lowest> lowest = FindLowest(storage);
  return lowest ? lowest->index : kNoIndex;
}

int State::LogThreatUrl(const std::string& url, const std::string& threat, int now) {
  RemoveOutdatedRecords(now);
  if (url.empty()) return -1;

  const int maxFileSize = Config().GetIntValue(kMaxFileSize);
  if (storage.Member(kCounters).GetIntValue(kLastIndex) >= Config().GetIntValue(kMaxIndex)) RenumberRecords();

  // Two of the members are the configuration and the counters.
  if (storage.MemberCount() - 2 >= static_cast<unsigned>(maxFileSize)) {
    if (const std::optional<Lowest> lowest = FindLowest(storage)) {
      storage.DeleteValue(lowest->key);
      LOG_INFO("Record [", lowest->key, "] deleted");
    }
  }
  AddRecord(url, threat.empty() ? kUndefinedThreat : threat, now);
  return SaveStorage() == 0 ? 0 : -1;
}

void State::RenumberRecords() {
  std::map<int, PolicyView> byIndex;
  storage.ForEachMember([&](const std::string& key, const PolicyView& record) {
    if (IsRecord(key)) byIndex[IndexStrToInt(key)] = record;
  });

  Policy renumbered;
  renumbered.SetSubPolicy(kConfig, storage.GetSubPolicy(kConfig));
  int index = kNoIndex;
  for (const auto& [oldIndex, record] : byIndex) renumbered.SetSubPolicy(std::to_string(++index), record.Copy());

  Policy counters = storage.GetSubPolicy(kCounters);
  counters.SetIntValue(kLastIndex, index);
  renumbered.SetSubPolicy(kCounters, std::move(counters));
  storage = std::move(renumbered);
}

void State::AddRecord(const std::string& url, const std::string& threat, int now) {
  Policy record;
  record.SetStringValue(kUrl, url);
  record.SetStringValue(kThreat, threat);
  record.SetIntValue(kTimestamp, now);

  Policy counters = storage.GetSubPolicy(kCounters);
  const int index = WrappingAdd(counters.GetIntValue(kLastIndex), 1);
  // Read before the counters are written: a threat may bear the name of one of them.
  const int seen = counters.GetIntValue(threat);
  Increment(counters, kCount);
  counters.SetIntValue(kLastIndex, index);
  counters.SetIntValue(threat, WrappingAdd(seen, 1));

  storage.SetSubPolicy(std::to_string(index), std::move(record));
  storage.SetSubPolicy(kCounters, std::move(counters));
}

LogSlice State::FindRecords(const LogQuery& query, LogOrder order) const {
  const bool forward = order == LogOrder::kOldestFirst;
  const int first = GetFirstIndex();
  const int last = storage.Member(kCounters).GetIntValue(kLastIndex);
  const bool startIsGiven = query.startIndex >= 0 && query.startIndex <= Config().GetIntValue(kMaxIndex);
  const int start = startIsGiven ? query.startIndex : (forward ? first : last);

  LogSlice slice{start, {}};
  if ((forward ? start : first) < 0) return slice;

  const int from = query.to <= query.from ? 0 : query.from;
  IndexedRecords records = forward ? RecordsBetween(storage, start, last, from, query.to)
                                   : RecordsBetween(storage, first, start, from, query.to);
  if (!forward) std::reverse(records.begin(), records.end());
  if (query.maxCount > 0 && records.size() > static_cast<unsigned>(query.maxCount)) {
    records.resize(static_cast<unsigned>(query.maxCount));
  }
  for (const auto& [index, record] : records) {
    slice.records.SetSubPolicy(std::to_string(index), record.Copy());
    slice.lastIndex = index;
  }
  return slice;
}

int State::CountRecords(int from, int to) const {
  const int first = GetFirstIndex();
  if (first < 0) return 0;
  const int last = storage.Member(kCounters).GetIntValue(kLastIndex);
  return static_cast<int>(RecordsBetween(storage, first, last, from, to).size());
}

PolicyView State::Config() const {
  return storage.Member(kConfig);
}

void State::SetConfig(Policy&& config) {
  storage.SetSubPolicy(kConfig, std::move(config));
}

}  // namespace zav::pyx
