#include "pyx/State.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>
#include <ostream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include "PYXManager.h"
#include "policy/Manager.h"
#include "support/LogRecorder.h"
#include "support/StateInMemory.h"
#include "support/StoredState.h"
#include "support/WaitUntil.h"

namespace zav::pyx {
namespace {

using test::HeldSave;
using test::InMemory;
using test::kDebug;
using test::kError;
using test::LinesFrom;
using test::LinesOf;
using test::LogRecorder;
using test::Now;
using test::Parsed;
using test::PluginLine;
using test::PrepareDevice;
using test::Row;
using test::SetInMemory;
using test::StoredLog;
using testing::ElementsAre;
using testing::IsEmpty;

/// What a failed write of the storage or the switches ends with; the code of the database.
constexpr int kRefused = -50;

const Json::Value kDefaultConfig = Parsed(R"({"max_index":2000,"max_file_size":10,"max_logging_period":3600})");
const Json::Value kFreshCounters = Parsed(R"({"count":0,"last_index":-1})");

/// When the records of these tests were made.
const int kNow = Now();

/// A log in use: two records, ten reported.
StoredLog UsedLog() {
  return {.maxIndex = 100,
          .maxFileSize = 20,
          .count = 10,
          .lastIndex = 9,
          .counters = {{"T", 10}},
          .records = {{"8", test::Record("http://8", "T", kNow)}, {"9", test::Record("http://9", "T", kNow)}}};
}

Json::Value Reset(const Json::Value& config) {
  Json::Value storage(Json::objectValue);
  storage["config"] = config;
  storage["state"] = kFreshCounters;
  return storage;
}

/// A case of a table: what it is and the JSON text that it is about.
struct Case {
  const char* name;
  const char* text;
};

std::ostream& operator<<(std::ostream& out, const Case& each) {
  return out << each.text;
}

template <class Each>
std::string NameOf(const testing::TestParamInfo<Each>& info) {
  return info.param.name;
}

// The first start

TEST(TheFirstState, GivesADefaultStorageWithoutConfigTheDefaultOneAndSavesIt) {
  test::WriteDefaultPolicy(R"({"Service":{"restart_delay":30},)"
                           R"("State":{"pyx_state":"enabled","logging_state":"enabled"},)"
                           R"("Storage":{"state":{"count":0,"last_index":-1}}})");
  State& state = State::Instance();
  EXPECT_EQ(Row("Storage"), Reset(kDefaultConfig));
  EXPECT_EQ(InMemory(state), Reset(kDefaultConfig));
}

TEST(TheFirstState, TakesTheSwitchesAndTheStorageFromTheDefaultPolicy) {
  test::WriteDefaultPolicy(R"({"Service":{"restart_delay":30},)"
                           R"("State":{"pyx_state":"disabled","logging_state":"enabled"},)"
                           R"("Storage":{"config":{"max_index":50,"max_file_size":20,"max_logging_period":7200},)"
                           R"("state":{"count":0,"last_index":-1}}})");
  State& state = State::Instance();
  EXPECT_EQ(state.PyxState(), State::Disabled);
  EXPECT_EQ(state.LoggingState(), State::Enabled);
  EXPECT_EQ(InMemory(state), Reset(Parsed(R"({"max_index":50,"max_file_size":20,"max_logging_period":7200})")));
}

TEST(TheFirstState, WithNeitherDatabaseNorDefaultPolicyThrowsAndTheNextCallTriesAgain) {
  test::MakeStorageDirectory();
  try {
    State::Instance();
    FAIL() << "no exception";
  } catch (const std::runtime_error& exception) {
    EXPECT_STREQ(exception.what(), "Default policy is empty");
  }
  // The second attempt finds the tables that the first one made, and needs no default.
  State& state = State::Instance();
  EXPECT_EQ(state.PyxState(), State::Enabled);
  EXPECT_EQ(state.LoggingState(), State::Disabled);
  EXPECT_EQ(InMemory(state), Reset(kDefaultConfig));
}

// Every start

class AStart : public testing::Test {};

TEST_F(AStart, MakesOneStateForTheWholeProcess) {
  PrepareDevice();
  State* other = nullptr;
  std::thread([&] { other = &State::Instance(); }).join();
  EXPECT_EQ(&State::Instance(), other);
}

TEST_F(AStart, ReadsTheStorageThenTheSwitchesAndWritesNothingWhereAllIsValid) {
  PrepareDevice(UsedLog());
  test::NoteWrites();
  State& state = State::Instance();
  EXPECT_THAT(LinesOf({"DBStorage.cpp", "State.cpp", "Manager.cpp"}),
              ElementsAre(PluginLine(kDebug, "DBStorage.cpp", "CheckTables", "Table [PYXPlugin] is present"),
                          PluginLine(kDebug, "DBStorage.cpp", "ReadPolicy", "Successfully read [Storage]"),
                          PluginLine(kDebug, "DBStorage.cpp", "ReadPolicy", "Successfully read [State]")));
  EXPECT_EQ(InMemory(state), UsedLog().Value());
  EXPECT_THAT(test::Writes(), IsEmpty());
}

TEST_F(AStart, WithLoggingDisabledDropsAllRecordsAndSavesTheStorage) {
  PrepareDevice(UsedLog(), "disabled");
  test::NoteWrites();
  State& state = State::Instance();
  EXPECT_EQ(InMemory(state), Reset(UsedLog().Value()["config"]));
  EXPECT_EQ(Row("Storage"), InMemory(state));
  EXPECT_THAT(test::Writes(), ElementsAre("Storage"));
}

TEST_F(AStart, ThatSavesWhatItResetReportsNoFailure) {
  PrepareDevice(UsedLog(), "disabled");
  State::Instance();
  EXPECT_THAT(LinesFrom(test::kWarning), IsEmpty());
}

TEST_F(AStart, RemovesTheRecordsThatAreTooOldByNowAndSaves) {
  StoredLog log = UsedLog();
  log.maxLoggingPeriod = 3600;
  log.records["3"] = test::Record("http://old", "T", Now() - 3700);
  log.records["4"] = test::Record("http://young", "T", Now() - 3000);
  PrepareDevice(log);
  State::Instance();
  log.records.erase("3");
  EXPECT_EQ(Row("Storage"), log.Value());
}

TEST_F(AStart, ThatResetsBothConfigurationAndCountersSavesOnce) {
  PrepareDevice(R"({"config":7,"state":"none","1":{"url":"u"}})");
  test::NoteWrites();
  State::Instance();
  EXPECT_EQ(Row("Storage"), Reset(kDefaultConfig));
  EXPECT_THAT(test::Writes(), ElementsAre("Storage"));
}

TEST_F(AStart, TakesAStorageThatIsNoJsonForAnEmptyOne) {
  PrepareDevice(R"({"config":{"max_index":50)");
  EXPECT_EQ(InMemory(State::Instance()), Reset(kDefaultConfig));
  EXPECT_EQ(Row("Storage"), Reset(kDefaultConfig));
}

TEST_F(AStart, WithNoStoredAndNoDefaultStorageWritesTheDefaultConfigurationAndFreshCounters) {
  PrepareDevice();
  test::WriteDefaultPolicy(R"({"State":{"pyx_state":"disabled","logging_state":"enabled"}})");
  test::Sql("DELETE FROM PYXPlugin WHERE name = 'Storage'");
  test::WriteFile(test::kBackup, test::ReadFile(test::kDatabase));
  State& state = State::Instance();
  EXPECT_EQ(InMemory(state), Reset(kDefaultConfig));
  EXPECT_EQ(Row("Storage"), Reset(kDefaultConfig));
}

TEST_F(AStart, ThatCannotSaveLogsSoAndGoesOnWithTheValidatedStorage) {
  PrepareDevice(UsedLog(), "disabled");
  test::RefuseWrites("Storage");
  State& state = State::Instance();
  const auto refused = PluginLine(kError, "DBStorage.cpp", "WritePolicy", "Failed to write [Storage], refused");
  EXPECT_THAT(LinesFrom(test::kWarning),
              ElementsAre(refused, refused, refused,
                          PluginLine(kError, "Manager.cpp", "UpdatePolicy", "Failed to update [Storage] policy"),
                          PluginLine(kError, "State.cpp", "ValidateStorage", "Failed to reset storage data")));
  EXPECT_EQ(InMemory(state), Reset(UsedLog().Value()["config"]));
  EXPECT_EQ(Row("Storage"), UsedLog().Value());
}

// The switches at the start

struct Switches {
  const char* name;
  const char* text;
  State::Enum pyx;
  State::Enum logging;
};

std::ostream& operator<<(std::ostream& out, const Switches& each) {
  return out << each.text;
}

class TheStoredSwitches : public testing::TestWithParam<Switches> {};

TEST_P(TheStoredSwitches, AreReadAtTheStart) {
  PrepareDevice();
  test::SetRow("State", GetParam().text);
  State& state = State::Instance();
  EXPECT_EQ(state.PyxState(), GetParam().pyx);
  EXPECT_EQ(state.LoggingState(), GetParam().logging);
}

INSTANTIATE_TEST_SUITE_P(
    With, TheStoredSwitches,
    testing::Values(
        Switches{"BothOn", R"({"pyx_state":"enabled","logging_state":"enabled"})", State::Enabled, State::Enabled},
        Switches{"BothOff", R"({"pyx_state":"disabled","logging_state":"disabled"})", State::Disabled, State::Disabled},
        Switches{"NeitherKey", R"({})", State::Enabled, State::Disabled},
        Switches{"NoJson", R"(enabled)", State::Enabled, State::Disabled},
        Switches{"Numbers", R"({"pyx_state":0,"logging_state":1})", State::Enabled, State::Disabled},
        Switches{"BlanksAround", R"({"pyx_state":"disabled ","logging_state":" enabled"})", State::Enabled,
                 State::Disabled}),
    NameOf<Switches>);

TEST(AStoredSwitch, ThatDiffersOnlyInLetterCaseIsNotRecognised) {
  PrepareDevice();
  test::SetRow("State", R"({"pyx_state":"Disabled","logging_state":"Enabled"})");
  State& state = State::Instance();
  EXPECT_EQ(state.PyxState(), State::Enabled);
  EXPECT_EQ(state.LoggingState(), State::Disabled);
}

// The configuration at the start

class AnInvalidConfig : public testing::TestWithParam<Case> {};

TEST_P(AnInvalidConfig, IsReplacedWholeByTheDefaultsAndTheRecordsStay) {
  Json::Value storage = UsedLog().Value();
  storage["config"] = Parsed(GetParam().text);
  PrepareDevice(test::Text(storage));
  State& state = State::Instance();
  storage["config"] = kDefaultConfig;
  EXPECT_EQ(InMemory(state), storage);
  EXPECT_EQ(Row("Storage"), storage);
}

INSTANTIATE_TEST_SUITE_P(
    With, AnInvalidConfig,
    testing::Values(Case{"NoObjectButANumber", "5"}, Case{"NoObjectButAnArray", "[1]"}, Case{"NoObjectButNull", "null"},
                    Case{"NoMember", "{}"}, Case{"NoMaxIndex", R"({"max_file_size":20,"max_logging_period":7200})"},
                    Case{"NoMaxFileSize", R"({"max_index":50,"max_logging_period":7200})"},
                    Case{"NoMaxLoggingPeriod", R"({"max_index":50,"max_file_size":20})"},
                    Case{"AZeroMaxIndex", R"({"max_index":0,"max_file_size":20,"max_logging_period":7200})"},
                    Case{"AZeroMaxFileSize", R"({"max_index":50,"max_file_size":0,"max_logging_period":7200})"},
                    Case{"AZeroMaxLoggingPeriod", R"({"max_index":50,"max_file_size":20,"max_logging_period":0})"},
                    Case{"AFraction", R"({"max_index":50.5,"max_file_size":20,"max_logging_period":7200})"},
                    Case{"AnObjectForANumber", R"({"max_index":{},"max_file_size":20,"max_logging_period":7200})"},
                    Case{"ANumberThatIsNoInt",
                         R"({"max_index":5000000000,"max_file_size":20,"max_logging_period":7200})"}),
    NameOf<Case>);

TEST(AStoredConfig, WithAStringForMaxFileSizeIsReplacedWholeByTheDefaults) {
  Json::Value storage = UsedLog().Value();
  storage["config"] = Parsed(R"({"max_index":50,"max_file_size":"10","max_logging_period":7200,"other":1})");
  PrepareDevice(test::Text(storage));
  State::Instance();
  EXPECT_EQ(Row("Storage")["config"], kDefaultConfig);
}

TEST(AStoredConfig, WithANegativeMaxIndexPassesValidation) {
  StoredLog log = UsedLog();
  log.maxIndex = -5;
  PrepareDevice(log);
  test::NoteWrites();
  EXPECT_EQ(InMemory(State::Instance())["config"]["max_index"], -5);
  EXPECT_THAT(test::Writes(), IsEmpty());
}

class AValidConfig : public testing::TestWithParam<Case> {};

TEST_P(AValidConfig, IsKeptAsItIs) {
  Json::Value storage = StoredLog().Value();
  storage["config"] = Parsed(GetParam().text);
  PrepareDevice(test::Text(storage));
  test::NoteWrites();
  EXPECT_EQ(InMemory(State::Instance()), storage);
  EXPECT_THAT(test::Writes(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    With, AValidConfig,
    testing::Values(
        Case{"ANegativeMaxFileSize", R"({"max_index":50,"max_file_size":-5,"max_logging_period":7200})"},
        Case{"ANegativeMaxLoggingPeriod", R"({"max_index":50,"max_file_size":20,"max_logging_period":-5})"},
        Case{"TheGreatestNumbers",
             R"({"max_index":2147483647,"max_file_size":2147483647,"max_logging_period":2147483647})"},
        Case{"AWholeNumberWrittenAsAReal", R"({"max_index":50.0,"max_file_size":20,"max_logging_period":7200})"},
        Case{"FurtherMembers", R"({"max_index":50,"max_file_size":20,"max_logging_period":7200,"other":"x"})"}),
    NameOf<Case>);

// The counters at the start

class InvalidCounters : public testing::TestWithParam<Case> {};

TEST_P(InvalidCounters, EmptyTheLogAtTheStart) {
  Json::Value storage = UsedLog().Value();
  storage["state"] = Parsed(GetParam().text);
  PrepareDevice(test::Text(storage));
  State& state = State::Instance();
  EXPECT_EQ(InMemory(state), Reset(storage["config"]));
  EXPECT_EQ(Row("Storage"), InMemory(state));
}

INSTANTIATE_TEST_SUITE_P(Such, InvalidCounters,
                         testing::Values(Case{"AsNull", "null"}, Case{"AsAnArray", "[]"}, Case{"AsANumber", "5"},
                                         Case{"AsANegativeCount", R"({"count":-1,"last_index":9})"},
                                         Case{"AsALastIndexBelowMinus1", R"({"count":10,"last_index":-2})"},
                                         Case{"AsTheGreatestLastIndex", R"({"count":10,"last_index":2147483647})"}),
                         NameOf<Case>);

TEST(StoredCounters, WithLastIndex2001CauseAResetEvenIfMaxIndexIsLarger) {
  StoredLog log = UsedLog();
  log.maxIndex = 5000;
  log.count = 3;
  log.lastIndex = 2001;
  PrepareDevice(log);
  State::Instance();
  EXPECT_EQ(Row("Storage"), Reset(log.Value()["config"]));
}

class ValidCounters : public testing::TestWithParam<Case> {};

TEST_P(ValidCounters, AreKeptAsTheyAre) {
  Json::Value storage = UsedLog().Value();
  storage["state"] = Parsed(GetParam().text);
  PrepareDevice(test::Text(storage));
  test::NoteWrites();
  EXPECT_EQ(InMemory(State::Instance()), storage);
  EXPECT_THAT(test::Writes(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Such, ValidCounters,
                         testing::Values(Case{"AsLastIndex2000AboveMaxIndex", R"({"count":10,"last_index":2000})"},
                                         Case{"AsLastIndexMinus1", R"({"count":10,"last_index":-1})"},
                                         Case{"AsNone", R"({})"}, Case{"AsStrings", R"({"count":"-1"})"},
                                         Case{"AsNegativeThreats", R"({"count":1,"last_index":0,"T":-4})"}),
                         NameOf<Case>);

// The switches

class ASwitch : public testing::Test {
 protected:
  /// @param stored  the "State" row to start from.
  State& Start(const std::string& stored = R"({"pyx_state":"enabled","logging_state":"disabled"})") {
    PrepareDevice(UsedLog());
    test::SetRow("State", stored);
    test::WriteFile(test::kBackup, test::ReadFile(test::kDatabase));
    State& state = State::Instance();
    test::NoteWrites();
    LogRecorder::Clear();
    return state;
  }
};

TEST_F(ASwitch, IsATwoValuedNumber) {
  EXPECT_EQ(static_cast<int>(State::Disabled), 0);
  EXPECT_EQ(static_cast<int>(State::Enabled), 1);
  EXPECT_EQ(sizeof(State::Enum), 4u);
}

TEST_F(ASwitch, ForTheFeatureIsSetAndStored) {
  State& state = Start();
  EXPECT_EQ(state.ApplyPyxState(State::Disabled), 0);
  EXPECT_EQ(state.PyxState(), State::Disabled);
  EXPECT_EQ(state.LoggingState(), State::Disabled);
  EXPECT_EQ(Row("State"), Parsed(R"({"pyx_state":"disabled","logging_state":"disabled"})"));
  EXPECT_EQ(state.ApplyPyxState(State::Enabled), 0);
  EXPECT_EQ(state.PyxState(), State::Enabled);
  EXPECT_EQ(Row("State"), Parsed(R"({"pyx_state":"enabled","logging_state":"disabled"})"));
  EXPECT_THAT(test::Writes(), ElementsAre("State", "State"));
  EXPECT_THAT(LinesOf({"State.cpp"}), IsEmpty());
}

TEST_F(ASwitch, ForTheFeatureSetToItsCurrentValueWritesNothingAndReturns0) {
  State& state = Start();
  EXPECT_EQ(state.ApplyPyxState(State::Enabled), 0);
  EXPECT_THAT(test::Writes(), IsEmpty());
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(ASwitch, ForLoggingSetToItsCurrentValueWritesNothingAndReturns0) {
  State& state = Start();
  EXPECT_EQ(state.ApplyLoggingState(State::Disabled), 0);
  EXPECT_THAT(test::Writes(), IsEmpty());
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(ASwitch, ForLoggingIsStoredBesideAFeatureSwitchThatStaysAsStored) {
  State& state = Start(R"({"pyx_state":"Odd","logging_state":"disabled"})");
  EXPECT_EQ(state.ApplyLoggingState(State::Enabled), 0);
  EXPECT_EQ(state.LoggingState(), State::Enabled);
  EXPECT_EQ(state.PyxState(), State::Enabled);
  EXPECT_EQ(Row("State"), Parsed(R"({"pyx_state":"Odd","logging_state":"enabled"})"));
  EXPECT_THAT(test::Writes(), ElementsAre("State"));
}

TEST_F(ASwitch, ForLoggingIsStoredAsDisabledAgain) {
  State& state = Start(R"({"pyx_state":"disabled","logging_state":"enabled"})");
  EXPECT_EQ(state.ApplyLoggingState(State::Disabled), 0);
  EXPECT_EQ(state.LoggingState(), State::Disabled);
  EXPECT_EQ(Row("State"), Parsed(R"({"pyx_state":"disabled","logging_state":"disabled"})"));
}

TEST_F(ASwitch, ForLoggingLeavesTheLogAlone) {
  State& state = Start(R"({"pyx_state":"enabled","logging_state":"enabled"})");
  EXPECT_EQ(state.ApplyLoggingState(State::Disabled), 0);
  EXPECT_EQ(InMemory(state), UsedLog().Value());
  EXPECT_EQ(Row("Storage"), UsedLog().Value());
  EXPECT_THAT(test::Writes(), ElementsAre("State"));
}

TEST_F(ASwitch, OfAnotherValueThanTheTwoIsStoredAsEnabled) {
  State& state = Start(R"({"pyx_state":"disabled","logging_state":"disabled"})");
  EXPECT_EQ(state.ApplyPyxState(static_cast<State::Enum>(2)), 0);
  EXPECT_EQ(Row("State")["pyx_state"], "enabled");
  EXPECT_EQ(static_cast<int>(state.PyxState()), 2);
}

TEST_F(ASwitch, KeepsTheFurtherMembersOfTheStoredPolicy) {
  State& state = Start(R"({"pyx_state":"enabled","logging_state":"disabled","other":[1]})");
  EXPECT_EQ(state.ApplyPyxState(State::Disabled), 0);
  EXPECT_EQ(Row("State"), Parsed(R"({"pyx_state":"disabled","logging_state":"disabled","other":[1]})"));
}

TEST_F(ASwitch, ReplacesAStoredPolicyThatIsNoJson) {
  State& state = Start("{{");
  EXPECT_EQ(state.ApplyPyxState(State::Disabled), 0);
  EXPECT_EQ(Row("State"), Parsed(R"({"pyx_state":"disabled"})"));
}

/// The lines of a write that is refused to the end, and what the caller adds to them.
auto RefusedWrite(const std::string& function, const std::string& message) {
  const auto refused = PluginLine(kError, "DBStorage.cpp", "WritePolicy", "Failed to write [State], refused");
  return ElementsAre(refused, refused, refused,
                     PluginLine(kError, "Manager.cpp", "UpdatePolicy", "Failed to update [State] policy"),
                     PluginLine(kError, "State.cpp", function, message));
}

TEST_F(ASwitch, ForTheFeatureThatCannotBeStoredIsSetInMemoryAllTheSame) {
  State& state = Start();
  test::RefuseWrites("State");
  EXPECT_EQ(state.ApplyPyxState(State::Disabled), kRefused);
  EXPECT_EQ(state.PyxState(), State::Disabled);
  EXPECT_EQ(Row("State")["pyx_state"], "enabled");
  EXPECT_THAT(LinesFrom(test::kWarning), RefusedWrite("ApplyPyxState", "Failed to change PYX state"));
}

TEST_F(ASwitch, ForLoggingThatCannotBeStoredIsSetInMemoryAllTheSame) {
  State& state = Start();
  test::RefuseWrites("State");
  EXPECT_EQ(state.ApplyLoggingState(State::Enabled), kRefused);
  EXPECT_EQ(state.LoggingState(), State::Enabled);
  EXPECT_EQ(Row("State")["logging_state"], "disabled");
  EXPECT_THAT(LinesFrom(test::kWarning), RefusedWrite("ApplyLoggingState", "Failed to change STAT state"));
}

TEST_F(ASwitch, ThatCouldNotBeStoredIsNotWrittenByTheSameValueAgain) {
  State& state = Start();
  test::RefuseWrites("State");
  EXPECT_EQ(state.ApplyPyxState(State::Disabled), kRefused);
  test::AllowWrites();
  EXPECT_EQ(state.ApplyPyxState(State::Disabled), 0);
  EXPECT_EQ(Row("State")["pyx_state"], "enabled");
}

/// Runs a change on a thread of its own up to the end of its save, and asks there whether the state is locked.
/// @param saved  whether the change is in the database by now.
template <class Change, class Saved>
bool IsLockedDuring(State& state, Change change, Saved saved) {
  HeldSave held;
  std::thread thread(change);
  EXPECT_TRUE(test::WaitUntil(saved));
  const bool locked = !state.Mutex().try_lock();
  if (!locked) state.Mutex().unlock();
  held.Release();
  thread.join();
  return locked;
}

TEST_F(ASwitch, ForTheFeatureIsStoredUnderTheLock) {
  State& state = Start();
  EXPECT_TRUE(IsLockedDuring(
      state, [&] { state.ApplyPyxState(State::Disabled); }, [] { return Row("State")["pyx_state"] == "disabled"; }));
}

TEST_F(ASwitch, ForLoggingIsStoredUnderTheLock) {
  State& state = Start();
  EXPECT_TRUE(IsLockedDuring(
      state, [&] { state.ApplyLoggingState(State::Enabled); },
      [] { return Row("State")["logging_state"] == "enabled"; }));
}

TEST_F(ASwitch, IsSetByOneWhoHoldsTheLockAlready) {
  State& state = Start();
  const std::lock_guard guard(state.Mutex());
  EXPECT_EQ(state.ApplyPyxState(State::Disabled), 0);
  EXPECT_EQ(state.ApplyLoggingState(State::Enabled), 0);
  EXPECT_EQ(state.ResetLog(), 0);
  EXPECT_FALSE(state.GetLogStatus().isNull());
}

TEST_F(ASwitch, ThatCannotBeLockedThrowsTheSystemsErrorAndStaysAsItWas) {
  State& state = Start();
  {
    const test::UnlockableState unlockable(state);
    EXPECT_THROW(state.ApplyPyxState(State::Disabled), std::system_error);
    EXPECT_THROW(state.ApplyLoggingState(State::Enabled), std::system_error);
    EXPECT_THROW(state.ResetLog(), std::system_error);
    EXPECT_THROW(state.GetLogStatus(), std::system_error);
  }
  EXPECT_EQ(state.PyxState(), State::Enabled);
  EXPECT_EQ(state.LoggingState(), State::Disabled);
  EXPECT_THAT(test::Writes(), IsEmpty());
}

// Resetting and saving

class TheStorage : public testing::Test {
 protected:
  State& Start() {
    PrepareDevice(UsedLog());
    State& state = State::Instance();
    test::NoteWrites();
    LogRecorder::Clear();
    return state;
  }
};

TEST_F(TheStorage, IsResetToItsConfigurationAndFreshCountersAndNotSaved) {
  State& state = Start();
  SetInMemory(state, "other", 1);
  state.ResetState();
  EXPECT_EQ(InMemory(state), Reset(UsedLog().Value()["config"]));
  EXPECT_EQ(Row("Storage"), UsedLog().Value());
  EXPECT_THAT(test::Writes(), IsEmpty());
}

TEST_F(TheStorage, IsSavedWithTheDatabasesCode) {
  State& state = Start();
  state.ResetState();
  EXPECT_EQ(state.SaveStorage(), 0);
  EXPECT_EQ(Row("Storage"), Reset(UsedLog().Value()["config"]));
  EXPECT_THAT(test::Writes(), ElementsAre("Storage"));
}

TEST_F(TheStorage, ThatCannotBeSavedStaysInMemoryAndIsWrittenByTheNextSave) {
  State& state = Start();
  test::RefuseWrites("Storage");
  state.ResetState();
  EXPECT_EQ(state.SaveStorage(), kRefused);
  EXPECT_EQ(InMemory(state), Reset(UsedLog().Value()["config"]));
  EXPECT_EQ(Row("Storage"), UsedLog().Value());
  test::AllowWrites();
  EXPECT_EQ(state.SaveStorage(), 0);
  EXPECT_EQ(Row("Storage"), Reset(UsedLog().Value()["config"]));
}

// The end of the process

class AtTheEndOfTheProcess : public testing::Test {
 protected:
  static inline std::string before;
};

/// Handlers run in the reverse order of what was made: this one after the locals of functions that were made after it,
/// and before the service manager ends, whose threads still use them.
TEST_F(AtTheEndOfTheProcess, TheStateOutlivesTheServiceManager) {
  PrepareDevice(UsedLog());
  const auto endTheProcess = [] {
    plugin::PYXManager::Instance();
    std::atexit([] { _exit(State::Instance().GetLogStatus().AsString() == before ? 0 : 1); });
    before = State::Instance().GetLogStatus().AsString();
    std::exit(2);
  };
  EXPECT_EXIT(endTheProcess(), testing::ExitedWithCode(0), "");
}

TEST_F(AtTheEndOfTheProcess, TheDefaultPolicyOutlivesTheServiceManager) {
  PrepareDevice();
  const auto endTheProcess = [] {
    plugin::PYXManager::Instance();
    std::atexit([] { _exit(policy::Manager::DefaultPolicy().AsString() == before ? 0 : 1); });
    before = policy::Manager::DefaultPolicy().AsString();
    std::exit(before.empty() ? 3 : 2);
  };
  EXPECT_EXIT(endTheProcess(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace zav::pyx
