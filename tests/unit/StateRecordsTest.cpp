#include <gmock/gmock.h>

#include <chrono>
#include <climits>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "pyx/State.h"
#include "support/LogRecorder.h"
#include "support/StateInMemory.h"
#include "support/StoredState.h"
#include "support/WaitUntil.h"

namespace zav::pyx {
namespace {

using test::InMemory;
using test::kInfo;
using test::LinesOf;
using test::LogRecorder;
using test::Now;
using test::Parsed;
using test::PluginLine;
using test::PrepareDevice;
using test::Record;
using test::Row;
using test::SetInMemory;
using test::StoredLog;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

/// The time at which the records of these tests are stamped, and that the operations are told.
const int kNow = Now();
/// What a failed write of the storage ends with.
constexpr int kRefused = -50;

class TheLog : public testing::Test {
 protected:
  State& Start(const StoredLog& log = {}) {
    PrepareDevice(log);
    State& state = State::Instance();
    test::NoteWrites();
    LogRecorder::Clear();
    return state;
  }

  /// A state in use whose storage is replaced behind its back, by what it would not have loaded.
  State& StartWith(const Json::Value& storage) {
    State& state = Start();
    SetInMemory(state, storage);
    return state;
  }

  /// The keys of the records, in key order.
  static std::vector<std::string> Keys(State& state) {
    std::vector<std::string> keys;
    for (const auto& key : InMemory(state).getMemberNames()) {
      if (key != "config" && key != "state") keys.push_back(key);
    }
    return keys;
  }
};

/// A record that says at which index it was stored first.
Json::Value RecordOf(const std::string& index) {
  return Record("http://" + index, "T", kNow);
}

StoredLog LogOf(const std::vector<std::string>& keys, StoredLog log = {}) {
  for (const auto& key : keys) log.records[key] = RecordOf(key);
  return log;
}

// The lowest index

TEST_F(TheLog, WithKeys5And1999HasTheFirstIndex5) {
  EXPECT_EQ(Start(LogOf({"1999", "5"})).GetFirstIndex(), 5);
}

TEST_F(TheLog, WithKeys2000And2500OnlyHasTheFirstIndexMinus1) {
  EXPECT_EQ(Start(LogOf({"2000", "2500"})).GetFirstIndex(), -1);
}

TEST_F(TheLog, WithKeys1999And2000HasTheFirstIndex1999) {
  EXPECT_EQ(Start(LogOf({"1999", "2000"})).GetFirstIndex(), 1999);
}

TEST_F(TheLog, WithoutRecordsHasTheFirstIndexMinus1) {
  EXPECT_EQ(Start().GetFirstIndex(), -1);
}

TEST_F(TheLog, ComparesItsIndexesAsNumbers) {
  EXPECT_EQ(Start(LogOf({"10", "9", "100"})).GetFirstIndex(), 9);
}

TEST_F(TheLog, WithAKeyThatIsNoNumberHasTheFirstIndexMinus1) {
  EXPECT_EQ(StartWith(LogOf({"5", "abc"}).Value()).GetFirstIndex(), -1);
}

TEST_F(TheLog, WithANegativeKeyHasThatFirstIndex) {
  EXPECT_EQ(StartWith(LogOf({"5", "-3", "-1"}).Value()).GetFirstIndex(), -3);
}

// Keys

struct Key {
  const char* name;
  const char* text;
  /// The index that it stands for; -1 when the record is deleted.
  int index;
};

std::ostream& operator<<(std::ostream& out, const Key& key) {
  return out << "\"" << key.text << "\"";
}

class ARecordKey : public TheLog, public testing::WithParamInterface<Key> {};

TEST_P(ARecordKey, IsReadAsTheNumberThatItBeginsWith) {
  State& state = StartWith(LogOf({GetParam().text}).Value());
  EXPECT_EQ(state.GetFirstIndex(), GetParam().index);
  state.RemoveOutdatedRecords(kNow);
  EXPECT_THAT(Keys(state), SizeIs(GetParam().index < 0 ? 0 : 1));
}

INSTANTIATE_TEST_SUITE_P(
    Such, ARecordKey,
    testing::Values(Key{"AsZero", "0", 0}, Key{"AsAPlainNumber", "42", 42}, Key{"WithABlankBefore", " 8", 8},
                    Key{"WithATabBefore", "\t8", 8}, Key{"WithAPlus", "+8", 8}, Key{"AsMinusZero", "-0", 0},
                    Key{"WithABlankAfter", "8 ", 8}, Key{"AsHexadecimal", "0x10", 0}, Key{"AsAFraction", "8.9", 8},
                    Key{"OfNothing", "", -1}, Key{"OfABlank", " ", -1}, Key{"OfASign", "-", -1},
                    Key{"WithALetterBefore", "a1", -1}, Key{"NearlyNamedConfig", "Config", -1},
                    Key{"AboveEveryInt", "2147483648", -1}, Key{"FarAboveEveryInt", "99999999999999999999", -1}),
    [](const auto& each) { return std::string(each.param.name); });

TEST_F(TheLog, DropsKeysOfLettersAndNegativeNumbersAndKeepsThoseThatBeginWithDigits) {
  State& state = StartWith(LogOf({"abc", "-4", "007", "12abc"}).Value());
  state.RemoveOutdatedRecords(kNow);
  EXPECT_THAT(Keys(state), ElementsAre("007", "12abc"));
}

TEST_F(TheLog, TakesAKeyWithLeadingZerosForItsNumber) {
  EXPECT_EQ(Start(LogOf({"007", "9"})).GetFirstIndex(), 7);
}

TEST_F(TheLog, TakesAKeyOfDigitsAndLettersForTheNumberOfItsDigits) {
  EXPECT_EQ(Start(LogOf({"12abc", "13"})).GetFirstIndex(), 12);
}

// Removal by age

TEST_F(TheLog, DropsARecordThatIsAStringInsteadOfAnObject) {
  StoredLog log = LogOf({"1"});
  log.records["2"] = "http://2";
  State& state = StartWith(log.Value());
  state.RemoveOutdatedRecords(kNow);
  EXPECT_THAT(Keys(state), ElementsAre("1"));
}

TEST_F(TheLog, DropsARecordThatIsNoObjectOfWhateverType) {
  StoredLog log = LogOf({"1"});
  log.records["2"] = 5;
  log.records["3"] = Json::Value();
  log.records["4"] = Json::Value(Json::arrayValue);
  log.records["5"] = true;
  State& state = StartWith(log.Value());
  state.RemoveOutdatedRecords(kNow);
  EXPECT_THAT(Keys(state), ElementsAre("1"));
}

TEST_F(TheLog, KeepsARecordExactlyAsOldAsThePeriodAndDropsOneASecondOlder) {
  StoredLog log;
  log.maxLoggingPeriod = 3600;
  log.records = {{"1", Record("u", "T", kNow - 3600)}, {"2", Record("u", "T", kNow - 3601)}};
  State& state = StartWith(log.Value());
  state.RemoveOutdatedRecords(kNow);
  EXPECT_THAT(Keys(state), ElementsAre("1"));
}

TEST_F(TheLog, TakesAMissingOrMistypedTimeStampForZero) {
  StoredLog log;
  log.maxLoggingPeriod = 3600;
  log.records = {{"1", Parsed(R"({"url":"u"})")}, {"2", Parsed(R"({"url":"u","timestamp":"2000000000"})")}};
  State& state = StartWith(log.Value());
  state.RemoveOutdatedRecords(3600);
  EXPECT_THAT(Keys(state), ElementsAre("1", "2"));
  state.RemoveOutdatedRecords(3601);
  EXPECT_THAT(Keys(state), IsEmpty());
}

TEST_F(TheLog, TakesAMissingPeriodForZero) {
  StoredLog log;
  log.records = {{"1", Record("u", "T", kNow)}, {"2", Record("u", "T", kNow - 1)}};
  Json::Value storage = log.Value();
  storage.removeMember("config");
  State& state = StartWith(storage);
  state.RemoveOutdatedRecords(kNow);
  EXPECT_THAT(Keys(state), ElementsAre("1"));
}

TEST_F(TheLog, DropsARecordWhoseAgeLimitWrapsAround) {
  StoredLog log;
  log.maxLoggingPeriod = 3600;
  log.records = {{"1", Record("u", "T", INT_MAX)}, {"2", Record("u", "T", INT_MAX - 3600)}};
  State& state = StartWith(log.Value());
  state.RemoveOutdatedRecords(kNow);
  EXPECT_THAT(Keys(state), ElementsAre("2"));
}

TEST_F(TheLog, KeepsARecordWhoseAgeLimitWrapsAroundDownwards) {
  StoredLog log;
  log.maxLoggingPeriod = INT_MIN;
  log.records = {{"1", Record("u", "T", -1)}, {"2", Record("u", "T", 0)}};
  State& state = StartWith(log.Value());
  state.RemoveOutdatedRecords(kNow);
  EXPECT_THAT(Keys(state), ElementsAre("1"));
}

TEST_F(TheLog, IsSavedOnceByARemovalThatLeavesTheCountersAlone) {
  StoredLog log = LogOf({"3", "4"}, {.count = 9, .lastIndex = 4, .counters = {{"T", 9}}});
  State& state = Start(log);
  SetInMemory(state, "1", "no record");
  SetInMemory(state, "2", "no record");
  state.RemoveOutdatedRecords(kNow);
  EXPECT_EQ(Row("Storage"), log.Value());
  EXPECT_THAT(test::Writes(), ElementsAre("Storage"));
}

TEST_F(TheLog, IsNotSavedWhenNoRecordQualifiesForRemoval) {
  State& state = Start(LogOf({"3", "4"}));
  state.RemoveOutdatedRecords(kNow);
  EXPECT_THAT(test::Writes(), IsEmpty());
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(TheLog, LosesARecordInMemoryThoughItsRemovalCannotBeSaved) {
  State& state = Start(LogOf({"3"}));
  test::RefuseWrites("Storage");
  SetInMemory(state, "4", "no record");
  state.RemoveOutdatedRecords(kNow);
  EXPECT_THAT(Keys(state), ElementsAre("3"));
}

// Resetting

TEST_F(TheLog, IsResetToItsConfigurationAndItsCountersAsTheyAre) {
  StoredLog log = LogOf({"6"}, {.count = 7, .lastIndex = 6, .counters = {{"T", 7}}});
  State& state = Start(log);
  EXPECT_EQ(state.ResetLog(), 0);
  log.records.clear();
  EXPECT_EQ(InMemory(state), log.Value());
  EXPECT_EQ(Row("Storage"), log.Value());
  EXPECT_THAT(test::Writes(), ElementsAre("Storage"));
}

TEST_F(TheLog, GoesOnNumberingAfterAReset) {
  State& state = Start(LogOf({"6"}, {.count = 7, .lastIndex = 6}));
  state.ResetLog();
  state.LogThreatUrl("http://new", "T", kNow);
  EXPECT_THAT(Keys(state), ElementsAre("7"));
  EXPECT_EQ(InMemory(state)["state"]["count"], 8);
}

TEST_F(TheLog, ThatHasNoCountersGetsNoneByAReset) {
  Json::Value storage = LogOf({"6"}).Value();
  storage.removeMember("state");
  State& state = StartWith(storage);
  EXPECT_EQ(state.ResetLog(), 0);
  storage.removeMember("6");
  EXPECT_EQ(InMemory(state), storage);
}

TEST_F(TheLog, ThatHasNoConfigurationGetsNoneByAReset) {
  Json::Value storage = LogOf({"6"}).Value();
  storage.removeMember("config");
  State& state = StartWith(storage);
  EXPECT_EQ(state.ResetLog(), 0);
  storage.removeMember("6");
  EXPECT_EQ(InMemory(state), storage);
}

TEST_F(TheLog, IsEmptyInMemoryAfterAResetThatCannotBeSaved) {
  State& state = Start(LogOf({"6"}));
  test::RefuseWrites("Storage");
  EXPECT_EQ(state.ResetLog(), kRefused);
  EXPECT_THAT(Keys(state), IsEmpty());
  EXPECT_EQ(Row("Storage"), LogOf({"6"}).Value());
}

// The status

/// The text of a status, as a client gets it.
std::string StatusOf(State& state) {
  return state.GetLogStatus().AsString();
}

TEST_F(TheLog, TellsItsRecordsByThreatItsConfigurationAndItsCountersWithoutTheLastIndex) {
  StoredLog log{.count = 12, .lastIndex = 3};
  log.records = {{"1", Record("u", "T", kNow)}, {"2", Record("u", "T", kNow)}, {"3", Record("u", "", kNow)}};
  State& state = Start(log);
  EXPECT_EQ(StatusOf(state), R"({"config":{"max_file_size":10,"max_index":2000,"max_logging_period":864000},)"
                             R"("in_storage":{"T":2,"count":3,"undefined":1},"state":{"count":12}})"
                             "\n");
  EXPECT_EQ(InMemory(state), log.Value());
  EXPECT_THAT(test::Writes(), IsEmpty());
}

TEST_F(TheLog, TellsEveryCounterButTheLastIndex) {
  State& state = Start({.count = 3, .lastIndex = 2, .counters = {{"T", 2}, {"undefined", 1}}});
  EXPECT_EQ(Parsed(StatusOf(state))["state"], Parsed(R"({"count":3,"T":2,"undefined":1})"));
}

TEST_F(TheLog, WithoutRecordsTellsOfNoneInStorage) {
  State& state = Start();
  EXPECT_FALSE(Parsed(StatusOf(state)).isMember("in_storage"));
}

TEST_F(TheLog, WithOnlyRecordsWithoutUrlTellsOfNoneInStorage) {
  StoredLog log;
  log.records = {{"1", Record("", "T", kNow)}, {"2", Record("", "", kNow)}};
  State& state = Start(log);
  EXPECT_FALSE(Parsed(StatusOf(state)).isMember("in_storage"));
}

TEST_F(TheLog, PassesOverRecordsWithoutUrlInItsStatus) {
  StoredLog log;
  log.records = {{"1", Record("", "T", kNow)},
                 {"2", Record("u", "T", kNow)},
                 {"3", Parsed(R"({"threat":"T","timestamp":2000000000})")},
                 {"4", Parsed(R"({"url":5,"threat":"T","timestamp":2000000000})")}};
  State& state = Start(log);
  EXPECT_EQ(Parsed(StatusOf(state))["in_storage"], Parsed(R"({"T":1,"count":1})"));
}

TEST_F(TheLog, TellsTheNumberOfAllRecordsInPlaceOfAThreatNamedCount) {
  StoredLog log;
  log.records = {{"1", Record("u", "count", kNow)}, {"2", Record("u", "T", kNow)}, {"3", Record("u", "T", kNow)}};
  State& state = Start(log);
  EXPECT_EQ(Parsed(StatusOf(state))["in_storage"], Parsed(R"({"T":2,"count":3})"));
}

TEST_F(TheLog, TellsOfAThreatNamedLikeItsOwnMembers) {
  StoredLog log;
  log.records = {{"1", Record("u", "last_index", kNow)}, {"2", Record("u", "config", kNow)}};
  State& state = Start(log);
  EXPECT_EQ(Parsed(StatusOf(state))["in_storage"], Parsed(R"({"last_index":1,"config":1,"count":2})"));
}

TEST_F(TheLog, DropsOutdatedRecordsBeforeItTellsItsStatus) {
  StoredLog log = LogOf({"2"});
  log.maxLoggingPeriod = 3600;
  State& state = Start(log);
  SetInMemory(state, "1", Record("u", "old", Now() - 4000));
  EXPECT_EQ(Parsed(StatusOf(state))["in_storage"], Parsed(R"({"T":1,"count":1})"));
  EXPECT_THAT(test::Writes(), ElementsAre("Storage"));
  EXPECT_EQ(Row("Storage"), log.Value());
}

TEST_F(TheLog, TellsNothingAtAllWhereItsStorageIsEmpty) {
  EXPECT_TRUE(StartWith(Json::Value(Json::objectValue)).GetLogStatus().isNull());
}

TEST_F(TheLog, IsResetUnderTheLock) {
  State& state = Start(LogOf({"6"}));
  test::HeldSave held;
  std::thread thread([&] { state.ResetLog(); });
  EXPECT_TRUE(test::WaitUntil([] { return !Row("Storage").isMember("6"); }));
  EXPECT_FALSE(state.Mutex().try_lock());
  held.Release();
  thread.join();
}

TEST_F(TheLog, TellsItsStatusUnderTheLock) {
  State& state = Start(LogOf({"6"}, {.count = 5}));
  SetInMemory(state, "7", "no record");
  SetInMemory(state, "8", "no record");
  test::SetRow("Storage", "{}");
  test::HeldSave held;
  std::thread thread([&] { state.GetLogStatus(); });
  EXPECT_TRUE(test::WaitUntil([] { return Row("Storage").isMember("6"); }));
  EXPECT_FALSE(state.Mutex().try_lock());
  held.Release();
  thread.join();
}

// Adding a record

TEST_F(TheLog, GetsARecordUnderTheNextIndexIsCountedAndSavedOnce) {
  StoredLog log = LogOf({"3", "4"}, {.count = 9, .lastIndex = 4, .counters = {{"T", 6}, {"X", 3}}});
  State& state = Start(log);
  EXPECT_EQ(state.LogThreatUrl("http://new/", "X", kNow), 0);
  log.count = 10;
  log.lastIndex = 5;
  log.counters["X"] = 4;
  log.records["5"] = Record("http://new/", "X", kNow);
  EXPECT_EQ(InMemory(state), log.Value());
  EXPECT_EQ(Row("Storage"), log.Value());
  EXPECT_THAT(test::Writes(), ElementsAre("Storage"));
  EXPECT_THAT(LinesOf({"State.cpp"}), IsEmpty());
}

TEST_F(TheLog, GetsItsFirstRecordUnderIndex0) {
  State& state = Start();
  EXPECT_EQ(state.LogThreatUrl("u", "T", kNow), 0);
  EXPECT_EQ(InMemory(state),
            StoredLog({.count = 1, .lastIndex = 0, .counters = {{"T", 1}}, .records = {{"0", Record("u", "T", kNow)}}})
                .Value());
}

TEST_F(TheLog, KeepsARecordWithoutThreatAsUndefined) {
  State& state = Start({.counters = {{"undefined", 2}}});
  EXPECT_EQ(state.LogThreatUrl("u", "", kNow), 0);
  EXPECT_EQ(InMemory(state)["0"], Record("u", "undefined", kNow));
  EXPECT_EQ(InMemory(state)["state"]["undefined"], 3);
}

TEST_F(TheLog, TakesNoRecordWithoutUrl) {
  StoredLog log = LogOf({"3"}, {.maxIndex = 3, .maxFileSize = 1, .count = 9, .lastIndex = 3});
  State& state = Start(log);
  EXPECT_EQ(state.LogThreatUrl("", "T", kNow), -1);
  EXPECT_EQ(InMemory(state), log.Value());
  EXPECT_THAT(test::Writes(), IsEmpty());
}

TEST_F(TheLog, DropsOutdatedRecordsEvenForAReportWithoutUrl) {
  StoredLog log = LogOf({"3"}, {.maxLoggingPeriod = 3600});
  State& state = Start(log);
  EXPECT_EQ(state.LogThreatUrl("", "T", kNow + 3601), -1);
  EXPECT_THAT(Keys(state), IsEmpty());
  EXPECT_THAT(test::Writes(), ElementsAre("Storage"));
}

TEST_F(TheLog, DropsOutdatedRecordsBeforeItLooksForRoom) {
  StoredLog log = LogOf({"3"}, {.maxFileSize = 2, .maxLoggingPeriod = 3600, .lastIndex = 4});
  log.records["4"] = Record("young", "T", kNow + 100);
  State& state = Start(log);
  EXPECT_EQ(state.LogThreatUrl("u", "T", kNow + 3601), 0);
  EXPECT_THAT(Keys(state), ElementsAre("4", "5"));
  EXPECT_THAT(LinesOf({"State.cpp"}), IsEmpty());
}

TEST_F(TheLog, CountsAThreatNamedCountAsItCountsAllRecords) {
  State& state = Start({.count = 4, .lastIndex = 3});
  EXPECT_EQ(state.LogThreatUrl("u", "count", kNow), 0);
  EXPECT_EQ(InMemory(state)["state"], Parsed(R"({"count":5,"last_index":4})"));
  EXPECT_EQ(InMemory(state)["4"], Record("u", "count", kNow));
}

TEST_F(TheLog, CountsAThreatNamedLastIndexAsItNumbersItsRecords) {
  State& state = Start({.count = 4, .lastIndex = 7});
  EXPECT_EQ(state.LogThreatUrl("u", "last_index", kNow), 0);
  EXPECT_EQ(InMemory(state)["state"], Parsed(R"({"count":5,"last_index":8})"));
  EXPECT_EQ(InMemory(state)["8"], Record("u", "last_index", kNow));
}

TEST_F(TheLog, BeginsToCountAThreatAnewWhereItsCounterIsNoNumber) {
  Json::Value storage = StoredLog().Value();
  storage["state"]["T"] = "many";
  State& state = StartWith(storage);
  EXPECT_EQ(state.LogThreatUrl("u", "T", kNow), 0);
  EXPECT_EQ(InMemory(state)["state"]["T"], 1);
}

TEST_F(TheLog, CountsBeyondTheGreatestNumberByWrappingAround) {
  State& state = Start({.count = INT_MAX, .lastIndex = 3, .counters = {{"T", INT_MAX}}});
  EXPECT_EQ(state.LogThreatUrl("u", "T", kNow), 0);
  EXPECT_EQ(InMemory(state)["state"]["count"], INT_MIN);
  EXPECT_EQ(InMemory(state)["state"]["T"], INT_MIN);
}

TEST_F(TheLog, KeepsAUrlAndAThreatByteForByte) {
  const std::string url("http://\0\n\"\\/?\x7f\xc3\xa4", 16);
  const std::string threat("a\0b", 3);
  State& state = Start();
  EXPECT_EQ(state.LogThreatUrl(url, threat, kNow), 0);
  EXPECT_EQ(Row("Storage")["0"], Record(url, threat, kNow));
  EXPECT_EQ(Row("Storage")["state"][threat], 1);
}

TEST_F(TheLog, KeepsInMemoryWhatItCannotSaveAndWritesItWithTheNextSuccess) {
  State& state = Start(LogOf({"3"}, {.count = 4, .lastIndex = 3}));
  test::RefuseWrites("Storage");
  EXPECT_EQ(state.LogThreatUrl("first", "T", kNow), -1);
  EXPECT_THAT(Keys(state), ElementsAre("3", "4"));
  EXPECT_EQ(InMemory(state)["state"], Parsed(R"({"count":5,"last_index":4,"T":1})"));
  EXPECT_FALSE(Row("Storage").isMember("4"));
  test::AllowWrites();
  EXPECT_EQ(state.LogThreatUrl("second", "T", kNow), 0);
  EXPECT_EQ(Row("Storage")["4"], Record("first", "T", kNow));
  EXPECT_EQ(Row("Storage")["5"], Record("second", "T", kNow));
  EXPECT_EQ(Row("Storage")["state"], Parsed(R"({"count":6,"last_index":5,"T":2})"));
}

TEST_F(TheLog, KeepsInMemoryWhatItCannotSaveForWantOfItsDirectoryAndWritesItWithTheNextSuccess) {
  State& state = Start(LogOf({"3"}, {.count = 4, .lastIndex = 3}));
  const std::string aside = test::kStorageDirectory + "-aside";
  ASSERT_EQ(std::rename(test::kStorageDirectory.c_str(), aside.c_str()), 0);
  test::WriteFile(test::kStorageDirectory, "no directory");
  EXPECT_EQ(state.LogThreatUrl("first", "T", kNow), -1);
  ASSERT_EQ(std::remove(test::kStorageDirectory.c_str()), 0);
  ASSERT_EQ(std::rename(aside.c_str(), test::kStorageDirectory.c_str()), 0);
  EXPECT_EQ(state.LogThreatUrl("second", "T", kNow), 0);
  EXPECT_EQ(Row("Storage")["4"], Record("first", "T", kNow));
  EXPECT_EQ(Row("Storage")["5"], Record("second", "T", kNow));
}

// Room for a record

TEST_F(TheLog, WithOneRecordLessThanItHoldsDropsNone) {
  State& state = Start(LogOf({"1", "2"}, {.maxFileSize = 3, .lastIndex = 2}));
  state.LogThreatUrl("u", "T", kNow);
  EXPECT_THAT(Keys(state), ElementsAre("1", "2", "3"));
  EXPECT_THAT(LinesOf({"State.cpp"}), IsEmpty());
}

TEST_F(TheLog, ThatIsFullDropsTheRecordWithTheLowestIndexAndSaysSo) {
  State& state = Start(LogOf({"10", "9", "11"}, {.maxFileSize = 3, .count = 12, .lastIndex = 11}));
  EXPECT_EQ(state.LogThreatUrl("u", "T", kNow), 0);
  EXPECT_THAT(Keys(state), ElementsAre("10", "11", "12"));
  EXPECT_THAT(LinesOf({"State.cpp"}),
              ElementsAre(PluginLine(kInfo, "State.cpp", "LogThreatUrl", "Record [9] deleted")));
  EXPECT_EQ(InMemory(state)["state"]["count"], 13);
  EXPECT_THAT(test::Writes(), ElementsAre("Storage"));
}

TEST_F(TheLog, ThatIsOverfullDropsOneRecordOnly) {
  State& state = Start(LogOf({"1", "2", "3", "4"}, {.maxFileSize = 2, .lastIndex = 4}));
  state.LogThreatUrl("u", "T", kNow);
  EXPECT_THAT(Keys(state), ElementsAre("2", "3", "4", "5"));
}

TEST_F(TheLog, ThatIsFullDropsNoRecordOfIndex2000AndAbove) {
  StoredLog log = LogOf({"1999", "2000", "2500"}, {.maxIndex = 5000, .maxFileSize = 3, .lastIndex = 2000});
  State& state = Start(log);
  state.LogThreatUrl("u", "T", kNow);
  EXPECT_THAT(Keys(state), ElementsAre("2000", "2001", "2500"));
}

TEST_F(TheLog, ThatIsFullWithoutARecordBelow2000DropsAndLogsNothing) {
  State& state = Start(LogOf({"2000", "2500"}, {.maxIndex = 5000, .maxFileSize = 2, .lastIndex = 2000}));
  EXPECT_EQ(state.LogThreatUrl("u", "T", kNow), 0);
  EXPECT_THAT(Keys(state), ElementsAre("2000", "2001", "2500"));
  EXPECT_THAT(LinesOf({"State.cpp"}), IsEmpty());
}

TEST_F(TheLog, ThatIsFullDropsTheFirstInKeyOrderOfTwoKeysWithOneIndex) {
  State& state = Start(LogOf({"7", "007", "8"}, {.maxFileSize = 3, .lastIndex = 8}));
  state.LogThreatUrl("u", "T", kNow);
  EXPECT_THAT(Keys(state), ElementsAre("7", "8", "9"));
  EXPECT_THAT(LinesOf({"State.cpp"}),
              ElementsAre(PluginLine(kInfo, "State.cpp", "LogThreatUrl", "Record [007] deleted")));
}

TEST_F(TheLog, WithANegativeSizeLimitHoldsAnyNumberOfRecords) {
  State& state = Start(LogOf({"1", "2"}, {.maxFileSize = -5, .lastIndex = 2}));
  state.LogThreatUrl("u", "T", kNow);
  EXPECT_THAT(Keys(state), ElementsAre("1", "2", "3"));
}

// Renumbering

TEST_F(TheLog, IsNotRenumberedWhileItsLastIndexIsBelowTheHighestOne) {
  State& state = Start(LogOf({"3", "8"}, {.maxIndex = 9, .lastIndex = 8}));
  state.LogThreatUrl("u", "T", kNow);
  EXPECT_THAT(Keys(state), ElementsAre("3", "8", "9"));
  EXPECT_EQ(InMemory(state)["state"]["last_index"], 9);
}

TEST_F(TheLog, IsRenumberedInAscendingOrderOfItsIndexesWhenTheLastOneReachesTheHighest) {
  StoredLog log = LogOf({"10", "9", "100"}, {.maxIndex = 100, .count = 40, .lastIndex = 100, .counters = {{"X", 40}}});
  State& state = Start(log);
  EXPECT_EQ(state.LogThreatUrl("u", "X", kNow), 0);
  log.records = {{"0", RecordOf("9")}, {"1", RecordOf("10")}, {"2", RecordOf("100")}, {"3", Record("u", "X", kNow)}};
  log.count = 41;
  log.lastIndex = 3;
  log.counters["X"] = 41;
  EXPECT_EQ(InMemory(state), log.Value());
  EXPECT_EQ(Row("Storage"), log.Value());
  EXPECT_THAT(test::Writes(), ElementsAre("Storage"));
}

TEST_F(TheLog, WhoseLastIndexIsAboveTheHighestOneIsRenumbered) {
  State& state = Start(LogOf({"50"}, {.maxIndex = 20, .lastIndex = 50}));
  state.LogThreatUrl("u", "T", kNow);
  EXPECT_EQ(InMemory(state)["0"], RecordOf("50"));
  EXPECT_THAT(Keys(state), ElementsAre("0", "1"));
}

TEST_F(TheLog, WithoutRecordsIsRenumberedToBeginAtIndex0) {
  State& state = Start({.maxIndex = 20, .count = 21, .lastIndex = 20});
  EXPECT_EQ(state.LogThreatUrl("u", "T", kNow), 0);
  EXPECT_THAT(Keys(state), ElementsAre("0"));
  EXPECT_EQ(InMemory(state)["state"], Parsed(R"({"count":22,"last_index":0,"T":1})"));
}

TEST_F(TheLog, IsRenumberedBeforeItsLowestRecordIsDropped) {
  State& state = Start(LogOf({"18", "19", "20"}, {.maxIndex = 20, .maxFileSize = 3, .lastIndex = 20}));
  state.LogThreatUrl("u", "T", kNow);
  EXPECT_THAT(Keys(state), ElementsAre("1", "2", "3"));
  EXPECT_EQ(InMemory(state)["1"], RecordOf("19"));
  EXPECT_THAT(LinesOf({"State.cpp"}),
              ElementsAre(PluginLine(kInfo, "State.cpp", "LogThreatUrl", "Record [0] deleted")));
}

TEST_F(TheLog, IsRenumberedWithIndexesOf2000AndAbove) {
  State& state = Start(LogOf({"2000", "2500", "5"}, {.maxIndex = 2000, .lastIndex = 2000}));
  state.LogThreatUrl("u", "T", kNow);
  EXPECT_EQ(InMemory(state)["0"], RecordOf("5"));
  EXPECT_EQ(InMemory(state)["1"], RecordOf("2000"));
  EXPECT_EQ(InMemory(state)["2"], RecordOf("2500"));
  EXPECT_THAT(Keys(state), ElementsAre("0", "1", "2", "3"));
}

TEST_F(TheLog, KeepsTheLastInKeyOrderOfTwoKeysWithOneIndexWhenItIsRenumbered) {
  State& state = Start(LogOf({"7", "007", "07", "8"}, {.maxIndex = 8, .lastIndex = 8}));
  state.LogThreatUrl("u", "T", kNow);
  EXPECT_EQ(InMemory(state)["0"], RecordOf("7"));
  EXPECT_EQ(InMemory(state)["1"], RecordOf("8"));
  EXPECT_THAT(Keys(state), ElementsAre("0", "1", "2"));
}

TEST_F(TheLog, WithANegativeHighestIndexIsRenumberedForEveryRecord) {
  State& state = Start(LogOf({"3"}, {.maxIndex = -5, .lastIndex = -1}));
  state.LogThreatUrl("a", "T", kNow);
  state.LogThreatUrl("b", "T", kNow);
  EXPECT_EQ(InMemory(state)["0"], RecordOf("3"));
  EXPECT_EQ(InMemory(state)["1"], Record("a", "T", kNow));
  EXPECT_EQ(InMemory(state)["2"], Record("b", "T", kNow));
}

TEST_F(TheLog, WhoseLastIndexIsTheGreatestNumberIsRenumbered) {
  StoredLog log = LogOf({"2147483647", "1"}, {.maxIndex = INT_MAX, .lastIndex = INT_MAX});
  State& state = StartWith(log.Value());
  EXPECT_EQ(state.LogThreatUrl("u", "T", kNow), 0);
  EXPECT_THAT(Keys(state), ElementsAre("0", "1", "2"));
}

// Looking for records

/// The bounds of all times.
constexpr int kEver = INT_MAX;

TEST_F(TheLog, IsSearchedAtACostOfItsRecordsHoweverFarTheirIndexesAreApart) {
  StoredLog log = LogOf({"0", "2000000000", "2147483647"}, {.maxIndex = INT_MAX, .lastIndex = INT_MAX});
  State& state = StartWith(log.Value());
  const auto begin = std::chrono::steady_clock::now();

  const LogSlice forward = state.FindRecords({.to = kEver, .startIndex = 0}, LogOrder::kOldestFirst);
  EXPECT_EQ(forward.lastIndex, INT_MAX);
  EXPECT_THAT(test::Parsed(forward.records).getMemberNames(), ElementsAre("0", "2000000000", "2147483647"));

  const LogSlice backward = state.FindRecords({.to = kEver, .startIndex = INT_MAX}, LogOrder::kNewestFirst);
  EXPECT_EQ(backward.lastIndex, 0);
  EXPECT_THAT(test::Parsed(backward.records).getMemberNames(), ElementsAre("0", "2000000000", "2147483647"));

  EXPECT_EQ(state.CountRecords(0, kEver), 3);

  // Three walks from index to index take thousands of millions of steps.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

TEST_F(TheLog, FindsAndCountsNoMemberThatIsNoRecord) {
  Json::Value storage = LogOf({"0", "2"}, {.lastIndex = 2}).Value();
  storage["1"] = "text";
  const State& state = StartWith(storage);
  EXPECT_THAT(test::Parsed(state.FindRecords({.to = kEver}, LogOrder::kOldestFirst).records).getMemberNames(),
              ElementsAre("0", "2"));
  EXPECT_EQ(state.CountRecords(0, kEver), 2);
}

TEST_F(TheLog, IsSearchedBackwardsFromIndex0WhereThatIsGiven) {
  const State& state = Start(LogOf({"0", "5"}, {.lastIndex = 5}));
  const LogSlice slice = state.FindRecords({.to = kEver, .startIndex = 0}, LogOrder::kNewestFirst);
  EXPECT_THAT(test::Parsed(slice.records).getMemberNames(), ElementsAre("0"));
  EXPECT_EQ(slice.lastIndex, 0);
}

TEST_F(TheLog, GivesOneRecordWhereNoMoreAreWanted) {
  const State& state = Start(LogOf({"0", "5"}, {.lastIndex = 5}));
  const LogSlice slice = state.FindRecords({.to = kEver, .maxCount = 1}, LogOrder::kOldestFirst);
  EXPECT_THAT(test::Parsed(slice.records).getMemberNames(), ElementsAre("0"));
  EXPECT_EQ(slice.lastIndex, 0);
}

TEST_F(TheLog, ThatWasReadFromTheDatabaseIsSearchedBackwardsFromAFarIndexAtACostOfItsRecords) {
  State& state = Start(LogOf({"0", "5"}, {.maxIndex = INT_MAX, .lastIndex = 5}));
  const auto begin = std::chrono::steady_clock::now();
  const LogSlice slice = state.FindRecords({.to = kEver, .startIndex = 2000000000}, LogOrder::kNewestFirst);
  EXPECT_THAT(test::Parsed(slice.records).getMemberNames(), ElementsAre("0", "5"));
  EXPECT_EQ(slice.lastIndex, 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

TEST(AQuery, AsksForAllRecordsUnlessItIsToldMore) {
  const LogQuery query;
  EXPECT_EQ(query.from, 0);
  EXPECT_EQ(query.to, 0);
  EXPECT_EQ(query.maxCount, 0);
  EXPECT_EQ(query.startIndex, -1);
}

TEST(ASlice, IsOfNoRecordAtFirst) {
  const LogSlice slice;
  EXPECT_EQ(slice.lastIndex, -1);
  EXPECT_EQ(slice.records, "");
}

}  // namespace
}  // namespace zav::pyx
