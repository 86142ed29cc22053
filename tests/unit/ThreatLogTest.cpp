#include "pyx/ThreatLog.h"

#include <gmock/gmock.h>
#include <json/value.h>

#include <functional>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/StoredState.h"

namespace zav::pyx {
namespace {

using policy::Policy;
using test::Parsed;
using test::Record;
using testing::ElementsAre;

/// All that stands beside the text, a line each.
std::string NotesOf(const ThreatLog& log) {
  std::ostringstream notes;
  for (const auto& record : log.GetRecords()) {
    notes << '"' << record.key << "\" at " << record.offset << '+' << record.size << ": index " << record.index
          << (record.isObject ? ", object" : "") << (record.isPlain ? ", plain" : "") << ", time " << record.timestamp
          << ", threat " << (record.threat != nullptr ? record.threat->first : "none") << '\n';
  }
  for (const auto& [threat, count] : log.GetThreats()) notes << threat << ": " << count << '\n';
  return notes.str();
}

TEST(AFreshRecord, IsNoneAndStandsNowhere) {
  const ThreatLog::Member member;
  EXPECT_EQ(member.offset, 0U);
  EXPECT_EQ(member.size, 0U);
  const ThreatLog::Record record;
  EXPECT_EQ(record.index, -1);
  EXPECT_FALSE(record.isObject);
  EXPECT_FALSE(record.isPlain);
  EXPECT_EQ(record.timestamp, 0);
  EXPECT_EQ(record.threat, nullptr);
}

TEST(AFreshLog, HoldsNoRecordAndNoThreat) {
  const ThreatLog log;
  EXPECT_TRUE(log.GetRecords().empty());
  EXPECT_TRUE(log.GetThreats().empty());
}

/// A log, and beside it the policy that it stands for, on which everything is done in the plain way.
class ALog : public testing::Test {
 protected:
  void Begin(const Json::Value& storage) {
    plain = storage;
    log = ThreatLog(Policy(storage));
  }

  /// The rule for all that is kept beside the text: it is what a log has that is made anew of the same policy.
  void Check() {
    const Policy storage(plain);
    ASSERT_EQ(log.Text(), storage.AsString());
    ThreatLog anew(storage);
    ASSERT_EQ(NotesOf(log), NotesOf(anew));
    // The first one is kept, the second one is that one.
    ASSERT_EQ(log.SummaryText(), anew.Summary().AsString());
    ASSERT_EQ(log.SummaryText(), anew.Summary().AsString());
    ASSERT_EQ(log.Config().AsString(), storage.GetSubPolicy("config").AsString());
    ASSERT_EQ(log.Counters().AsString(), storage.GetSubPolicy("state").AsString());
  }

  void SetConfig() {
    const int value = Number(2000);
    Policy config;
    config.SetIntValue("max_index", value);
    log.SetConfig(std::move(config));
    plain["config"] = Json::Value();
    plain["config"]["max_index"] = value;
  }

  void SetCounters() {
    Policy counters = MakeCounters();
    plain["state"] = Parsed(counters.AsString());
    log.SetCounters(std::move(counters));
  }

  void Add() {
    const int index = Number(30);
    const std::string url = "http://" + std::string(static_cast<unsigned>(Number(20)), 'u');
    const std::string& threat = kThreats[static_cast<unsigned>(Number(2))];
    const int timestamp = Number(100);
    Policy counters = MakeCounters();
    plain["state"] = Parsed(counters.AsString());
    plain[std::to_string(index)] = Record(url, threat, timestamp);
    log.Add(index, url, threat, timestamp, std::move(counters));
  }

  void RemoveFirst() {
    if (log.GetRecords().empty()) return;
    plain.removeMember(log.GetRecords().front().key);
    log.RemoveFirst();
  }

  void Keep() {
    const int limit = Number(30);
    const auto isWanted = [&](const ThreatLog::Record& record) { return record.timestamp >= limit; };
    bool some = false;
    for (const auto& key : plain.getMemberNames()) {
      if (key == "config" || key == "state") continue;
      if (plain[key].isObject() && plain[key].get("timestamp", 0).asInt() >= limit) continue;
      if (!plain[key].isObject() && limit == 0) continue;
      plain.removeMember(key);
      some = true;
    }
    ASSERT_EQ(log.Keep(isWanted), some);
  }

  void Renumber() {
    // Of two with the same number the later key's stays.
    std::map<int, Json::Value> byIndex;
    for (const auto& record : log.GetRecords()) byIndex[record.index] = plain[record.key];
    Json::Value renumbered;
    renumbered["config"] = plain["config"];
    renumbered["state"] = plain["state"];
    int next = 0;
    for (const auto& [index, record] : byIndex) renumbered[std::to_string(next++)] = record;
    plain = renumbered;
    log = log.Renumbered();
  }

  void Select() {
    ThreatLog::Selection selection;
    Json::Value selected;
    for (const auto& record : log.GetRecords()) {
      if (Number(1) == 0) continue;
      selection.insert(selection.begin() + Number(static_cast<int>(selection.size())), &record);
      selected[record.key] = plain[record.key];
    }
    ASSERT_EQ(log.TextOf(selection), Policy(selected).AsString());
  }

  /// From 0 to a highest one.
  int Number(int highest) { return std::uniform_int_distribution(0, highest)(random); }

  static inline const std::vector<std::string> kThreats{"phishing", "a \"quoted\" one", "mal\xC3\xA9"};

  std::mt19937 random{20261121};
  Json::Value plain;
  ThreatLog log;

 private:
  Policy MakeCounters() {
    Policy counters;
    for (const auto& threat : kThreats) {
      if (Number(1) == 1) counters.SetIntValue(threat, Number(1000));
    }
    counters.SetIntValue("count", Number(1000000));
    return counters;
  }
};

TEST_F(ALog, ThatWasChangedIsTheOneThatWouldBeReadFromItsText) {
  const std::vector<std::function<void()>> changes{
      [this] { SetConfig(); }, [this] { SetCounters(); }, [this] { Add(); },  [this] { Add(); },
      [this] { Add(); },       [this] { RemoveFirst(); }, [this] { Keep(); }, [this] { Select(); }};
  for (int round = 0; round < 200; ++round) {
    SCOPED_TRACE(round);
    Begin(Parsed(R"({"config":{"max_index":1},"state":{"count":0},"zebra":{"url":"u","timestamp":50},)"
                 R"("c":{"timestamp":99},"d":{"url":"","threat":"t"},"007":{"url":"u","threat":"","timestamp":7},)"
                 R"("7":{"url":"u","threat":"phishing","timestamp":20,"more":[1,{"a":null}]},"12abc":{"timestamp":80},)"
                 R"("-1":{"url":"u"}," 5":{"url":"u","timestamp":40},"9\n\"":{"url":"u","threat":"x"},"3":"text",)"
                 R"("4":null,"6":5.0,"":{"url":"u","timestamp":1},"99999999999":{}})"));
    ASSERT_NO_FATAL_FAILURE(Check());
    for (int change = 0; change < 40; ++change) {
      SCOPED_TRACE(change);
      ASSERT_NO_FATAL_FAILURE(changes[static_cast<unsigned>(Number(static_cast<int>(changes.size()) - 1))]());
      ASSERT_NO_FATAL_FAILURE(Check());
    }
  }
}

TEST_F(ALog, WhoseOldestRecordsGoOneAfterTheOtherIsRightAfterEachOfThem) {
  Json::Value storage;
  storage["state"]["count"] = 300;
  for (int index = 0; index < 300; ++index) storage[std::to_string(index)] = Record("http://u", "T", index);
  Begin(storage);
  for (int gone = 1; gone <= 300; ++gone) {
    RemoveFirst();
    ASSERT_NO_FATAL_FAILURE(Check()) << gone;
    // What moves the records as a whole, behind any number that went.
    if (gone % 41 == 0) SetConfig();
    if (gone % 47 == 0) Add();
    if (gone % 97 == 0) log = ThreatLog(std::move(log));
    ASSERT_NO_FATAL_FAILURE(Check()) << gone;
  }
}

TEST_F(ALog, IsRenumberedAsThoughItsRecordsHadBeenWrittenAnew) {
  for (int round = 0; round < 100; ++round) {
    SCOPED_TRACE(round);
    Begin(Parsed(
        R"({"config":{"max_index":1},"state":{"count":0},"007":{"url":"7"},"7":{"url":"u","timestamp":20},)"
        R"("3":{"timestamp":4},"12abc":{"url":"v","threat":"t","timestamp":80}," 5":{"url":"u"},"9\n\"":{"url":"w","threat":"x"}})"));
    for (int record = Number(40); record > 0; --record) Add();
    ASSERT_NO_FATAL_FAILURE(Renumber());
    ASSERT_NO_FATAL_FAILURE(Check());
  }
}

TEST_F(ALog, ThatWasMovedIsWhatItWas) {
  Begin(test::StoredLog{.records = {{"1", Record("u", "T", 5)}}}.Value());
  ThreatLog other(std::move(log));
  log = std::move(other);
  Check();
  RemoveFirst();
  Check();
}

TEST_F(ALog, GivesTheRoomBackThatALargeRecordTook) {
  constexpr size_t kLarge = 1'000'000;
  Begin(test::StoredLog{.records = {{"1", Record(std::string(kLarge, 'u'), "T", 5)}, {"2", Record("u", "T", 9)}}}
            .Value());
  ASSERT_GT(log.Text().capacity(), kLarge);
  RemoveFirst();
  EXPECT_LT(log.Text().capacity(), kLarge / 10);
  Check();
  Begin(test::StoredLog{.records = {{"1", Record(std::string(kLarge, 'u'), "T", 5)}, {"2", Record("u", "T", 9)}}}
            .Value());
  EXPECT_TRUE(log.Keep([](const auto& record) { return record.timestamp == 9; }));
  EXPECT_LT(log.Text().capacity(), kLarge / 10);
}

TEST_F(ALog, KeepsALittleRoomForTheNextRecord) {
  constexpr size_t kSmall = 10'000;
  Begin(test::StoredLog{.records = {{"1", Record(std::string(kSmall, 'u'), "T", 5)}}}.Value());
  RemoveFirst();
  EXPECT_GT(log.Text().capacity(), kSmall);
}

TEST_F(ALog, UsesThePlacesOfRecordsThatWentAgain) {
  const auto add = [this](int index) {
    Policy counters;
    counters.SetIntValue("count", index);
    log.Add(index, "http://u", "T", 5, std::move(counters));
  };
  std::set<const void*> places;
  add(0);
  for (int index = 1; index <= 2000; ++index) {
    add(index);
    log.RemoveFirst();
    if (index > 1000) places.insert(log.GetRecords().data());
  }
  EXPECT_EQ(log.GetRecords().size(), 1U);
  EXPECT_LT(places.size(), 200U);
}

TEST_F(ALog, OfNothingHasNoText) {
  EXPECT_EQ(log.Text(), "");
  EXPECT_EQ(ThreatLog(Policy()).Text(), "");
  EXPECT_EQ(log.TextOf({}), "");
  EXPECT_FALSE(log.Keep([](const auto&) { return false; }));
}

TEST_F(ALog, HasNeitherConfigurationNorCountersThatAreNoObjects) {
  Begin(Parsed(R"({"config":5,"state":"x","1":{}})"));
  EXPECT_EQ(log.Text(), "{\"1\":{}}\n");
  SetCounters();
  EXPECT_THAT(Parsed(log.Text()).getMemberNames(), ElementsAre("1", "state"));
  SetConfig();
  Check();
}

TEST_F(ALog, ThatLostAllItHadIsBegunAnew) {
  Begin(Parsed(R"({"1":{"url":"u"}})"));
  EXPECT_TRUE(log.Keep([](const auto&) { return false; }));
  EXPECT_EQ(log.Text(), "");
  plain = Json::Value();
  SetCounters();
  SetConfig();
  Check();
  Begin(Parsed(R"({"1":{"url":"u"}})"));
  RemoveFirst();
  EXPECT_EQ(log.Text(), "");
  SetConfig();
  SetCounters();
  Check();
}

TEST_F(ALog, WhoseFirstMemberIsSetAnewBeginsWithThatOne) {
  Begin(Parsed(R"({"config":{"max_index":1},"state":{"count":0}})"));
  SetConfig();
  Check();
  SetCounters();
  Check();
  Begin(Parsed(R"({"state":{"count":0}})"));
  SetCounters();
  Check();
}

TEST_F(ALog, IsLeftAsItIsByNullForItsConfigurationOrCounters) {
  Begin(test::StoredLog().Value());
  log.SetConfig(Policy());
  log.SetCounters(Policy());
  Check();
}

}  // namespace
}  // namespace zav::pyx
