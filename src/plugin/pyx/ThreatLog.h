#pragma once

#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "policy/Policy.h"

namespace zav::pyx {

/// The threat of a record that names none.
inline constexpr const char* kUndefinedThreat = "undefined";

/// The threat log with its configuration and counters, kept as the text that is stored: the policy "Storage" as
/// `Policy::AsString` would have it. A change costs the bytes that it moves, however many records there are, and
/// neither a save nor an answer renders any of them again.
///
/// Beside the text stands what the rules of the log ask of a record, how many there are of each threat, and the summary
/// that was asked for last. They are right because nothing but the operations here changes any of them, and each of
/// these changes them together; the summary is made anew after any change. One that finds no memory throws and leaves
/// all of them as they were.
///
/// One object, `State`'s; whoever uses it holds that one's mutex.
class ThreatLog {
 public:
  /// Where a member of the policy stands in the text.
  struct Member {
    std::string key;
    std::size_t offset = 0;
    /// 0: it does not stand there.
    std::size_t size = 0;
  };

  /// How many records there are of each threat, those of an empty url left out. A threat with 0 has none.
  using Threats = std::map<std::string, int, std::less<>>;

  struct Record : Member {
    /// The number that the key begins with; -1 where there is none, or none that is an `int`.
    int index = -1;
    /// Whether it is a record at all: an object.
    bool isObject = false;
    /// Whether it is one, and the key is the index's plain decimal text.
    bool isPlain = false;
    /// Seconds since the epoch; 0 where there is none.
    int timestamp = 0;
    /// Where it is counted; null where it is not.
    Threats::value_type* threat = nullptr;
  };
  using Records = std::span<const Record>;
  /// Some of the records.
  using Selection = std::vector<const Record*>;

  /// Nothing at all: no configuration, no counters, no record.
  ThreatLog() = default;
  /// The same log as that of a policy. What stands in the place of the configuration or of the counters and is no
  /// object is left out.
  explicit ThreatLog(const policy::Policy& storage);
  ThreatLog(ThreatLog&&) = default;
  ThreatLog& operator=(ThreatLog&&) = default;

  /// Ready to be stored; empty where there is nothing at all.
  const std::string& Text() const;

  /// Null where there is none.
  const policy::Policy& Config() const { return config; }
  const policy::Policy& Counters() const { return counters; }
  /// @param policy  a null one changes nothing.
  void SetConfig(policy::Policy&& policy) { Set(configMember, config, std::move(policy)); }
  void SetCounters(policy::Policy&& policy) { Set(countersMember, counters, std::move(policy)); }

  /// "in_storage" (how many records there are of each threat, and "count" of all; missing where there is none),
  /// "config" and "state" without "last_index".
  policy::Policy Summary() const;
  /// The same as text, which is kept until the log changes.
  std::string SummaryText();

  /// By ascending index; of two with the same, in the order of their keys. Valid until the log changes.
  Records GetRecords() const { return Records(records).subspan(gone); }
  const Threats& GetThreats() const { return threats; }

  /// Adds a record, in the place of one with the same key, together with the counters that go with it.
  /// @param index   not negative.
  /// @param url     not empty, as `threat`.
  void Add(int index, const std::string& url, const std::string& threat, int timestamp, policy::Policy&& newCounters);

  /// Removes the record with the lowest index. There is one.
  void RemoveFirst();

  /// Removes every record for which `isWanted` is false. @return whether there was one.
  bool Keep(const std::function<bool(const Record&)>& isWanted);

  /// @return the same log with new indexes for its records: 0, 1, 2 and so on, in the order of the old ones; of two
  ///         with the same old one, that stays whose key comes last. The counters are as they were.
  ThreatLog Renumbered() const;

  /// @return the records alone, as the text of a policy of which each is a member; empty for none.
  /// @param selection  in any order.
  std::string TextOf(Selection selection) const;

 private:
  void Set(Member& member, policy::Policy& field, policy::Policy&& policy);
  template <class Visit>
  void ForEachMember(Visit visit);
  void Append(Member& member, std::string_view value);
  void Insert(Member& member, std::string_view piece);
  void Put(Member& member, std::string_view piece);
  void Erase(const Member& member);
  void Shift(std::size_t from, std::size_t to);
  void ShrinkText();
  void Changed() { summary.clear(); }
  std::string_view ValueOf(const Record& record) const;
  std::span<Record> Present() { return std::span(records).subspan(gone); }
  void CloseUp();
  void Count(Record& record, const std::string& threat);
  void Uncount(const Record& record);

  /// The members, in the order of their keys, each behind the character that divides it from what comes before: the
  /// brace that opens the object, or a comma.
  std::string text{kEnd};
  policy::Policy config;
  policy::Policy counters;
  /// Empty where it has to be made; never a long one.
  std::string summary;
  Member configMember{"config"};
  Member countersMember{"state"};
  /// By ascending index, behind the places of the few that went first. Those are given up together: to move all the
  /// others costs more than the change of the text.
  std::vector<Record> records;
  std::size_t gone = 0;
  Threats threats;

  static constexpr std::string_view kEnd = "}\n";
};

}  // namespace zav::pyx
