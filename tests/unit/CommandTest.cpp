#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <ostream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "PYXManager.h"
#include "ipc/service/Service.h"
#include "pyx/State.h"
#include "support/LogRecorder.h"
#include "support/MallocWatch.h"
#include "support/StateInMemory.h"
#include "support/StoredState.h"
#include "support/WaitUntil.h"
#include "zav-pyx-plugin.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using zav::plugin::PYXManager;
using zav::pyx::State;
using zav::test::DpmLine;
using zav::test::InMemory;
using zav::test::kWarning;
using zav::test::LinesOf;
using zav::test::LogRecorder;
using zav::test::MallocWatch;
using zav::test::Parsed;
using zav::test::PrepareDevice;
using zav::test::Record;
using zav::test::Row;
using zav::test::SetInMemory;
using zav::test::StoredLog;

const std::string kSuccess = "{\"operationStatus\":\"success\"}\n";
const std::string kFailed = "{\"operationStatus\":\"failed\"}\n";

const std::vector<std::string> kCommands{"Enable",    "Disable",      "EnableLogging", "DisableLogging",
                                         "GetStatus", "UpdateConfig", "ResetLog",      "ResetLogStat"};

/// The warning for what is no command.
const auto kUnknown =
    DpmLine(kWarning, "executeCommandInternal", "Unknown Plugin command", "\033[33mDPM: Unknown Plugin command\033[0m");

/// When the records of these tests were made.
const int kNow = zav::test::Now();

/// A log in use, whose configuration is no default and within the limits.
StoredLog UsedLog() {
  return {.maxIndex = 500,
          .maxFileSize = 20,
          .maxLoggingPeriod = 7200,
          .count = 7,
          .lastIndex = 6,
          .counters = {{"T", 7}},
          .records = {{"6", Record("http://6", "T", kNow)}}};
}

Json::Value Config(int maxIndex, int maxFileSize, int maxLoggingPeriod) {
  return StoredLog{.maxIndex = maxIndex, .maxFileSize = maxFileSize, .maxLoggingPeriod = maxLoggingPeriod}
      .Value()["config"];
}

class ACommand : public testing::Test {
 protected:
  /// A device in use, with a restart delay of 60 seconds.
  State& Start(const StoredLog& log = UsedLog()) {
    PrepareDevice(log);
    zav::test::SetRow("Service", R"({"restart_delay":60})");
    zav::test::WriteFile(zav::test::kBackup, zav::test::ReadFile(zav::test::kDatabase));
    PYXManager::Instance();
    State& state = State::Instance();
    zav::test::NoteWrites();
    LogRecorder::Clear();
    return state;
  }

  std::string Execute(const std::string& command, const std::string& data = "") {
    return provider.executeCommand(command, data);
  }

  dpm_zav_pyx_plugin provider;
};

// Which commands there are

TEST_F(ACommand, InLowerCaseIsUnknown) {
  Start();
  EXPECT_EQ(Execute("enable"), "fail");
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(kUnknown));
}

TEST_F(ACommand, ThatIsNotOneOfTheEightByteForByteIsUnknown) {
  Start();
  for (const std::string& command :
       {std::string(), std::string("Enabl"), std::string("Enable "), std::string(" Enable"), std::string("Enable\0", 7),
        std::string("EnableLog"), std::string("GETSTATUS"), std::string("ResetLogStats"), std::string("Enable\n"),
        std::string("\0Enable", 7)}) {
    SCOPED_TRACE(command);
    LogRecorder::Clear();
    EXPECT_EQ(Execute(command), "fail");
    EXPECT_THAT(LogRecorder::Lines(), ElementsAre(kUnknown));
  }
  EXPECT_THAT(zav::test::Writes(), IsEmpty());
}

TEST_F(ACommand, ThatIsUnknownNeedsNeitherManagerNorState) {
  LogRecorder::Clear();
  EXPECT_EQ(Execute("Start"), "fail");
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(kUnknown));
  EXPECT_FALSE(zav::test::FileExists(zav::test::kDatabase));
}

TEST_F(ACommand, FirstMakesTheManagerAndThenTheState) {
  PrepareDevice();
  Execute("Enable");
  std::vector<std::string> messages;
  for (const auto& line : LinesOf({"DBStorage.cpp"})) messages.push_back(line.message);
  EXPECT_THAT(messages, ElementsAre("Table [PYXPlugin] is present", "Successfully read [Service]",
                                    "Successfully read [Storage]", "Successfully read [State]"));
}

TEST_F(ACommand, ForWhichThereIsNoStateThrowsAndTheNextOneTriesAgain) {
  for (const std::string& command : kCommands) {
    SCOPED_TRACE(command);
    zav::test::MakeStorageDirectory();
    std::remove(zav::test::kDatabase.c_str());
    try {
      Execute(command);
      ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& exception) {
      EXPECT_STREQ(exception.what(), "Default policy is empty");
    }
  }
  EXPECT_EQ(Execute("Disable"), kSuccess);
}

TEST_F(ACommand, ThatCannotLockTheStateThrowsTheSystemsError) {
  State& state = Start();
  const zav::test::UnlockableState unlockable(state);
  for (const std::string& command : kCommands) {
    EXPECT_THROW(Execute(command, R"({"Service":{"restart_delay":90}})"), std::system_error) << command;
  }
  EXPECT_THAT(zav::test::Writes(), IsEmpty());
}

// The switches

TEST_F(ACommand, SwitchesTheFeature) {
  State& state = Start();
  EXPECT_EQ(Execute("Disable"), kSuccess);
  EXPECT_EQ(state.PyxState(), State::Disabled);
  EXPECT_EQ(Row("State"), Parsed(R"({"pyx_state":"disabled","logging_state":"enabled"})"));
  EXPECT_EQ(Execute("Enable"), kSuccess);
  EXPECT_EQ(state.PyxState(), State::Enabled);
  EXPECT_EQ(Row("State"), Parsed(R"({"pyx_state":"enabled","logging_state":"enabled"})"));
  EXPECT_EQ(Execute("Enable"), kSuccess) << "again";
  EXPECT_THAT(zav::test::Writes(), ElementsAre("State", "State"));
}

TEST_F(ACommand, SwitchesLogging) {
  State& state = Start();
  EXPECT_EQ(Execute("DisableLogging"), kSuccess);
  EXPECT_EQ(state.LoggingState(), State::Disabled);
  EXPECT_EQ(Row("State"), Parsed(R"({"pyx_state":"enabled","logging_state":"disabled"})"));
  EXPECT_EQ(Execute("EnableLogging"), kSuccess);
  EXPECT_EQ(state.LoggingState(), State::Enabled);
  EXPECT_EQ(Row("State"), Parsed(R"({"pyx_state":"enabled","logging_state":"enabled"})"));
  EXPECT_EQ(Execute("EnableLogging"), kSuccess) << "again";
  EXPECT_THAT(zav::test::Writes(), ElementsAre("State", "State"));
}

TEST_F(ACommand, DoesNotLookAtAPayloadThatItDoesNotRead) {
  Start();
  for (const std::string& command : kCommands) {
    if (command == "UpdateConfig") continue;
    EXPECT_EQ(Parsed(Execute(command, "{{{"))["operationStatus"], "success") << command;
  }
}

/// A command that writes a policy, and which.
struct Writer {
  const char* command;
  const char* data;
  const char* policy;
};

std::ostream& operator<<(std::ostream& out, const Writer& writer) {
  return out << writer.command;
}

class AFailingCommand : public ACommand, public testing::WithParamInterface<Writer> {};

TEST_P(AFailingCommand, IsAnsweredFailedAsJson) {
  State& state = Start();
  state.ApplyPyxState(GetParam().command == std::string("Enable") ? State::Disabled : State::Enabled);
  state.ApplyLoggingState(GetParam().command == std::string("EnableLogging") ? State::Disabled : State::Enabled);
  zav::test::RefuseWrites(GetParam().policy);
  EXPECT_EQ(Execute(GetParam().command, GetParam().data), kFailed);
}

INSTANTIATE_TEST_SUITE_P(Such, AFailingCommand,
                         testing::Values(Writer{"Enable", "", "State"}, Writer{"Disable", "", "State"},
                                         Writer{"EnableLogging", "", "State"}, Writer{"DisableLogging", "", "State"},
                                         Writer{"UpdateConfig", R"({"Service":{"restart_delay":90}})", "Service"},
                                         Writer{"ResetLog", "", "Storage"}, Writer{"ResetLogStat", "", "Storage"}),
                         [](const auto& each) { return std::string("As") + each.param.command; });

// The log

TEST_F(ACommand, TellsTheStatusOfTheLogAndThatItSucceeded) {
  State& state = Start();
  EXPECT_EQ(Execute("GetStatus"),
            R"({"config":{"max_file_size":20,"max_index":500,"max_logging_period":7200},)"
            R"("in_storage":{"T":1,"count":1},"operationStatus":"success","state":{"T":7,"count":7}})"
            "\n");
  EXPECT_EQ(InMemory(state), UsedLog().Value());
}

TEST_F(ACommand, TellsOnlyThatItFailedWhereTheStatusIsNull) {
  State& state = Start();
  SetInMemory(state, Json::Value());
  EXPECT_EQ(Execute("GetStatus"), kFailed);
}

TEST_F(ACommand, ResetsTheLogAndKeepsItsCounters) {
  State& state = Start();
  EXPECT_EQ(Execute("ResetLog"), kSuccess);
  StoredLog log = UsedLog();
  log.records.clear();
  EXPECT_EQ(Row("Storage"), log.Value());
  EXPECT_EQ(InMemory(state), log.Value());
}

TEST_F(ACommand, ResetsTheLogAndItsCounters) {
  State& state = Start();
  EXPECT_EQ(Execute("ResetLogStat"), kSuccess);
  StoredLog log = UsedLog();
  log.records.clear();
  log.counters.clear();
  log.count = 0;
  log.lastIndex = -1;
  EXPECT_EQ(Row("Storage"), log.Value());
  EXPECT_EQ(InMemory(state), log.Value());
  EXPECT_THAT(zav::test::Writes(), ElementsAre("Storage"));
}

/// Runs a command on a thread of its own up to the end of a save, and asks there whether the state is locked.
template <class Saved>
bool IsLockedDuring(State& state, const std::string& command, const std::string& data, Saved saved) {
  zav::test::HeldSave held;
  std::thread thread([&] { dpm_zav_pyx_plugin().executeCommand(command, data); });
  EXPECT_TRUE(zav::test::WaitUntil(saved));
  const bool locked = !state.Mutex().try_lock();
  if (!locked) state.Mutex().unlock();
  held.Release();
  thread.join();
  return locked;
}

TEST_F(ACommand, ResetsTheLogAndItsCountersUnderTheLock) {
  State& state = Start();
  EXPECT_TRUE(IsLockedDuring(state, "ResetLogStat", "", [] { return Row("Storage")["state"]["count"] == 0; }));
}

// Changing the configuration

class UpdateConfig : public ACommand {
 protected:
  std::string Update(const std::string& payload) { return Execute("UpdateConfig", payload); }

  /// Executes it and expects that nothing came of it.
  void ExpectRefused(const std::string& payload) {
    SCOPED_TRACE(payload);
    State& state = State::Instance();
    EXPECT_EQ(Update(payload), kFailed);
    EXPECT_THAT(zav::test::Writes(), IsEmpty());
    EXPECT_EQ(InMemory(state), UsedLog().Value());
    EXPECT_EQ(PYXManager::Instance().RestartDelay(), 60);
  }
};

TEST_F(UpdateConfig, WithRestartDelay5StoresAndTakes30) {
  Start();
  EXPECT_EQ(Update(R"({"Service":{"restart_delay":5}})"), kSuccess);
  EXPECT_EQ(Row("Service"), Parsed(R"({"restart_delay":30})"));
  EXPECT_EQ(PYXManager::Instance().RestartDelay(), 30);
  EXPECT_THAT(zav::test::Writes(), ElementsAre("Service"));
}

TEST_F(UpdateConfig, WithRestartDelay100000Stores3600) {
  Start();
  EXPECT_EQ(Update(R"({"Service":{"restart_delay":100000}})"), kSuccess);
  EXPECT_EQ(Row("Service"), Parsed(R"({"restart_delay":3600})"));
  EXPECT_EQ(PYXManager::Instance().RestartDelay(), 3600);
}

TEST_F(UpdateConfig, WithMaxFileSizeAboveMaxIndexStoresMaxIndex2000AndTheCurrentPeriod) {
  Start();
  EXPECT_EQ(Update(R"({"Storage":{"config":{"max_file_size":500,"max_index":100}}})"), kSuccess);
  EXPECT_EQ(Row("Storage")["config"], Config(2000, 500, 7200));
  EXPECT_THAT(zav::test::Writes(), ElementsAre("Storage"));
}

TEST_F(UpdateConfig, BringsTheCurrentPeriodIntoItsLimits) {
  State& state = Start();
  const std::string payload = R"({"Storage":{"config":{"max_file_size":500,"max_index":100}}})";
  for (const auto& [current, stored] : {std::pair{60, 3600}, {-5, 3600}, {31622401, 31622400}, {31622400, 31622400}}) {
    SCOPED_TRACE(current);
    state.SetConfig(zav::policy::Policy(Config(500, 20, current)));
    EXPECT_EQ(Update(payload), kSuccess);
    EXPECT_EQ(Row("Storage")["config"], Config(2000, 500, stored));
  }
}

TEST_F(UpdateConfig, WithMaxFileSize5Stores10) {
  Start();
  EXPECT_EQ(Update(R"({"Storage":{"config":{"max_file_size":5}}})"), kSuccess);
  EXPECT_EQ(Row("Storage")["config"], Config(500, 10, 7200));
}

TEST_F(UpdateConfig, WithAnEmptyObjectOrTextThatIsNotJsonFailsAndStoresNothing) {
  Start();
  ExpectRefused("{}");
  ExpectRefused("restart_delay");
  ExpectRefused("");
}

TEST_F(UpdateConfig, WithATruncatedPayloadFailsAndStoresNothing) {
  Start();
  const std::string whole =
      R"({"Service":{"restart_delay":90},"Storage":{"config":{"max_file_size":30,"max_index":50}}})";
  for (size_t size = 0; size < whole.size(); ++size) ExpectRefused(whole.substr(0, size));
  EXPECT_EQ(Update(whole), kSuccess);
}

/// Every JSON value that is no object, and an object in the place of a number.
const std::vector<std::string> kWrongTypes{
    "null",   "0",    "90",   "-1", "1.5",
    "\"90\"", "\"\"", "true", "[]", "[{\"restart_delay\":90,\"config\":{\"max_index\":50}}]"};

TEST_F(UpdateConfig, WhoseTopIsNoObjectFailsAndStoresNothing) {
  Start();
  for (const auto& wrong : kWrongTypes) ExpectRefused(wrong);
}

TEST_F(UpdateConfig, WhoseServiceIsNoObjectFailsAndStoresNothing) {
  Start();
  for (const auto& wrong : kWrongTypes) ExpectRefused(R"({"Service":)" + wrong + "}");
}

TEST_F(UpdateConfig, WhoseRestartDelayIsNoIntegerFailsAndStoresNothing) {
  Start();
  for (const std::string wrong : {"null", "0", "0.0", "1.5", "\"90\"", "true", "[90]", "{}", "2147483648", "-1e300"}) {
    ExpectRefused(R"({"Service":{"restart_delay":)" + wrong + "}}");
  }
}

TEST_F(UpdateConfig, WhoseStorageIsNoObjectFailsAndStoresNothing) {
  Start();
  for (const auto& wrong : kWrongTypes) ExpectRefused(R"({"Storage":)" + wrong + "}");
}

TEST_F(UpdateConfig, WhoseConfigIsNoObjectFailsAndStoresNothing) {
  Start();
  for (const auto& wrong : kWrongTypes) ExpectRefused(R"({"Storage":{"config":)" + wrong + "}}");
}

TEST_F(UpdateConfig, TakesEverySettingThatIsNoIntegerForAbsent) {
  Start();
  for (const std::string wrong : {"null", "0", "50.5", "\"50\"", "true", "[50]", "{}", "5000000000"}) {
    SCOPED_TRACE(wrong);
    EXPECT_EQ(Update(R"({"Storage":{"config":{"max_index":)" + wrong + R"(,"max_file_size":)" + wrong +
                     R"(,"max_logging_period":)" + wrong + "}}}"),
              kSuccess);
    EXPECT_EQ(Row("Storage")["config"], Config(500, 20, 7200));
  }
}

TEST_F(UpdateConfig, TakesAWholeNumberWrittenAsAReal) {
  Start();
  EXPECT_EQ(Update(R"({"Service":{"restart_delay":90.0}})"), kSuccess);
  EXPECT_EQ(Row("Service"), Parsed(R"({"restart_delay":90})"));
}

TEST_F(UpdateConfig, TakesNoSettingFromAServiceOfAWrongTypeBesideAGoodConfig) {
  Start();
  for (const auto& wrong : kWrongTypes) {
    SCOPED_TRACE(wrong);
    EXPECT_EQ(Update(R"({"Service":)" + wrong + R"(,"Storage":{"config":{"max_index":50}}})"), kSuccess);
    EXPECT_EQ(Row("Storage")["config"], Config(50, 20, 7200));
    EXPECT_EQ(PYXManager::Instance().RestartDelay(), 60);
  }
}

TEST_F(UpdateConfig, TakesNoSettingFromAStorageOfAWrongTypeBesideAGoodService) {
  Start();
  for (const auto& wrong : kWrongTypes) {
    SCOPED_TRACE(wrong);
    EXPECT_EQ(Update(R"({"Service":{"restart_delay":90},"Storage":)" + wrong + "}"), kSuccess);
    EXPECT_EQ(Row("Service"), Parsed(R"({"restart_delay":90})"));
    EXPECT_EQ(Row("Storage"), UsedLog().Value());
  }
}

TEST_F(UpdateConfig, WithAnEmptyConfigSavesTheCurrentOneWithinItsLimits) {
  State& state = Start();
  state.SetConfig(zav::policy::Policy(Config(-5, 5000, 60)));
  EXPECT_EQ(Update(R"({"Storage":{"config":{}}})"), kSuccess);
  EXPECT_EQ(Row("Storage")["config"], Config(2000, 1000, 3600));
  EXPECT_THAT(zav::test::Writes(), ElementsAre("Storage"));
}

TEST_F(UpdateConfig, ReplacesTheConfigurationWholeAndLeavesTheRestOfTheLog) {
  State& state = Start();
  zav::policy::Policy config(UsedLog().Value()["config"]);
  config.SetStringValue("other", "x");
  state.SetConfig(std::move(config));
  EXPECT_EQ(Update(R"({"Storage":{"config":{"max_index":50,"further":1}}})"), kSuccess);
  StoredLog log = UsedLog();
  log.maxIndex = 50;
  EXPECT_EQ(Row("Storage"), log.Value());
  EXPECT_EQ(InMemory(state), log.Value());
}

TEST_F(UpdateConfig, StoresOfTheServiceSettingsTheDelayAlone) {
  Start();
  EXPECT_EQ(Update(R"({"Service":{"restart_delay":90,"other":"x"}})"), kSuccess);
  EXPECT_EQ(Row("Service"), Parsed(R"({"restart_delay":90})"));
}

TEST_F(UpdateConfig, StoresServiceAndStorageSettingsOfOnePayload) {
  Start();
  EXPECT_EQ(Update(R"({"Service":{"restart_delay":90},"Storage":{"config":{"max_index":50}}})"), kSuccess);
  EXPECT_EQ(Row("Service"), Parsed(R"({"restart_delay":90})"));
  EXPECT_EQ(Row("Storage")["config"], Config(50, 20, 7200));
  EXPECT_EQ(PYXManager::Instance().RestartDelay(), 90);
  EXPECT_THAT(zav::test::Writes(), ElementsAre("Service", "Storage"));
}

TEST_F(UpdateConfig, WithAServiceWithoutDelayBesideAGoodConfigGivesTheManagerItsLeastDelayAndStoresNone) {
  Start();
  EXPECT_EQ(Update(R"({"Service":{},"Storage":{"config":{}}})"), kSuccess);
  EXPECT_EQ(PYXManager::Instance().RestartDelay(), 30);
  EXPECT_EQ(Row("Service"), Parsed(R"({"restart_delay":60})"));
}

/// A setting, what a payload gives and what is stored.
struct Limit {
  const char* name;
  const char* key;
  int given;
  int stored;
};

std::ostream& operator<<(std::ostream& out, const Limit& limit) {
  return out << limit.key << " " << limit.given;
}

class ASetting : public UpdateConfig, public testing::WithParamInterface<Limit> {};

TEST_P(ASetting, IsBroughtIntoItsLimits) {
  Start();
  const std::string setting = std::string("{\"") + GetParam().key + "\":" + std::to_string(GetParam().given) + "}";
  EXPECT_EQ(Update(R"({"Service":)" + setting + R"(,"Storage":{"config":)" + setting + "}}"), kSuccess);
  const Json::Value service = Row("Service");
  const Json::Value config = Row("Storage")["config"];
  EXPECT_EQ(config.isMember(GetParam().key) ? config[GetParam().key] : service[GetParam().key], GetParam().stored);
}

INSTANTIATE_TEST_SUITE_P(
    Such, ASetting,
    testing::Values(
        Limit{"RestartDelayBelow", "restart_delay", 29, 30}, Limit{"RestartDelayLeast", "restart_delay", 30, 30},
        Limit{"RestartDelayMost", "restart_delay", 3600, 3600}, Limit{"RestartDelayAbove", "restart_delay", 3601, 3600},
        Limit{"RestartDelayNegative", "restart_delay", -7, 30}, Limit{"PeriodBelow", "max_logging_period", 3599, 3600},
        Limit{"PeriodLeast", "max_logging_period", 3600, 3600},
        Limit{"PeriodMost", "max_logging_period", 31622400, 31622400},
        Limit{"PeriodAbove", "max_logging_period", 31622401, 31622400},
        Limit{"PeriodNegative", "max_logging_period", -7, 3600}, Limit{"FileSizeBelow", "max_file_size", 9, 10},
        Limit{"FileSizeLeast", "max_file_size", 10, 10}, Limit{"FileSizeMost", "max_file_size", 1000, 1000},
        Limit{"FileSizeAbove", "max_file_size", 1001, 1000}, Limit{"FileSizeNegative", "max_file_size", -7, 10},
        // The number of records is 20 at most.
        Limit{"IndexBelowTheNumberOfRecords", "max_index", 19, 2000},
        Limit{"IndexAsTheNumberOfRecords", "max_index", 20, 20}, Limit{"IndexMost", "max_index", 2000, 2000},
        Limit{"IndexAbove", "max_index", 2001, 2000}, Limit{"IndexGreatest", "max_index", 2147483647, 2000},
        Limit{"IndexNegative", "max_index", -7, 2000}),
    [](const auto& each) { return std::string(each.param.name); });

TEST_F(UpdateConfig, ComparesMaxIndexWithTheClampedMaxFileSize) {
  Start();
  EXPECT_EQ(Update(R"({"Storage":{"config":{"max_file_size":5000,"max_index":1000}}})"), kSuccess);
  EXPECT_EQ(Row("Storage")["config"], Config(1000, 1000, 7200));
  EXPECT_EQ(Update(R"({"Storage":{"config":{"max_file_size":5,"max_index":9}}})"), kSuccess);
  EXPECT_EQ(Row("Storage")["config"], Config(2000, 10, 7200));
}

TEST_F(UpdateConfig, ThatCannotStoreTheDelayFailsAndLeavesTheManagersOne) {
  Start();
  zav::test::RefuseWrites("Service");
  EXPECT_EQ(Update(R"({"Service":{"restart_delay":90}})"), kFailed);
  EXPECT_EQ(PYXManager::Instance().RestartDelay(), 60);
}

TEST_F(UpdateConfig, ThatCannotStoreTheDelayStoresTheConfigurationAndFailsAllTheSame) {
  Start();
  zav::test::RefuseWrites("Service");
  EXPECT_EQ(Update(R"({"Service":{"restart_delay":90},"Storage":{"config":{"max_index":50}}})"), kFailed);
  EXPECT_EQ(Row("Storage")["config"], Config(50, 20, 7200));
  EXPECT_EQ(PYXManager::Instance().RestartDelay(), 60);
}

TEST_F(UpdateConfig, ThatCannotStoreTheConfigurationFailsAndLeavesTheManagersDelay) {
  State& state = Start();
  zav::test::RefuseWrites("Storage");
  EXPECT_EQ(Update(R"({"Service":{"restart_delay":90},"Storage":{"config":{"max_index":50}}})"), kFailed);
  EXPECT_EQ(Row("Service"), Parsed(R"({"restart_delay":90})"));
  EXPECT_EQ(Row("Storage"), UsedLog().Value());
  EXPECT_EQ(InMemory(state)["config"], Config(50, 20, 7200)) << "it stays in memory";
  EXPECT_EQ(PYXManager::Instance().RestartDelay(), 60);
}

TEST_F(UpdateConfig, StoresTheDelayUnderTheLock) {
  State& state = Start();
  EXPECT_TRUE(IsLockedDuring(state, "UpdateConfig", R"({"Service":{"restart_delay":90}})",
                             [] { return Row("Service")["restart_delay"] == 90; }));
}

TEST_F(UpdateConfig, StoresTheConfigurationUnderTheLock) {
  State& state = Start();
  EXPECT_TRUE(IsLockedDuring(state, "UpdateConfig", R"({"Storage":{"config":{"max_index":50}}})",
                             [] { return Row("Storage")["config"]["max_index"] == 50; }));
}

// Commands as plain buffers

class ABuffer : public ACommand {
 protected:
  ~ABuffer() override { std::free(reply); }

  /// Calls with the lengths as they are given.
  int Call(const char* command, int commandLength, const char* data = nullptr, int dataLength = 0) {
    std::free(reply);
    reply = kUntouched;
    length = 77;
    const int result = dpm_zav_pyx_plugin::executeCommandInternal(
        reinterpret_cast<const unsigned char*>(command), commandLength, reinterpret_cast<const unsigned char*>(data),
        dataLength, &reply, &length);
    EXPECT_NE(reply, kUntouched);
    return result;
  }

  std::string Reply() const { return {reinterpret_cast<const char*>(reply), static_cast<size_t>(length)}; }

  unsigned char* const kUntouched = reinterpret_cast<unsigned char*>(this);
  unsigned char* reply = nullptr;
  int length = 77;
};

TEST_F(ABuffer, ThatHoldsTheReplyIsAsLongAsItsTextWithoutAClosingZero) {
  Start();
  EXPECT_EQ(Call("Enable", 6), 0);
  EXPECT_EQ(Reply(), kSuccess);
  EXPECT_EQ(MallocWatch::LastSize(), kSuccess.size());
}

TEST_F(ABuffer, ThatHoldsACommandEndsWithItsLength) {
  Start();
  EXPECT_EQ(Call("EnableLogging", 6), 0);
  EXPECT_EQ(Call("Enable", 7), -1) << "the closing zero is a byte, too";
}

TEST_F(ABuffer, ThatHoldsAPayloadEndsWithItsLength) {
  Start();
  const char* payload = R"({"Service":{"restart_delay":90}} garbage)";
  EXPECT_EQ(Call("UpdateConfig", 12, payload, 32), 0);
  EXPECT_EQ(Reply(), kSuccess);
}

TEST_F(ABuffer, ForTheReplyIsNullAndItsLengthLeftAloneForAnUnknownCommand) {
  Start();
  EXPECT_EQ(Call("Nothing", 7), -1);
  EXPECT_EQ(reply, nullptr);
  EXPECT_EQ(length, 77);
}

TEST_F(ABuffer, ForTheReplyThatCannotBeHadIsNullAndNoFailure) {
  Start();
  MallocWatch::FailNext();
  EXPECT_EQ(Call("Disable", 7), 0);
  EXPECT_EQ(reply, nullptr);
  EXPECT_EQ(State::Instance().PyxState(), State::Disabled);
}

TEST_F(ABuffer, ForTheReplyThatCannotBeHadMakesAnEmptyReply) {
  Start();
  MallocWatch::FailNext();
  EXPECT_EQ(Execute("Disable"), "");
  EXPECT_EQ(Execute("Disable"), kSuccess);
}

TEST_F(ABuffer, ThatIsNullIsAnEmptyOneWhateverItsLength) {
  Start();
  for (const int given : {0, 6, 1000000, -1}) {
    SCOPED_TRACE(given);
    EXPECT_EQ(Call(nullptr, given), -1);
    EXPECT_EQ(Call("UpdateConfig", 12, nullptr, given), 0);
    EXPECT_EQ(Reply(), kFailed);
  }
}

TEST_F(ABuffer, OfANegativeLengthIsAnEmptyOne) {
  Start();
  EXPECT_EQ(Call("Enable", -6), -1);
  EXPECT_EQ(Call("UpdateConfig", 12, "{}", -2), 0);
  EXPECT_EQ(Reply(), kFailed);
}

// Commands and requests at once

/// Serves a report to a client that has sent it whole.
void ServeReport(zav::ipc::Service& service) {
  std::array<int, 2> ends{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
  const std::array<std::int32_t, 8> report{0, 0, 8, 6, 1, 'u', 0, 0};
  // Header, the string "u" (its length and one byte), and an empty string.
  std::string bytes(reinterpret_cast<const char*>(report.data()), 21);
  bytes.append(4, '\0');
  ASSERT_EQ(send(ends[0], bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  service.serve(ends[1]);
  std::int32_t answer = -5;
  EXPECT_EQ(recv(ends[0], &answer, sizeof(answer), 0), static_cast<ssize_t>(sizeof(answer)));
  EXPECT_EQ(answer, 0);
  close(ends[0]);
}

TEST_F(ACommand, TakesTurnsWithTheRequestsOfClients) {
  State& state = Start();
  std::atomic<bool> done{false};
  std::atomic<int> reports{0};
  std::thread clients([&] {
    zav::ipc::Service service;
    for (; !done; ++reports) ServeReport(service);
  });
  EXPECT_TRUE(zav::test::WaitUntil([&] { return reports > 0; }));
  for (int round = 0; round < 20; ++round) {
    EXPECT_EQ(Execute(round % 2 == 0 ? "Disable" : "Enable"), kSuccess);
    EXPECT_EQ(Execute(round % 2 == 0 ? "DisableLogging" : "EnableLogging"), kSuccess);
    EXPECT_EQ(Execute("UpdateConfig", R"({"Service":{"restart_delay":90},"Storage":{"config":{}}})"), kSuccess);
    EXPECT_EQ(Parsed(Execute("GetStatus"))["operationStatus"], "success");
    EXPECT_EQ(Execute("ResetLog"), kSuccess);
  }
  done = true;
  clients.join();
  EXPECT_EQ(InMemory(state)["state"]["count"], UsedLog().count + reports);
  EXPECT_EQ(Row("Storage"), InMemory(state));
}

}  // namespace
