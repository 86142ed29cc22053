#include <gmock/gmock.h>

#include <cerrno>
#include <new>
#include <optional>

#include "common/DBStorage.h"
#include "steps/ScriptedDatabase.h"
#include "support/Device.h"
#include "support/SystemCalls.h"

namespace zav::test {
namespace {

using common::Component;
using common::DBStorage;
using common::PYXPlugin;
using testing::_;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;
using Failure = ScriptedDatabase::Failure;

const char* const kInsert = "prepare INSERT INTO PYXPlugin(name, value) VALUES(?, ?)";
const char* const kSelect = "prepare SELECT value FROM PYXPlugin WHERE name = ?";
const char* const kTables = "prepare SELECT name FROM sqlite_master WHERE type = ?";
const char* const kTable = "prepare SELECT name FROM sqlite_master WHERE type = ? AND name = ?";

std::string CreateStatement(const std::string& table = "PYXPlugin") {
  const auto blanks = [](size_t count) { return std::string(count, ' '); };
  const std::string columns = " (name" + blanks(8) + "TEXT NOT NULL," + blanks(33) + "value" + blanks(7) + "TEXT," +
                              blanks(42) + "PRIMARY KEY (name) ON CONFLICT REPLACE)";
  EXPECT_EQ(columns.size(), 159u);
  return "prepare CREATE TABLE IF NOT EXISTS " + table + columns;
}

testing::Matcher<LogEntry> StorageLine(int priority, const std::string& function, const std::string& message) {
  return PluginLine(priority, "DBStorage.cpp", function, message);
}

testing::Matcher<LogEntry> FileLine(const std::string& function) {
  return PluginLine(kDebug, "FileHelper.cpp", function, _);
}

class TheStorage : public testing::Test {
 protected:
  void SetUp() override {
    MakeStorageDirectory();
    WriteFile(kDatabase, "copied as it is");
  }

  void Open() {
    storage.InitHandler();
    LogRecorder::Clear();
  }

  ScriptedDatabase& database = ScriptedDatabase::Instance();
  DBStorage storage;
};

class TheStepsOf : public TheStorage {};

TEST_F(TheStepsOf, OpeningNameTheFileReadWriteAndCreateAndAskForTheCheck) {
  storage.InitHandler();
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(FileLine("createDirectory"), DatabaseCall("open " + kDatabase + " 6 true")));
}

TEST_F(TheStepsOf, OpeningWithoutMemoryForAConnectionLeaveItClosed) {
  database.outOfMemory = true;
  storage.InitHandler();
  database.outOfMemory = false;
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(FileLine("createDirectory")));
  EXPECT_EQ(storage.CheckTables(), -50);
}

TEST_F(TheStepsOf, AResetCloseBeforeTheyOpen) {
  Open();
  storage.Reset();
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(DatabaseCall("close"), FileLine("createDirectory"), DatabaseCall(_)));
}

TEST_F(TheStepsOf, RestoringTheBackupCloseDeleteCopyAndOpen) {
  WriteFile(kBackup, "backup");
  Open();
  EXPECT_EQ(storage.RestoreBackup(), 0);
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(DatabaseCall("close"), FileLine("deleteFile"), FileLine("copyFile"),
                                                FileLine("copyFile"), FileLine("copyFile"), FileLine("createDirectory"),
                                                DatabaseCall("open " + kDatabase + " 6 true")));
  EXPECT_EQ(ReadFile(kDatabase), "backup");
}

TEST_F(TheStepsOf, RestoringTheBackupSucceedThoughTheDatabaseCannotBeOpened) {
  WriteFile(kBackup, "backup");
  Open();
  database.failingCall = "open";
  database.failure = Failure::kKlayException;
  EXPECT_EQ(storage.RestoreBackup(), 0);
  EXPECT_EQ(storage.CheckTables(), -50);
}

TEST_F(TheStepsOf, RestoringTheBackupSucceedAndAreOwedWhenItDoesNotComeToTheDisk) {
  WriteFile(kBackup, "backup");
  Open();
  const CallHook hook(Call::kFsync, Fail(EIO));
  EXPECT_EQ(storage.RestoreBackup(), 0);
  EXPECT_TRUE(FileExists(kDatabase + ".restoring"));
}

TEST_F(TheStepsOf, EndingTheStorageCloseOnce) {
  {
    DBStorage own;
    own.InitHandler();
    LogRecorder::Clear();
  }
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(DatabaseCall("close")));
}

TEST_F(TheStepsOf, CreatingATableRunTheStatementWithItsBlanksAndIgnoreItsResult) {
  Open();
  database.changed = 0;
  EXPECT_EQ(storage.CreateTable(PYXPlugin), 0);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(DatabaseCall(CreateStatement()), DatabaseCall("exec"), DatabaseCall("end")));
}

TEST_F(TheStepsOf, CreatingTheTableOfAnUnknownComponentLeaveItsNameOut) {
  Open();
  storage.CreateTable(static_cast<Component>(3));
  EXPECT_THAT(LogRecorder::Lines(), Contains(DatabaseCall(CreateStatement(""))));
}

TEST_F(TheStepsOf, CheckingTheTablesEndTheLookBeforeATableIsMade) {
  Open();
  database.rows = {"other"};
  EXPECT_EQ(storage.CheckTables(), -51);
  EXPECT_THAT(
      LogRecorder::Lines(),
      ElementsAre(DatabaseCall(kTables), DatabaseCall("bind 1 table"), DatabaseCall("step"), DatabaseCall("column 0"),
                  DatabaseCall("step"), DatabaseCall("end"), DatabaseCall(CreateStatement()), DatabaseCall("exec"),
                  DatabaseCall("end"), DatabaseCall("prepare SELECT 1 FROM PYXPlugin LIMIT 1"), DatabaseCall("step"),
                  DatabaseCall("end")));
}

TEST_F(TheStepsOf, CheckingTheTablesGoThroughAllRowsAndMakeNoneThatIsThere) {
  Open();
  database.rows = {"PYXPlugi", "PYXPlugin", std::string("PYXPlugin\0", 10), "PYXPlugin2", ""};
  EXPECT_EQ(storage.CheckTables(), 0);
  const auto lines = LogRecorder::Lines();
  EXPECT_THAT(lines, Contains(StorageLine(kDebug, "CheckTables", "Table [PYXPlugin] is present")).Times(1));
  EXPECT_THAT(lines, Contains(DatabaseCall("step")).Times(6));
  EXPECT_THAT(lines, Not(Contains(DatabaseCall("exec"))));
}

TEST_F(TheStepsOf, CheckingTheTablesFailWithTheTableThatCannotBeMade) {
  Open();
  database.failingCall = "exec";
  database.failure = Failure::kKlayException;
  EXPECT_EQ(storage.CheckTables(), -50);
  EXPECT_THAT(LogRecorder::Lines(), Contains(StorageLine(kError, "CreateTable", "Failed to create table: reason")));
  EXPECT_EQ(LogRecorder::Count("Failed to check tables: reason"), 0);
}

TEST_F(TheStepsOf, RestoringATableThatExistsMakeNone) {
  Open();
  database.rows = {"PYXPlugin"};
  EXPECT_EQ(storage.RestoreTable(PYXPlugin), 0);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(DatabaseCall(kTable), DatabaseCall("bind 1 table"), DatabaseCall("bind 2 PYXPlugin"),
                          DatabaseCall("step"), StorageLine(kDebug, "RestoreTable", "Table already exists"),
                          DatabaseCall("end")));
}

TEST_F(TheStepsOf, RestoringAMissingTableEndTheLookBeforeItIsMade) {
  Open();
  EXPECT_EQ(storage.RestoreTable(PYXPlugin), 0);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(DatabaseCall(kTable), DatabaseCall("bind 1 table"), DatabaseCall("bind 2 PYXPlugin"),
                          DatabaseCall("step"), DatabaseCall("end"), DatabaseCall(CreateStatement()),
                          DatabaseCall("exec"), DatabaseCall("end")));
}

TEST_F(TheStepsOf, AWriteEndTheStatementBeforeTheFileIsCopied) {
  Open();
  EXPECT_EQ(storage.WritePolicy(PYXPlugin, "name", "text"), 0);
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(DatabaseCall(kInsert), DatabaseCall("bind 1 name"),
                                                DatabaseCall("bind 2 text"), DatabaseCall("exec"), DatabaseCall("end"),
                                                FileLine("copyFile"), FileLine("copyFile"), FileLine("copyFile")));
  EXPECT_EQ(ReadFile(kBackup), "copied as it is");
}

TEST_F(TheStepsOf, AWriteThatChangedNothingGiveTheStatementsMessageAndNoBackup) {
  Open();
  database.changed = 0;
  EXPECT_EQ(storage.WritePolicy(PYXPlugin, "name", "text"), -47);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(DatabaseCall(kInsert), _, _, DatabaseCall("exec"),
                          StorageLine(kError, "WritePolicy", "Failed to write [name], message"), DatabaseCall("end")));
  EXPECT_FALSE(FileExists(kBackup));
}

TEST_F(TheStepsOf, AReadTakeOneRow) {
  Open();
  database.rows = {"first", "second"};
  std::string value;
  EXPECT_EQ(storage.ReadPolicy(PYXPlugin, "name", value), 0);
  EXPECT_EQ(value, "first");
  EXPECT_THAT(
      LogRecorder::Lines(),
      ElementsAre(DatabaseCall(kSelect), DatabaseCall("bind 1 name"), DatabaseCall("step"), DatabaseCall("column 0"),
                  StorageLine(kDebug, "ReadPolicy", "Successfully read [name]"), DatabaseCall("end")));
}

TEST_F(TheStepsOf, AReadWhoseRowHasNotExactlyOneColumnFindNoRow) {
  Open();
  database.rows = {"first"};
  for (const int columns : {0, 2}) {
    LogRecorder::Clear();
    database.columns = columns;
    std::string value = "earlier";
    EXPECT_EQ(storage.ReadPolicy(PYXPlugin, "name", value), -46) << columns;
    EXPECT_EQ(value, "");
    EXPECT_THAT(LogRecorder::Lines(), ElementsAre(DatabaseCall(kSelect), DatabaseCall("bind 1 name"),
                                                  DatabaseCall("step"), DatabaseCall("end")));
  }
}

// ---- a backup that lacks what the database holds

class AStaleBackup : public TheStorage {
 protected:
  void SetUp() override {
    TheStorage::SetUp();
    WriteFile(kBackup, "backup");
    WriteFile(kBackup + ".stale", "");
    Open();
  }
};

TEST_F(AStaleBackup, DoesNotTakeThePlaceOfADatabaseThatIsSoundAndHoldsRows) {
  database.rows = {"ok"};
  database.tableIsEmpty = false;
  EXPECT_EQ(storage.RestoreBackup(), -50);
  EXPECT_EQ(ReadFile(kDatabase), "copied as it is");
}

TEST_F(AStaleBackup, TakesThePlaceOfADatabaseWithoutRows) {
  database.rows = {"ok"};
  EXPECT_EQ(storage.RestoreBackup(), 0);
  EXPECT_EQ(ReadFile(kDatabase), "backup");
}

TEST_F(AStaleBackup, TakesThePlaceOfADatabaseThatTheCheckFindsDamaged) {
  database.rows = {"row 1 missing from index"};
  EXPECT_EQ(storage.RestoreBackup(), 0);
  EXPECT_EQ(ReadFile(kDatabase), "backup");
}

TEST_F(AStaleBackup, TakesThePlaceOfADatabaseOfWhichTheCheckSaysNothing) {
  EXPECT_EQ(storage.RestoreBackup(), 0);
  EXPECT_EQ(ReadFile(kDatabase), "backup");
}

// ---- a backup that throws

TEST_F(TheStorage, HasWrittenARowThoughItsBackupThrows) {
  Open();
  const CallHook hook(Call::kOpen, [](const CallArguments& call) -> std::optional<long> {
    if (kBackup + ".new" == static_cast<const char*>(call.data)) throw std::bad_alloc();
    return std::nullopt;
  });
  EXPECT_EQ(storage.WritePolicy(PYXPlugin, "name", "value"), 0);
  EXPECT_EQ(LogRecorder::Count("Failed to backup DB"), 1);
}

// ---- what the library throws

enum class Operation { kInitHandler, kCreateTable, kCheckTables, kRestoreTable, kWritePolicy, kReadPolicy };

/// An operation, the calls of the library that it makes, and what it logs when one throws.
struct Thrower {
  Operation operation;
  const char* name;
  std::vector<std::string> calls;
  const char* withReason;
  const char* unknown;
};

void PrintTo(const Thrower& thrower, std::ostream* out) {
  *out << thrower.name;
}

class AnExceptionIn : public TheStorage, public testing::WithParamInterface<Thrower> {
 protected:
  int Run() {
    switch (GetParam().operation) {
      case Operation::kInitHandler:
        storage.Reset();
        return storage.CreateTable(PYXPlugin);
      case Operation::kCreateTable:
        return storage.CreateTable(PYXPlugin);
      case Operation::kCheckTables:
        return storage.CheckTables();
      case Operation::kRestoreTable:
        return storage.RestoreTable(PYXPlugin);
      case Operation::kWritePolicy:
        return storage.WritePolicy(PYXPlugin, "name", "text");
      case Operation::kReadPolicy:
        return storage.ReadPolicy(PYXPlugin, "name", value);
    }
    return 0;
  }

  /// Each call of the operation throws once; each time it ends with the code and with the line last but for the end of
  /// the statement.
  void ExpectEach(Failure failure, int code, const std::string& message, int priority = kError) {
    for (const std::string& call : GetParam().calls) {
      database = {};
      database.rows = {"row"};
      storage.Reset();
      LogRecorder::Clear();
      value = "earlier";
      database.failingCall = call;
      database.failure = failure;
      database.reason = reason;
      EXPECT_EQ(Run(), code) << call;
      EXPECT_THAT(LogRecorder::Lines(), Contains(StorageLine(priority, GetParam().name, message)).Times(1)) << call;
      EXPECT_FALSE(FileExists(kBackup)) << call;
    }
  }

  std::string reason = "reason";
  std::string value;
};

TEST_P(AnExceptionIn, OfTheLibraryIsAnErrorWithItsText) {
  ExpectEach(Failure::kKlayException, -50, std::string(GetParam().withReason) + "reason");
}

TEST_P(AnExceptionIn, OfTheStandardLibraryIsAnErrorOfUnknownReason) {
  ExpectEach(Failure::kStandardException, -50, GetParam().unknown);
}

TEST_P(AnExceptionIn, OfAnyOtherTypeIsAnErrorOfUnknownReason) {
  ExpectEach(Failure::kOther, -50, GetParam().unknown);
}

INSTANTIATE_TEST_SUITE_P(Each, AnExceptionIn,
                         testing::Values(Thrower{Operation::kInitHandler,
                                                 "InitHandler",
                                                 {"open"},
                                                 "Failed to initialize handler: ",
                                                 "Failed to initialize handler with unknown reason"},
                                         Thrower{Operation::kCreateTable,
                                                 "CreateTable",
                                                 {"prepare", "exec"},
                                                 "Failed to create table: ",
                                                 "Failed to create table, with unknown reason"},
                                         Thrower{Operation::kCheckTables,
                                                 "CheckTables",
                                                 {"prepare", "bind", "step", "column"},
                                                 "Failed to check tables: ",
                                                 "Failed to check tables, with unknown reason"},
                                         Thrower{Operation::kRestoreTable,
                                                 "RestoreTable",
                                                 {"prepare", "bind", "step"},
                                                 "Failed to restore table: ",
                                                 "Failed to restore table, with unknown reason"},
                                         Thrower{Operation::kWritePolicy,
                                                 "WritePolicy",
                                                 {"prepare", "bind", "exec"},
                                                 "Failed to write [name], ",
                                                 "Failed to write data, with unknown reason"},
                                         Thrower{Operation::kReadPolicy,
                                                 "ReadPolicy",
                                                 {"prepare", "bind", "step", "column"},
                                                 "Failed to read [name]: ",
                                                 "Failed to read data, with unknown reason"}),
                         [](const testing::TestParamInfo<Thrower>& param) { return std::string(param.param.name); });

class AMissingTableIn : public AnExceptionIn {};

TEST_P(AMissingTableIn, IsKnownByTheEnginesWordsAnywhereInItsText) {
  for (const std::string text : {"no such table: PYXPlugin", "no such table", "SQL: (no such table) x"}) {
    reason = text;
    ExpectEach(Failure::kKlayException, -51, "Table PYXPlugin is not created yet", kWarning);
  }
}

TEST_P(AMissingTableIn, IsNotKnownByTheWordsOfAnotherException) {
  reason = "no such table";
  ExpectEach(Failure::kStandardException, -50, GetParam().unknown);
}

INSTANTIATE_TEST_SUITE_P(Each, AMissingTableIn,
                         testing::Values(Thrower{Operation::kWritePolicy,
                                                 "WritePolicy",
                                                 {"prepare", "exec"},
                                                 "",
                                                 "Failed to write data, with unknown reason"},
                                         Thrower{Operation::kReadPolicy,
                                                 "ReadPolicy",
                                                 {"prepare", "step"},
                                                 "",
                                                 "Failed to read data, with unknown reason"}),
                         [](const testing::TestParamInfo<Thrower>& param) { return std::string(param.param.name); });

TEST_F(TheStorage, TakesTheWordsForAMissingTableOnlyFromReadsAndWrites) {
  Open();
  database.failingCall = "prepare";
  database.failure = Failure::kKlayException;
  database.reason = "no such table: x";
  EXPECT_EQ(storage.CreateTable(PYXPlugin), -50);
  EXPECT_EQ(storage.CheckTables(), -50);
  EXPECT_EQ(storage.RestoreTable(PYXPlugin), -50);
}

TEST_F(TheStorage, EmptiesTheValueOfAReadThatThrows) {
  Open();
  database.failingCall = "prepare";
  database.failure = Failure::kKlayException;
  std::string value = "earlier";
  EXPECT_EQ(storage.ReadPolicy(PYXPlugin, "name", value), -50);
  EXPECT_EQ(value, "");
}

}  // namespace
}  // namespace zav::test
