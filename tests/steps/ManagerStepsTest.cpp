#include <gmock/gmock.h>

#include <stdexcept>

#include "policy/Manager.h"
#include "steps/ScriptedStorage.h"
#include "support/Device.h"
#include "support/LogRecorder.h"

namespace zav::test {
namespace {

using policy::Manager;
using policy::ParseJsonString;
using testing::ElementsAre;
using testing::IsEmpty;

const auto kComponent = static_cast<common::Component>(7);
const char* const kDefaults = R"({"a":{"x":1},"b":{"x":2},"c":{"x":3}})";
const char* const kWrite = "WritePolicy 7 name {\"x\":1}\n";
const char* const kRead = "ReadPolicy 7 name";

class TheManager : public testing::Test {
 protected:
  /// Makes the manager of a device that needs nothing, and forgets the calls of that.
  void Start() {
    Manager::Instance();
    script.calls.clear();
    LogRecorder::Clear();
  }

  int Update() { return Manager::Instance().UpdatePolicy(kComponent, "name", ParseJsonString("{\"x\":1}")); }
  std::string Get() { return Manager::Instance().GetPolicy(kComponent, "name").AsString(); }

  /// A default for "name", of the component 0 that has one.
  void WriteDefault() { WriteDefaultPolicy(R"({"name":{"x":1}})"); }
  std::string GetOfThePlugIn() { return Manager::Instance().GetPolicy(common::PYXPlugin, "name").AsString(); }

  ScriptedStorage& script = ScriptedStorage::Instance();
};

class StartingUp : public TheManager {};
class Updating : public TheManager {};
class Getting : public TheManager {};

testing::Matcher<LogEntry> UpdateFailed() {
  return PluginLine(kError, "Manager.cpp", "UpdatePolicy", "Failed to update [name] policy");
}

// ---- starting

TEST_F(StartingUp, WithAllTablesIsOpeningAndCheckingAlone) {
  Manager::Instance();
  EXPECT_THAT(script.calls, ElementsAre("InitHandler", "CheckTables"));
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(StartingUp, OpensAnewWhenTheCheckFailsInAnyOtherWayThanForMissingTables) {
  script.results["CheckTables"] = {-50};
  EXPECT_NO_THROW(Manager::Instance());
  EXPECT_THAT(script.calls, ElementsAre("InitHandler", "CheckTables", "Reset"));
}

TEST_F(StartingUp, WritesEachDefaultInKeyOrderIntoNewTables) {
  WriteDefaultPolicy(kDefaults);
  script.results["CheckTables"] = {-51};
  Manager::Instance();
  EXPECT_THAT(script.calls, ElementsAre("InitHandler", "CheckTables", "WritePolicy 0 a {\"x\":1}\n",
                                        "WritePolicy 0 b {\"x\":2}\n", "WritePolicy 0 c {\"x\":3}\n"));
}

TEST_F(StartingUp, StopsAtTheFirstDefaultThatCannotBeWrittenAndIsReady) {
  WriteDefaultPolicy(kDefaults);
  script.results["CheckTables"] = {-51};
  script.results["WritePolicy"] = {0, -50};
  EXPECT_NO_THROW(Manager::Instance());
  EXPECT_THAT(script.calls,
              ElementsAre("InitHandler", "CheckTables", "WritePolicy 0 a {\"x\":1}\n", "WritePolicy 0 b {\"x\":2}\n"));
}

TEST_F(StartingUp, ThrowsWhenTheStorageTellsAnEmptyDefaultByItsCode) {
  WriteDefaultPolicy(kDefaults);
  script.results["CheckTables"] = {-51};
  script.results["WritePolicy"] = {-52};
  try {
    Manager::Instance();
    FAIL() << "it did not throw";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Default policy is empty");
  }
  EXPECT_EQ(script.calls.size(), 3u);
}

TEST_F(StartingUp, ThrowsForNewTablesWithoutDefaultsAndTriesAgainFromTheBeginning) {
  script.results["CheckTables"] = {-51, -51, 0};
  EXPECT_THROW(Manager::Instance(), std::runtime_error);
  EXPECT_THROW(Manager::Instance(), std::runtime_error);
  EXPECT_NO_THROW(Manager::Instance());
  EXPECT_THAT(script.calls,
              ElementsAre("InitHandler", "CheckTables", "InitHandler", "CheckTables", "InitHandler", "CheckTables"));
}

// ---- updating

TEST_F(Updating, IsOneWriteWhenThatSucceeds) {
  Start();
  EXPECT_EQ(Update(), 0);
  EXPECT_THAT(script.calls, ElementsAre(kWrite));
}

TEST_F(Updating, ThatFailsOncePutsTheBackupInPlaceAndWritesAgain) {
  Start();
  script.results["WritePolicy"] = {-47};
  EXPECT_EQ(Update(), 0);
  EXPECT_THAT(script.calls, ElementsAre(kWrite, "RestoreBackup", kWrite));
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(Updating, ThatFailsTwiceOpensAnewRestoresTheTableAndWritesAThirdTime) {
  Start();
  script.results["WritePolicy"] = {-51, -50};
  EXPECT_EQ(Update(), 0);
  EXPECT_THAT(script.calls, ElementsAre(kWrite, "RestoreBackup", kWrite, "Reset", "RestoreTable 7", kWrite));
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(Updating, WithoutABackupGoesStraightToOpeningAnew) {
  Start();
  script.results["WritePolicy"] = {-51};
  script.results["RestoreBackup"] = {-50};
  EXPECT_EQ(Update(), 0);
  EXPECT_THAT(script.calls, ElementsAre(kWrite, "RestoreBackup", "Reset", "RestoreTable 7", kWrite));
}

TEST_F(Updating, ReturnsTheCodeOfTheTableThatCouldNotBeRestored) {
  Start();
  script.results["WritePolicy"] = {-51, -47};
  script.results["RestoreTable"] = {-50};
  EXPECT_EQ(Update(), -50);
  EXPECT_THAT(script.calls, ElementsAre(kWrite, "RestoreBackup", kWrite, "Reset", "RestoreTable 7"));
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(UpdateFailed()));
}

TEST_F(Updating, ReturnsTheCodeOfTheLastWrite) {
  Start();
  script.results["WritePolicy"] = {-50, -51, -47};
  EXPECT_EQ(Update(), -47);
  EXPECT_THAT(script.calls, ElementsAre(kWrite, "RestoreBackup", kWrite, "Reset", "RestoreTable 7", kWrite));
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(UpdateFailed()));
}

TEST_F(Updating, WritesTheEmptyTextForANullPolicy) {
  Start();
  EXPECT_EQ(Manager::Instance().UpdatePolicy(kComponent, "name", policy::Policy()), 0);
  EXPECT_THAT(script.calls, ElementsAre("WritePolicy 7 name "));
}

// ---- getting

TEST_F(Getting, IsOneReadWhenThatSucceeds) {
  Start();
  script.text = "{\"x\":1}";
  EXPECT_EQ(Get(), "{\"x\":1}\n");
  EXPECT_THAT(script.calls, ElementsAre(kRead));
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(Getting, ThatFailsForAnyReasonPutsTheBackupInPlaceAndReadsAgainInSilence) {
  Start();
  script.text = "{\"x\":1}";
  for (const int code : {-46, -50, -51}) {
    script.calls.clear();
    script.results["ReadPolicy"] = {code};
    EXPECT_EQ(Get(), "{\"x\":1}\n") << code;
    EXPECT_THAT(script.calls, ElementsAre(kRead, "RestoreBackup", kRead)) << code;
  }
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(Getting, WithoutABackupRestoresTheTableAndWritesTheDefault) {
  WriteDefault();
  Start();
  script.results["ReadPolicy"] = {-46};
  script.results["RestoreBackup"] = {-50};
  script.results["WritePolicy"] = {-50};
  EXPECT_EQ(GetOfThePlugIn(), "{\"x\":1}\n");
  EXPECT_THAT(script.calls,
              ElementsAre("ReadPolicy 0 name", "RestoreBackup", "RestoreTable 0", "WritePolicy 0 name {\"x\":1}\n"));
}

TEST_F(Getting, ThatFailsTwiceTakesTheDefault) {
  WriteDefault();
  Start();
  script.results["ReadPolicy"] = {-51, -46};
  EXPECT_EQ(GetOfThePlugIn(), "{\"x\":1}\n");
  EXPECT_THAT(script.calls, ElementsAre("ReadPolicy 0 name", "RestoreBackup", "ReadPolicy 0 name", "RestoreTable 0",
                                        "WritePolicy 0 name {\"x\":1}\n"));
}

TEST_F(Getting, OpensAnewAndWritesNothingWhenTheTableCannotBeRestored) {
  WriteDefault();
  Start();
  script.results["ReadPolicy"] = {-46, -46};
  script.results["RestoreTable"] = {-50};
  EXPECT_EQ(GetOfThePlugIn(), "{\"x\":1}\n");
  EXPECT_THAT(script.calls,
              ElementsAre("ReadPolicy 0 name", "RestoreBackup", "ReadPolicy 0 name", "RestoreTable 0", "Reset"));
}

TEST_F(Getting, WithoutADefaultTouchesTheTableNoMore) {
  WriteDefault();
  Start();
  script.results["ReadPolicy"] = {-46, -46};
  EXPECT_EQ(Get(), "");
  EXPECT_THAT(script.calls, ElementsAre(kRead, "RestoreBackup", kRead));
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(PluginLine(kInfo, "Manager.cpp", "GetPolicy", "Trying to restore default [name] policy"),
                          PluginLine(kInfo, "Manager.cpp", "DefaultPolicy", "Default policy successfully read"),
                          PluginLine(kInfo, "Manager.cpp", "RestoreDefaultPolicy", "Default [name] policy is empty")));
}

TEST_F(Getting, OfTextThatDoesNotParseRepairsNothing) {
  Start();
  script.text = "{";
  EXPECT_EQ(Get(), "");
  EXPECT_THAT(script.calls, ElementsAre(kRead));
}

}  // namespace
}  // namespace zav::test
