#include "pyx/State.h"

#include <algorithm>
#include <ctime>
#include <iterator>
#include <memory>
#include <utility>

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

const char* const kMaxIndex = "max_index";
const char* const kMaxFileSize = "max_file_size";
const char* const kMaxLoggingPeriod = "max_logging_period";
constexpr int kDefaultMaxIndex = 2000;
constexpr int kDefaultMaxFileSize = 10;
constexpr int kDefaultMaxLoggingPeriod = 3600;

const char* const kCount = "count";
const char* const kLastIndex = "last_index";
constexpr int kNoIndex = -1;
// The highest last index that a stored log may have, and the bound of the search for the lowest one. Fixed, whatever
// the configured "max_index" is.
constexpr int kIndexBound = 2000;

// Made on first use, but ended with the library's globals: a local of Instance would end before the service manager
// does, whose threads still use it then.
std::unique_ptr<State> theState;

/// Counters and time stamps are any 32-bit values that once were stored: their sums wrap.
int WrappingAdd(int left, int right) {
  return static_cast<int>(static_cast<unsigned>(left) + static_cast<unsigned>(right));
}

int Now() {
  return static_cast<int>(time(nullptr));
}

/// The record with the lowest index, where that is below the bound: it is the first one. Null where there is none.
const ThreatLog::Record* FindLowest(const ThreatLog& log) {
  const ThreatLog::Records records = log.GetRecords();
  return !records.empty() && records.front().index < kIndexBound ? &records.front() : nullptr;
}

/// The records of a range of indexes, both ends included.
auto RecordsBetween(const ThreatLog& log, int first, int last) {
  const ThreatLog::Records records = log.GetRecords();
  const auto begin = std::partition_point(records.begin(), records.end(),
                                          [&](const ThreatLog::Record& record) { return record.index < first; });
  const auto end =
      std::partition_point(begin, records.end(), [&](const ThreatLog::Record& record) { return record.index <= last; });
  return std::pair(begin, end);
}

/// Seconds since the epoch, both included.
struct TimeRange {
  int from;
  int to;
};

/// Whether a record is one that a search may find: it goes by the plain text of its index.
bool IsFound(const ThreatLog::Record& record, const TimeRange& times) {
  return record.isPlain && times.from <= record.timestamp && record.timestamp <= times.to;
}

/// @param maxCount  0 or less: no limit.
template <class Iterator>
ThreatLog::Selection Select(Iterator begin, Iterator end, const TimeRange& times, int maxCount) {
  ThreatLog::Selection found;
  for (; begin != end && (maxCount <= 0 || found.size() < static_cast<unsigned>(maxCount)); ++begin) {
    if (IsFound(*begin, times)) found.push_back(&*begin);
  }
  return found;
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
  storage = ThreatLog(PolicyHandler.GetPolicy(kStoragePolicy));
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
  const Policy& counters = storage.Counters();
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
  DropRecords(std::move(counters));
}

/// Begins a log with the same configuration.
void State::DropRecords(Policy&& counters) {
  ThreatLog fresh;
  fresh.SetConfig(Policy(storage.Config()));
  fresh.SetCounters(std::move(counters));
  storage = std::move(fresh);
}

int State::SaveStorage() {
  return PolicyHandler.UpdatePolicy(kStoragePolicy, storage.Text());
}

void State::RemoveOutdatedRecords(int now) {
  const int period = Config().GetIntValue(kMaxLoggingPeriod);
  const auto isWanted = [&](const ThreatLog::Record& record) {
    return record.isObject && record.index >= 0 && WrappingAdd(record.timestamp, period) >= now;
  };
  if (storage.Keep(isWanted)) SaveStorage();
}

int State::ResetLog() {
  const std::lock_guard guard(mutex);
  DropRecords(Policy(storage.Counters()));
  return SaveStorage();
}

Policy State::GetLogStatus() {
  const std::lock_guard guard(mutex);
  RemoveOutdatedRecords(Now());
  return storage.Summary();
}

std::string State::GetLogStatusText() {
  const std::lock_guard guard(mutex);
  RemoveOutdatedRecords(Now());
  return storage.SummaryText();
}

int State::GetFirstIndex() const {
  const ThreatLog::Record* lowest = FindLowest(storage);
  return lowest != nullptr ? lowest->index : kNoIndex;
}

int State::LogThreatUrl(const std::string& url, const std::string& threat, int now) {
  RemoveOutdatedRecords(now);
  if (url.empty()) return -1;

  const int maxFileSize = Config().GetIntValue(kMaxFileSize);
  if (storage.Counters().GetIntValue(kLastIndex) >= Config().GetIntValue(kMaxIndex)) RenumberRecords();

  if (storage.GetRecords().size() >= static_cast<unsigned>(maxFileSize)) {
    if (const ThreatLog::Record* lowest = FindLowest(storage)) {
      const std::string key = lowest->key;
      storage.RemoveFirst();
      LOG_INFO("Record [", key, "] deleted");
    }
  }
  AddRecord(url, threat.empty() ? kUndefinedThreat : threat, now);
  return SaveStorage() == 0 ? 0 : -1;
}

void State::RenumberRecords() {
  ThreatLog renumbered = storage.Renumbered();
  Policy counters = storage.Counters();
  counters.SetIntValue(kLastIndex, static_cast<int>(renumbered.GetRecords().size()) - 1);
  renumbered.SetCounters(std::move(counters));
  storage = std::move(renumbered);
}

void State::AddRecord(const std::string& url, const std::string& threat, int now) {
  Policy counters = storage.Counters();
  const int index = WrappingAdd(counters.GetIntValue(kLastIndex), 1);
  // Read before the counters are written: a threat may bear the name of one of them.
  const int seen = counters.GetIntValue(threat);
  Increment(counters, kCount);
  counters.SetIntValue(kLastIndex, index);
  counters.SetIntValue(threat, WrappingAdd(seen, 1));
  storage.Add(index, url, threat, now, std::move(counters));
}

LogSlice State::FindRecords(const LogQuery& query, LogOrder order) const {
  const bool forward = order == LogOrder::kOldestFirst;
  const int first = GetFirstIndex();
  const int last = storage.Counters().GetIntValue(kLastIndex);
  const bool startIsGiven = query.startIndex >= 0 && query.startIndex <= Config().GetIntValue(kMaxIndex);
  const int start = startIsGiven ? query.startIndex : (forward ? first : last);
  if ((forward ? start : first) < 0) return {start, {}};

  const TimeRange times{query.to <= query.from ? 0 : query.from, query.to};
  const auto [begin, end] = RecordsBetween(storage, forward ? start : first, forward ? last : start);
  const ThreatLog::Selection found =
      forward ? Select(begin, end, times, query.maxCount)
              : Select(std::reverse_iterator(end), std::reverse_iterator(begin), times, query.maxCount);
  return {found.empty() ? start : found.back()->index, storage.TextOf(found)};
}

int State::CountRecords(int from, int to) const {
  const int first = GetFirstIndex();
  if (first < 0) return 0;
  const auto [begin, end] = RecordsBetween(storage, first, storage.Counters().GetIntValue(kLastIndex));
  const TimeRange times{from, to};
  return static_cast<int>(std::count_if(begin, end, [&](const auto& record) { return IsFound(record, times); }));
}

}  // namespace zav::pyx
