#include "common/DBStorage.h"

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <sys/resource.h>
#include <sys/stat.h>

#include <climits>
#include <csignal>
#include <filesystem>
#include <functional>

#include "support/Device.h"
#include "support/LogRecorder.h"
#include "support/Surroundings.h"
#include "support/ThisProcess.h"

namespace zav::test {
namespace {

namespace fs = std::filesystem;
using common::Component;
using common::DBStorage;
using common::PYXPlugin;
using testing::_;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Pair;

using Lines = std::vector<testing::Matcher<LogEntry>>;

const auto kUnknown = static_cast<Component>(1);
const std::string kDamaged = kDatabase + ".damaged";
const std::string kRestoring = kDatabase + ".restoring";
const std::string kStale = kBackup + ".stale";
const std::string kOpening = kDatabase + ".opening";
const char* const kNotOpen = "Storage handler was not initialized";

testing::Matcher<LogEntry> StorageLine(int priority, const std::string& function,
                                       const testing::Matcher<std::string>& message) {
  return PluginLine(priority, "DBStorage.cpp", function, message);
}

testing::Matcher<LogEntry> FileLine(int priority, const std::string& function,
                                    const testing::Matcher<std::string>& message) {
  return PluginLine(priority, "FileHelper.cpp", function, message);
}

/// The line of a database that is opened where its directory is.
testing::Matcher<LogEntry> DirectoryThere() {
  return FileLine(kDebug, "createDirectory", "directory: " + kStorageDirectory + " exist");
}

testing::Matcher<LogEntry> Deleted(const std::string& path) {
  return FileLine(kDebug, "deleteFile", "delete file: " + path + " success");
}

/// The lines of a file copy that succeeds.
Lines Copied(const std::string& from, const std::string& to) {
  return {FileLine(kDebug, "copyFile", "file: " + from + " size is " + std::to_string(fs::file_size(from)) + " bytes"),
          FileLine(kDebug, "copyFile", "copy from file: " + from + "\n       to file: " + to + "\nsuccess"),
          FileLine(kDebug, "copyFile", testing::ContainsRegex("^chmod [0-9]+ success$"))};
}

Lines operator+(Lines lines, const Lines& more) {
  lines.insert(lines.end(), more.begin(), more.end());
  return lines;
}

/// The content of the rollback journal of a transaction on the database that has not ended.
std::string HotJournal() {
  sqlite3* database = nullptr;
  EXPECT_EQ(sqlite3_open(kDatabase.c_str(), &database), SQLITE_OK);
  // Not synced, the journal is complete at every moment.
  const char* const begin =
      "PRAGMA journal_mode = DELETE; PRAGMA synchronous = OFF; BEGIN IMMEDIATE; "
      "UPDATE PYXPlugin SET value = 'unfinished';";
  EXPECT_EQ(sqlite3_exec(database, begin, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(database);
  std::string journal = ReadFile(kJournal);
  sqlite3_exec(database, "ROLLBACK", nullptr, nullptr, nullptr);
  sqlite3_close(database);
  return journal;
}

class ADatabase : public testing::Test {
 protected:
  void SetUp() override { MakeStorageParent(); }

  /// Opens it with its table in place, and forgets the lines so far.
  void Open() {
    storage.InitHandler();
    ASSERT_EQ(storage.CheckTables(), -51);
    LogRecorder::Clear();
  }

  void OpenWithRow(const std::string& name, const std::string& value) {
    Open();
    ASSERT_EQ(storage.WritePolicy(PYXPlugin, name, value), 0);
    LogRecorder::Clear();
  }

  std::string Read(const std::string& name) {
    std::string value = "unread";
    EXPECT_EQ(storage.ReadPolicy(PYXPlugin, name, value), 0);
    return value;
  }

  /// Every operation that needs an open connection answers so, under its own name.
  void ExpectClosed() {
    LogRecorder::Clear();
    std::string value = "untouched";
    EXPECT_EQ(storage.CreateTable(PYXPlugin), -50);
    EXPECT_EQ(storage.CheckTables(), -50);
    EXPECT_EQ(storage.RestoreTable(PYXPlugin), -50);
    EXPECT_EQ(storage.WritePolicy(PYXPlugin, "a", "b"), -50);
    EXPECT_EQ(storage.ReadPolicy(PYXPlugin, "a", value), -50);
    EXPECT_EQ(value, "untouched");
    EXPECT_THAT(LogRecorder::Lines(),
                ElementsAre(StorageLine(kError, "CreateTable", kNotOpen), StorageLine(kError, "CheckTables", kNotOpen),
                            StorageLine(kError, "RestoreTable", kNotOpen), StorageLine(kError, "WritePolicy", kNotOpen),
                            StorageLine(kError, "ReadPolicy", kNotOpen)));
  }

  DBStorage storage;
};

class ANewDevice : public ADatabase {};
class ARow : public ADatabase {};
class AMissingTable : public ADatabase {};
class AnUnknownComponent : public ADatabase {};
class TheBackup : public ADatabase {};
class RestoringTheBackup : public ADatabase {};
class AnInterruptedRestore : public RestoringTheBackup {};
class AClosedDatabase : public ADatabase {};
class ADamagedDatabaseFile : public ADatabase {};

// ---- opening

TEST_F(ANewDevice, GetsItsDirectoryAnEmptyDatabaseAndThenItsTable) {
  storage.InitHandler();
  EXPECT_TRUE(fs::is_directory(kStorageDirectory));
  EXPECT_TRUE(FileExists(kDatabase));
  EXPECT_EQ(Sql("SELECT count(*) FROM sqlite_master"), "0");
  EXPECT_EQ(storage.CheckTables(), -51);
  EXPECT_EQ(Sql("SELECT name FROM sqlite_master"), "PYXPlugin");
  EXPECT_EQ(storage.CheckTables(), 0);
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(FileLine(kDebug, "createDirectory",
                                                         "directory: " + kStorageDirectory + " created successfully"),
                                                StorageLine(kDebug, "CheckTables", "Table [PYXPlugin] is present")));
}

TEST_F(ANewDevice, HasTheSchemaWithItsRunsOfBlanks) {
  Open();
  const auto blanks = [](size_t count) { return std::string(count, ' '); };
  EXPECT_EQ(Sql("SELECT sql FROM sqlite_master WHERE name = 'PYXPlugin'"),
            "CREATE TABLE PYXPlugin (name" + blanks(8) + "TEXT NOT NULL," + blanks(33) + "value" + blanks(7) + "TEXT," +
                blanks(42) + "PRIMARY KEY (name) ON CONFLICT REPLACE)");
}

TEST_F(ANewDevice, WithoutTheParentOfTheDirectoryStaysClosed) {
  fs::remove_all("/opt/data");
  storage.InitHandler();
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(FileLine(kWarning, "createDirectory", "could not create a directory: " + kStorageDirectory)));
  ExpectClosed();
}

TEST_F(ANewDevice, WithAFileInTheDirectorysPlaceStaysClosed) {
  WriteFile(kStorageDirectory, "file");
  storage.InitHandler();
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(FileLine(kWarning, "createDirectory", kStorageDirectory + " is not a directory")));
  ExpectClosed();
}

TEST_F(ADatabase, ThatIsOpenIsNotOpenedAgain) {
  Open();
  const auto before = Descriptors();
  storage.InitHandler();
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
  EXPECT_EQ(Descriptors(), before);
}

TEST_F(ADatabase, ThatCannotBeOpenedStaysClosedWithSqlitesReasonAndLeavesNoDescriptor) {
  fs::create_directories(kDatabase);
  const auto before = Descriptors();
  storage.InitHandler();
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(DirectoryThere(), StorageLine(kError, "InitHandler",
                                                        "Failed to initialize handler: unable to open database file")));
  EXPECT_EQ(Descriptors(), before);
  EXPECT_TRUE(fs::is_directory(kDatabase));
  ExpectClosed();
}

TEST_F(ADatabase, IsOpenedAgainByAReset) {
  OpenWithRow("a", "1");
  const auto before = Descriptors();
  storage.Reset();
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(DirectoryThere()));
  EXPECT_EQ(Descriptors(), before);
  EXPECT_EQ(Read("a"), "1");
}

TEST_F(ADatabase, ThatWasClosedIsOpenedByAReset) {
  storage.Reset();
  EXPECT_EQ(storage.CheckTables(), -51);
}

TEST_F(ADatabase, WhoseFileVanishedIsMadeAnewByAReset) {
  OpenWithRow("a", "1");
  fs::remove(kDatabase);
  storage.Reset();
  EXPECT_EQ(Sql("SELECT count(*) FROM sqlite_master"), "0");
  EXPECT_EQ(storage.CheckTables(), -51);
}

TEST_F(ADatabase, EndsItsConnectionWithItself) {
  const auto before = Descriptors();
  {
    DBStorage own;
    own.InitHandler();
    EXPECT_NE(Descriptors(), before);
  }
  EXPECT_EQ(Descriptors(), before);
}

// ---- tables

TEST_F(ADatabase, WithForeignTablesFindsItsOwn) {
  MakeStorageDirectory();
  Sql("CREATE TABLE pyxplugin2 (a)");
  Sql("CREATE TABLE PYX (a)");
  storage.InitHandler();
  LogRecorder::Clear();
  EXPECT_EQ(storage.CheckTables(), -51);
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
  EXPECT_EQ(storage.CheckTables(), 0);
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(StorageLine(kDebug, "CheckTables", "Table [PYXPlugin] is present")));
}

TEST_F(ADatabase, WhoseTableDiffersInCaseTakesItForAnotherOne) {
  MakeStorageDirectory();
  Sql("CREATE TABLE pyxplugin (a)");
  storage.InitHandler();
  LogRecorder::Clear();
  EXPECT_EQ(storage.CheckTables(), -51);
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(ADatabase, WithAnIndexOfTheTablesNameCannotMakeTheTable) {
  MakeStorageDirectory();
  Sql("CREATE TABLE other (a)");
  Sql("CREATE INDEX PYXPlugin ON other(a)");
  storage.InitHandler();
  LogRecorder::Clear();
  EXPECT_EQ(storage.CheckTables(), -50);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(StorageLine(kError, "CreateTable",
                                      "Failed to create table: there is already an index named PYXPlugin")));
}

TEST_F(ADatabase, MakesATableOnlyOnce) {
  OpenWithRow("a", "1");
  EXPECT_EQ(storage.CreateTable(PYXPlugin), 0);
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
  EXPECT_EQ(Read("a"), "1");
}

TEST_F(ADatabase, WhoseTableExistsIsNotGivenAnother) {
  OpenWithRow("a", "1");
  EXPECT_EQ(storage.RestoreTable(PYXPlugin), 0);
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(StorageLine(kDebug, "RestoreTable", "Table already exists")));
  EXPECT_EQ(Read("a"), "1");
}

TEST_F(AMissingTable, FailsTheWriteIsRestoredAndTheRetrySucceeds) {
  Open();
  Sql("DROP TABLE PYXPlugin");
  EXPECT_EQ(storage.WritePolicy(PYXPlugin, "a", "1"), -51);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(StorageLine(kWarning, "WritePolicy", "Table PYXPlugin is not created yet")));
  LogRecorder::Clear();
  EXPECT_EQ(storage.RestoreTable(PYXPlugin), 0);
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
  EXPECT_EQ(storage.WritePolicy(PYXPlugin, "a", "1"), 0);
  EXPECT_THAT(Rows(), ElementsAre(Pair("a", "1")));
}

TEST_F(AMissingTable, FailsTheReadAndLeavesTheValueEmpty) {
  Open();
  Sql("DROP TABLE PYXPlugin");
  std::string value = "earlier";
  EXPECT_EQ(storage.ReadPolicy(PYXPlugin, "a", value), -51);
  EXPECT_EQ(value, "");
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(StorageLine(kWarning, "ReadPolicy", "Table PYXPlugin is not created yet")));
}

TEST_F(AMissingTable, IsFoundMissingByTheNextCheck) {
  Open();
  Sql("DROP TABLE PYXPlugin");
  EXPECT_EQ(storage.CheckTables(), -51);
  EXPECT_EQ(storage.CheckTables(), 0);
}

TEST_F(AnUnknownComponent, FailsEveryOperationWithASyntaxError) {
  Open();
  for (const auto component : {kUnknown, static_cast<Component>(-1), static_cast<Component>(INT_MAX)}) {
    LogRecorder::Clear();
    std::string value = "earlier";
    EXPECT_EQ(storage.CreateTable(component), -50);
    EXPECT_EQ(storage.RestoreTable(component), -50);
    EXPECT_EQ(storage.WritePolicy(component, "a", "1"), -50);
    EXPECT_EQ(storage.ReadPolicy(component, "a", value), -50);
    EXPECT_EQ(value, "");
    EXPECT_THAT(LogRecorder::Lines(),
                ElementsAre(StorageLine(kError, "CreateTable", "Failed to create table: near \"(\": syntax error"),
                            StorageLine(kError, "CreateTable", "Failed to create table: near \"(\": syntax error"),
                            StorageLine(kError, "WritePolicy", "Failed to write [a], near \"(\": syntax error"),
                            StorageLine(kError, "ReadPolicy", "Failed to read [a]: near \"WHERE\": syntax error")));
  }
}

// ---- rows

TEST_F(ARow, WrittenTwiceHoldsTheSecondValue) {
  Open();
  EXPECT_EQ(storage.WritePolicy(PYXPlugin, "a", "first"), 0);
  EXPECT_EQ(storage.WritePolicy(PYXPlugin, "a", "second"), 0);
  EXPECT_EQ(Sql("SELECT count(*) FROM PYXPlugin"), "1");
  EXPECT_THAT(Rows(), ElementsAre(Pair("a", "second")));
}

TEST_F(ARow, ThatWasNeverWrittenReadsAsEmptyTextAndLogsNothing) {
  OpenWithRow("a", "1");
  std::string value = "earlier";
  EXPECT_EQ(storage.ReadPolicy(PYXPlugin, "b", value), -46);
  EXPECT_EQ(value, "");
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(ARow, IsReadBackWithALine) {
  OpenWithRow("Storage", "{\"a\":1}\n");
  EXPECT_EQ(Read("Storage"), "{\"a\":1}\n");
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(StorageLine(kDebug, "ReadPolicy", "Successfully read [Storage]")));
}

TEST_F(ARow, KeepsTextOfEveryKind) {
  using namespace std::string_literals;
  Open();
  for (const std::string& text :
       {""s, "a\0b"s, "'; DROP TABLE PYXPlugin; --"s, "\xff\xfe"s, std::string(300'000, 'x')}) {
    ASSERT_EQ(storage.WritePolicy(PYXPlugin, text + "name", text), 0);
    EXPECT_TRUE(Read(text + "name") == text) << text.substr(0, 50);
  }
  EXPECT_EQ(Sql("SELECT count(*) FROM PYXPlugin"), "5");
}

TEST_F(ARow, OfEmptyTextIsTextAndNotNull) {
  OpenWithRow("a", "");
  EXPECT_EQ(Sql("SELECT typeof(value) FROM PYXPlugin"), "text");
}

TEST_F(ARow, OfNullReadsAsEmptyText) {
  Open();
  Sql("INSERT INTO PYXPlugin VALUES ('a', NULL)");
  EXPECT_EQ(Read("a"), "");
}

TEST_F(ARow, ThatTheDatabaseDoesNotTakeWasNotWritten) {
  Open();
  Sql("CREATE TRIGGER refuse BEFORE INSERT ON PYXPlugin BEGIN SELECT RAISE(IGNORE); END");
  EXPECT_EQ(storage.WritePolicy(PYXPlugin, "a", "1"), -47);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(StorageLine(kError, "WritePolicy", testing::ContainsRegex("^Failed to write \\[a\\], .+"))));
  EXPECT_FALSE(FileExists(kBackup));
}

TEST_F(ARow, ThatTheDatabaseRefusesIsAFailureWithItsReason) {
  OpenWithRow("a", "1");
  Sql("CREATE TRIGGER refuse BEFORE INSERT ON PYXPlugin BEGIN SELECT RAISE(ABORT, 'refused'); END");
  EXPECT_EQ(storage.WritePolicy(PYXPlugin, "a", "2"), -50);
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(StorageLine(kError, "WritePolicy", "Failed to write [a], refused")));
  EXPECT_EQ(Read("a"), "1");
}

TEST_F(ARow, OfATableWithAnotherColumnFailsTheReadWithTheOtherSeparator) {
  MakeStorageDirectory();
  Sql("CREATE TABLE PYXPlugin (name TEXT, other TEXT)");
  storage.InitHandler();
  LogRecorder::Clear();
  std::string value = "earlier";
  EXPECT_EQ(storage.ReadPolicy(PYXPlugin, "a", value), -50);
  EXPECT_EQ(value, "");
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(StorageLine(kError, "ReadPolicy", "Failed to read [a]: no such column: value")));
}

TEST_F(ARow, IsThereForAnotherProcessAsSoonAsTheWriteReturns) {
  OpenWithRow("a", "1");
  EXPECT_THAT(Rows(), ElementsAre(Pair("a", "1")));
}

TEST_F(ARow, ThatFindsTheDiskFullIsNotWrittenAndHarmsNoOther) {
  MakeStorageDirectory();
  const SmallDisk disk(kStorageDirectory, 256 * 1024);
  if (!disk.IsMounted()) GTEST_SKIP() << "no right to mount a disk here";
  OpenWithRow("a", "1");
  const std::string backup = ReadFile(kBackup);
  EXPECT_EQ(storage.WritePolicy(PYXPlugin, "b", std::string(1'000'000, 'x')), -50);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(StorageLine(kError, "WritePolicy", "Failed to write [b], database or disk is full")));
  EXPECT_EQ(ReadFile(kBackup), backup);
  EXPECT_EQ(Read("a"), "1");
  EXPECT_EQ(storage.WritePolicy(PYXPlugin, "b", "2"), 0);
  EXPECT_THAT(Rows(), ElementsAre(Pair("a", "1"), Pair("b", "2")));
}

// ---- the backup

TEST_F(TheBackup, EqualsTheDatabaseByteForByteAfterEveryWrite) {
  Open();
  for (int i = 0; i < 20; ++i) {
    const std::string value(static_cast<size_t>(i) * 1'500, 'x');
    ASSERT_EQ(storage.WritePolicy(PYXPlugin, "row" + std::to_string(i % 3), value), 0);
    const std::string backup = ReadFile(kBackup);
    EXPECT_FALSE(backup.empty());
    EXPECT_TRUE(backup == ReadFile(kDatabase)) << i;
    EXPECT_EQ(Rows(kBackup), Rows()) << i;
  }
}

TEST_F(TheBackup, IsCopiedAsTheLastStepOfAWrite) {
  Open();
  ASSERT_EQ(storage.WritePolicy(PYXPlugin, "a", "1"), 0);
  EXPECT_THAT(LogRecorder::Lines(), ElementsAreArray(Copied(kDatabase, kBackup)));
}

TEST_F(TheBackup, IsMadeByNothingButAWriteThatSucceeded) {
  Open();
  std::string value;
  storage.CheckTables();
  storage.CreateTable(PYXPlugin);
  storage.RestoreTable(PYXPlugin);
  storage.ReadPolicy(PYXPlugin, "a", value);
  storage.Reset();
  EXPECT_EQ(storage.WritePolicy(kUnknown, "a", "1"), -50);
  EXPECT_FALSE(FileExists(kBackup));
}

TEST_F(TheBackup, ThatCannotBeMadeIsAWarningAndTheWriteASuccess) {
  Open();
  fs::create_directory(kBackup);
  EXPECT_EQ(storage.WritePolicy(PYXPlugin, "a", "1"), 0);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(FileLine(kDebug, "copyFile", _),
                          FileLine(kWarning, "copyFile", "could not open or create dst: " + kBackup),
                          StorageLine(kWarning, "Backup", "Failed to backup DB")));
  EXPECT_THAT(Rows(), ElementsAre(Pair("a", "1")));
}

TEST_F(TheBackup, ThatFindsTheDiskFullIsAWarningAndTheWriteASuccess) {
  MakeStorageDirectory();
  SmallDisk disk(kStorageDirectory, 1024 * 1024);
  if (!disk.IsMounted()) GTEST_SKIP() << "no right to mount a disk here";
  OpenWithRow("a", "1");
  // The second of these brings the journal to its full size.
  for (const char letter : {'u', 'v'}) ASSERT_EQ(storage.WritePolicy(PYXPlugin, "a", std::string(50'000, letter)), 0);
  fs::remove(kBackup);
  LogRecorder::Clear();
  const auto free = static_cast<unsigned>(fs::space(kStorageDirectory).free);
  disk.Resize(1024 * 1024 - free + 4096);
  const std::string value(50'000, 'w');
  EXPECT_EQ(storage.WritePolicy(PYXPlugin, "a", value), 0);
  EXPECT_EQ(LogRecorder::Count("Failed to backup DB"), 1);
  EXPECT_TRUE(Read("a") == value);
}

TEST_F(TheBackup, IsOverwrittenWhereThereIsNoRoomForASecondOne) {
  MakeStorageDirectory();
  SmallDisk disk(kStorageDirectory, 1024 * 1024);
  if (!disk.IsMounted()) GTEST_SKIP() << "no right to mount a disk here";
  OpenWithRow("a", "1");
  for (const char letter : {'u', 'v'}) ASSERT_EQ(storage.WritePolicy(PYXPlugin, "a", std::string(50'000, letter)), 0);
  const auto free = static_cast<unsigned>(fs::space(kStorageDirectory).free);
  disk.Resize(1024 * 1024 - free + 4096);
  EXPECT_EQ(storage.WritePolicy(PYXPlugin, "a", std::string(50'000, 'w')), 0);
  EXPECT_EQ(LogRecorder::Count("Failed to backup DB"), 0);
  EXPECT_TRUE(ReadFile(kBackup) == ReadFile(kDatabase));
  EXPECT_FALSE(FileExists(kBackup + ".new"));
}

/// A storage whose last write is in the database alone: "a" is "new" there and "old" in the backup.
class AStaleBackup : public TheBackup {
 protected:
  void SetUp() override {
    TheBackup::SetUp();
    OpenWithRow("a", "old");
    const std::string backup = ReadFile(kBackup);
    fs::remove(kBackup);
    fs::create_directory(kBackup);
    ASSERT_EQ(storage.WritePolicy(PYXPlugin, "a", "new"), 0);
    ASSERT_EQ(LogRecorder::Count("Failed to backup DB"), 1);
    fs::remove(kBackup);
    WriteFile(kBackup, backup);
    LogRecorder::Clear();
  }
};

TEST_F(AStaleBackup, DoesNotTakeThePlaceOfASoundDatabase) {
  EXPECT_EQ(storage.RestoreBackup(), -50);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(StorageLine(kWarning, "RestoreBackup", "Failed to restore backup"), DirectoryThere()));
  // It is open: what reads it next finds what was acknowledged, and not the defaults.
  EXPECT_EQ(Read("a"), "new");
}

TEST_F(AStaleBackup, IsKnownToTheNextProcess) {
  DBStorage next;
  next.InitHandler();
  EXPECT_EQ(next.RestoreBackup(), -50);
  std::string value;
  EXPECT_EQ(next.ReadPolicy(PYXPlugin, "a", value), 0);
  EXPECT_EQ(value, "new");
}

/// A process that ended without coming to its end, having written "a" as "new".
class ACutOffProcess : public TheBackup {
 protected:
  void SetUp() override {
    TheBackup::SetUp();
    OpenWithRow("a", "old");
    older = ReadFile(kBackup);
    ASSERT_EQ(storage.WritePolicy(PYXPlugin, "a", "new"), 0);
    // As its successor finds it: the note is there, and no connection.
    ASSERT_TRUE(FileExists(kStale));
    next.InitHandler();
  }
  std::string ReadByTheNext() {
    std::string value;
    EXPECT_EQ(next.ReadPolicy(PYXPlugin, "a", value), 0);
    return value;
  }

  std::string older;
  DBStorage next;
};

TEST_F(ACutOffProcess, LeavesABackupThatIsCompleteIfNothingWasLostWithIt) {
  EXPECT_EQ(next.RestoreBackup(), 0);
  EXPECT_EQ(LogRecorder::Count("Failed to restore backup"), 0);
  EXPECT_EQ(ReadByTheNext(), "new");
}

TEST_F(ACutOffProcess, LeavesABackupThatIsNotTrustedIfThePowerWentWithIt) {
  const std::string whole = ReadFile(kBackup);
  for (const std::string& left : {older, std::string(), whole.substr(0, whole.size() / 2), whole + "more"}) {
    SCOPED_TRACE(left.size());
    WriteFile(kBackup, left);
    EXPECT_EQ(next.RestoreBackup(), -50);
    EXPECT_EQ(ReadByTheNext(), "new");
  }
  fs::remove(kBackup);
  EXPECT_EQ(next.RestoreBackup(), -50);
  EXPECT_EQ(ReadByTheNext(), "new");
}

TEST_F(ACutOffProcess, IsForgottenWithTheNextWrite) {
  WriteFile(kBackup, older);
  ASSERT_EQ(next.WritePolicy(PYXPlugin, "b", "1"), 0);
  Sql("DELETE FROM PYXPlugin");
  EXPECT_EQ(next.RestoreBackup(), 0);
  EXPECT_EQ(ReadByTheNext(), "new");
}

TEST_F(TheBackup, IsMarkedUntilItIsOnTheDiskAtTheEnd) {
  {
    DBStorage first;
    first.InitHandler();
    EXPECT_EQ(first.CheckTables(), -51);
    EXPECT_FALSE(FileExists(kStale));
    EXPECT_EQ(first.WritePolicy(PYXPlugin, "a", "1"), 0);
    EXPECT_TRUE(FileExists(kStale));
  }
  EXPECT_FALSE(FileExists(kStale));
}

TEST_F(TheBackup, OfAProcessThatCameToItsEndTakesThePlaceOfADatabaseThatRefusesTheFirstWrite) {
  {
    DBStorage earlier;
    earlier.InitHandler();
    EXPECT_EQ(earlier.CheckTables(), -51);
    EXPECT_EQ(earlier.WritePolicy(PYXPlugin, "a", "kept"), 0);
  }
  Sql("ALTER TABLE PYXPlugin RENAME TO other");
  Sql("CREATE VIEW PYXPlugin AS SELECT * FROM other");
  storage.InitHandler();
  EXPECT_EQ(storage.WritePolicy(PYXPlugin, "b", "new"), -50);
  EXPECT_EQ(storage.RestoreBackup(), 0);
  EXPECT_EQ(storage.WritePolicy(PYXPlugin, "b", "new"), 0);
  EXPECT_THAT(Rows(), ElementsAre(Pair("a", "kept"), Pair("b", "new")));
}

TEST_F(TheBackup, ThatWasNotMadeStaysMarkedAtTheEnd) {
  {
    DBStorage first;
    first.InitHandler();
    EXPECT_EQ(first.CheckTables(), -51);
    fs::create_directory(kBackup);
    EXPECT_EQ(first.WritePolicy(PYXPlugin, "a", "1"), 0);
  }
  EXPECT_TRUE(FileExists(kStale));
}

TEST_F(AStaleBackup, TakesThePlaceOfADamagedDatabase) {
  WriteFile(kDatabase, std::string(8192, 'x'));
  EXPECT_EQ(storage.RestoreBackup(), 0);
  EXPECT_EQ(Read("a"), "old");
}

TEST_F(AStaleBackup, TakesThePlaceOfADatabaseThatVanished) {
  fs::remove(kDatabase);
  EXPECT_EQ(storage.RestoreBackup(), 0);
  EXPECT_EQ(LogRecorder::Count("delete file: " + kDatabase + " failed"), 1);
  EXPECT_EQ(Read("a"), "old");
}

TEST_F(AStaleBackup, TakesThePlaceOfAnEmptyDatabase) {
  fs::remove(kDatabase);
  storage.Reset();
  EXPECT_EQ(storage.RestoreBackup(), 0);
  EXPECT_EQ(Read("a"), "old");
}

TEST_F(AStaleBackup, IsOneNoMoreAfterTheNextWrite) {
  ASSERT_EQ(storage.WritePolicy(PYXPlugin, "b", "1"), 0);
  EXPECT_EQ(storage.RestoreBackup(), 0);
  EXPECT_EQ(Read("a"), "new");
}

TEST_F(RestoringTheBackup, WithoutOneFailsWithTheDatabaseGoneAndClosed) {
  Open();
  EXPECT_EQ(storage.RestoreBackup(), -50);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(Deleted(kDatabase),
                          FileLine(kWarning, "copyFile", "could not take info (lstat) about src: " + kBackup),
                          StorageLine(kWarning, "RestoreBackup", "Failed to restore backup")));
  EXPECT_FALSE(FileExists(kDatabase));
  ExpectClosed();
  storage.Reset();
  EXPECT_EQ(storage.CheckTables(), -51);
}

TEST_F(RestoringTheBackup, BringsBackWhatTheLastSuccessfulWriteLeft) {
  OpenWithRow("a", "1");
  Sql("DELETE FROM PYXPlugin");
  Sql("CREATE TABLE other (a)");
  EXPECT_EQ(storage.RestoreBackup(), 0);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAreArray(Lines{Deleted(kDatabase)} + Copied(kBackup, kDatabase) + Lines{DirectoryThere()}));
  EXPECT_EQ(Read("a"), "1");
  EXPECT_THAT(Rows(), ElementsAre(Pair("a", "1")));
  EXPECT_EQ(Sql("SELECT count(*) FROM sqlite_master WHERE name = 'other'"), "0");
}

TEST_F(RestoringTheBackup, OfADatabaseThatVanishedSucceedsAfterAWarning) {
  OpenWithRow("a", "1");
  fs::remove(kDatabase);
  EXPECT_EQ(storage.RestoreBackup(), 0);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAreArray(Lines{FileLine(kWarning, "deleteFile", "delete file: " + kDatabase + " failed")} +
                               Copied(kBackup, kDatabase) + Lines{DirectoryThere()}));
  EXPECT_EQ(Read("a"), "1");
}

TEST_F(RestoringTheBackup, WorksWithoutAnOpenDatabase) {
  OpenWithRow("a", "1");
  DBStorage fresh;
  EXPECT_EQ(fresh.RestoreBackup(), 0);
  std::string value;
  EXPECT_EQ(fresh.ReadPolicy(PYXPlugin, "a", value), 0);
  EXPECT_EQ(value, "1");
}

TEST_F(RestoringTheBackup, RemovesTheJournalOfTheOldDatabaseFirst) {
  OpenWithRow("a", "old");
  const std::string journal = HotJournal();
  ASSERT_FALSE(journal.empty());
  ASSERT_EQ(storage.WritePolicy(PYXPlugin, "a", "new"), 0);
  WriteFile(kJournal, journal);
  LogRecorder::Clear();
  EXPECT_EQ(storage.RestoreBackup(), 0);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAreArray(Lines{Deleted(kDatabase)} + Copied(kBackup, kDatabase) + Lines{DirectoryThere()}));
  EXPECT_EQ(Read("a"), "new");
}

TEST_F(RestoringTheBackup, OutOfAPipeFailsWithoutWaiting) {
  OpenWithRow("a", "1");
  fs::remove(kBackup);
  ASSERT_EQ(mkfifo(kBackup.c_str(), 0600), 0);
  EXPECT_EQ(storage.RestoreBackup(), -50);
  EXPECT_EQ(Read("a"), "1");
}

TEST_F(TheBackup, ThatIsAPipeIsAWarningAndTheWriteASuccess) {
  OpenWithRow("a", "1");
  fs::remove(kBackup);
  ASSERT_EQ(mkfifo(kBackup.c_str(), 0600), 0);
  EXPECT_EQ(storage.WritePolicy(PYXPlugin, "a", "2"), 0);
  EXPECT_EQ(LogRecorder::Count("could not replace dst: " + kBackup + " by src: " + kDatabase), 1);
  EXPECT_EQ(Read("a"), "2");
}

TEST_F(ADatabase, WaitsForNoPipeInTheJournalsPlace) {
  OpenWithRow("a", "1");
  fs::remove(kJournal);
  ASSERT_EQ(mkfifo(kJournal.c_str(), 0600), 0);
  EXPECT_EQ(Read("a"), "1");
  fs::remove(kJournal);
  ASSERT_EQ(mkfifo(kJournal.c_str(), 0600), 0);
  EXPECT_EQ(storage.WritePolicy(PYXPlugin, "a", "2"), 0);
  EXPECT_EQ(Read("a"), "2");
  fs::remove(kJournal);
  ASSERT_EQ(mkfifo(kJournal.c_str(), 0600), 0);
  storage.Reset();
  EXPECT_EQ(Read("a"), "2");
  fs::remove(kJournal);
  ASSERT_EQ(mkfifo(kJournal.c_str(), 0600), 0);
  EXPECT_EQ(storage.RestoreBackup(), 0);
  EXPECT_EQ(Read("a"), "2");
}

TEST_F(RestoringTheBackup, ThatIsDamagedIsASuccessThatLeavesTheDatabaseClosed) {
  OpenWithRow("a", "1");
  WriteFile(kBackup, std::string(8192, 'x'));
  EXPECT_EQ(storage.RestoreBackup(), 0);
  EXPECT_THAT(
      LogRecorder::Lines(),
      testing::Contains(StorageLine(kError, "InitHandler", "Failed to initialize handler: file is not a database")));
  ExpectClosed();
}

TEST_F(RestoringTheBackup, ThatCannotBeReadLeavesTheDatabaseInPlace) {
  OpenWithRow("a", "1");
  fs::remove(kBackup);
  fs::create_directory(kBackup);
  EXPECT_EQ(storage.RestoreBackup(), -50);
  EXPECT_THAT(LogRecorder::Lines(),
              testing::Contains(StorageLine(kWarning, "RestoreBackup", "Failed to restore backup")));
  EXPECT_EQ(Read("a"), "1");
}

TEST_F(RestoringTheBackup, LeavesNoDescriptorOfTheOldDatabase) {
  OpenWithRow("a", "1");
  const auto before = Descriptors();
  EXPECT_EQ(storage.RestoreBackup(), 0);
  EXPECT_EQ(Descriptors(), before);
}

TEST_F(RestoringTheBackup, LeavesNothingBesideTheDatabase) {
  OpenWithRow("a", "1");
  EXPECT_EQ(storage.RestoreBackup(), 0);
  for (const auto& entry : fs::directory_iterator(kStorageDirectory)) {
    EXPECT_THAT(entry.path().string(), testing::AnyOf(kDatabase, kBackup, kJournal, kStale));
  }
}

// ---- a restore that was cut short: without a word of it, an empty database would be made and then copied over the
// backup

TEST_F(AnInterruptedRestore, IsFinishedAtTheNextOpeningWhateverItHadComeTo) {
  OpenWithRow("a", "old");
  const std::string journal = HotJournal();
  ASSERT_FALSE(journal.empty());
  ASSERT_EQ(storage.WritePolicy(PYXPlugin, "a", "new"), 0);
  const std::string whole = ReadFile(kDatabase);
  const std::vector<std::pair<const char*, std::function<void()>>> states{
      {"nothing was done", [] {}},
      {"the database is gone, its journal is not",
       [&] {
         fs::remove(kDatabase);
         WriteFile(kJournal, journal);
       }},
      {"nothing is left", [] { fs::remove(kDatabase); }},
      {"an empty database was made", [] { WriteFile(kDatabase, ""); }},
      {"the copy is under way",
       [&] {
         fs::remove(kDatabase);
         WriteFile(kDatabase + ".new", whole.substr(0, whole.size() / 2));
       }},
      {"the copy is in place", [&] { WriteFile(kDatabase, whole); }}};
  for (const auto& [state, make] : states) {
    SCOPED_TRACE(state);
    make();
    WriteFile(kRestoring, "");
    DBStorage next;
    next.InitHandler();
    EXPECT_FALSE(FileExists(kRestoring));
    EXPECT_FALSE(FileExists(kDatabase + ".new"));
    std::string value;
    EXPECT_EQ(next.ReadPolicy(PYXPlugin, "a", value), 0);
    EXPECT_EQ(value, "new");
    EXPECT_EQ(next.CheckTables(), 0);
  }
}

TEST_F(AnInterruptedRestore, OfADatabaseThatWasSetAsideIsFinishedByTheNextProcess) {
  OpenWithRow("a", "1");
  WriteFile(kDatabase, std::string(8192, 'x'));
  {
    // As far as a process comes that ends before its first read.
    DBStorage first;
    first.InitHandler();
    first.Reset();
  }
  EXPECT_TRUE(fs::is_empty(kDatabase));
  DBStorage next;
  next.InitHandler();
  EXPECT_EQ(next.CheckTables(), 0);
  std::string value;
  EXPECT_EQ(next.ReadPolicy(PYXPlugin, "a", value), 0);
  EXPECT_EQ(value, "1");
  EXPECT_FALSE(FileExists(kRestoring));
}

TEST_F(AnInterruptedRestore, OfADatabaseThatWasSetAsideInSilenceIsFinishedByTheNextProcess) {
  OpenWithRow("a", "1");
  // As a process leaves it that ended within the opening.
  WriteFile(kOpening, "");
  fs::remove(kDatabase);
  DBStorage next;
  next.InitHandler();
  EXPECT_EQ(next.CheckTables(), 0);
  std::string value;
  EXPECT_EQ(next.ReadPolicy(PYXPlugin, "a", value), 0);
  EXPECT_EQ(value, "1");
  EXPECT_FALSE(FileExists(kOpening));
  EXPECT_FALSE(FileExists(kRestoring));
}

TEST_F(AnInterruptedRestore, IsNoneWhereTheOpeningThatWasCutShortFoundNothingDamaged) {
  OpenWithRow("a", "1");
  WriteFile(kBackup, "not to be used");
  WriteFile(kOpening, "");
  DBStorage next;
  next.InitHandler();
  std::string value;
  EXPECT_EQ(next.ReadPolicy(PYXPlugin, "a", value), 0);
  EXPECT_EQ(value, "1");
  EXPECT_FALSE(FileExists(kOpening));
}

TEST_F(AnInterruptedRestore, IsNoneWhereTheOpeningThatWasCutShortHadNoBackupAndTheDatabaseIsGone) {
  MakeStorageDirectory();
  WriteFile(kOpening, "");
  storage.InitHandler();
  EXPECT_EQ(storage.CheckTables(), -51);
  EXPECT_FALSE(FileExists(kOpening));
  EXPECT_THAT(LogRecorder::Lines(), testing::Not(testing::Contains(FileLine(kWarning, "copyFile", _))));
}

TEST_F(AnInterruptedRestore, IsNotTakenFromADatabaseThatVanishedBetweenTwoRuns) {
  {
    DBStorage first;
    first.InitHandler();
    ASSERT_EQ(first.CheckTables(), -51);
    ASSERT_EQ(first.WritePolicy(PYXPlugin, "a", "1"), 0);
  }
  EXPECT_FALSE(FileExists(kOpening));
  fs::remove(kDatabase);
  DBStorage next;
  next.InitHandler();
  EXPECT_EQ(next.CheckTables(), -51);
}

TEST_F(AnInterruptedRestore, IsOwedNoMoreWhenSomethingWasWritten) {
  OpenWithRow("a", "1");
  for (const std::string& file : {kDatabase, kBackup}) WriteFile(file, std::string(8192, 'x'));
  DBStorage first;
  first.InitHandler();
  first.Reset();
  EXPECT_TRUE(FileExists(kRestoring));
  ASSERT_EQ(first.RestoreTable(PYXPlugin), 0);
  ASSERT_EQ(first.WritePolicy(PYXPlugin, "a", "2"), 0);
  EXPECT_FALSE(FileExists(kRestoring));
  EXPECT_THAT(Rows(kBackup), ElementsAre(Pair("a", "2")));
}

TEST_F(AnInterruptedRestore, WithoutABackupIsOver) {
  MakeStorageDirectory();
  WriteFile(kRestoring, "");
  storage.InitHandler();
  EXPECT_FALSE(FileExists(kRestoring));
  EXPECT_EQ(storage.CheckTables(), -51);
}

TEST_F(AnInterruptedRestore, OfABackupThatCannotBeReadIsOver) {
  MakeStorageDirectory();
  fs::create_directory(kBackup);
  WriteFile(kRestoring, "");
  storage.InitHandler();
  EXPECT_FALSE(FileExists(kRestoring));
  EXPECT_EQ(storage.CheckTables(), -51);
}

TEST_F(AnInterruptedRestore, ForWantOfRoomIsFinishedWhenThereIsRoom) {
  OpenWithRow("a", std::string(50'000, 'x'));
  signal(SIGXFSZ, SIG_IGN);
  rlimit previous{};
  getrlimit(RLIMIT_FSIZE, &previous);
  const rlimit little{20'000, previous.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &little), 0);
  EXPECT_EQ(storage.RestoreBackup(), -50);
  storage.Reset();
  EXPECT_EQ(LogRecorder::Count("Failed to initialize handler: the backup cannot be put in place"), 1);
  ExpectClosed();
  setrlimit(RLIMIT_FSIZE, &previous);
  // Also by a process that comes after this one.
  DBStorage next;
  next.InitHandler();
  std::string value;
  EXPECT_EQ(next.ReadPolicy(PYXPlugin, "a", value), 0);
  EXPECT_EQ(value.size(), 50'000u);
}

TEST_F(AnInterruptedRestore, OfADatabaseThatWasSetAsideForWantOfRoomMakesNoEmptyOne) {
  OpenWithRow("a", std::string(50'000, 'x'));
  WriteFile(kDatabase, std::string(8192, 'x'));
  signal(SIGXFSZ, SIG_IGN);
  rlimit previous{};
  getrlimit(RLIMIT_FSIZE, &previous);
  const rlimit little{20'000, previous.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &little), 0);
  DBStorage first;
  first.InitHandler();
  EXPECT_EQ(first.RestoreBackup(), -50);
  first.Reset();
  EXPECT_EQ(first.CheckTables(), -50);
  setrlimit(RLIMIT_FSIZE, &previous);
  first.Reset();
  std::string value;
  EXPECT_EQ(first.ReadPolicy(PYXPlugin, "a", value), 0);
  EXPECT_EQ(value.size(), 50'000u);
}

TEST_F(RestoringTheBackup, OverADatabaseThatCannotBeTakenAwayLeavesItToBeRead) {
  OpenWithRow("a", "1");
  {
    const FixedFile fixed(kDatabase);
    if (!fixed.IsMounted()) GTEST_SKIP() << "no right to mount here";
    EXPECT_EQ(storage.RestoreBackup(), -50);
    ExpectClosed();
    storage.Reset();
    EXPECT_EQ(Read("a"), "1");
    EXPECT_EQ(storage.WritePolicy(PYXPlugin, "a", "2"), -50);
    DBStorage next;
    next.InitHandler();
    EXPECT_EQ(next.CheckTables(), 0);
  }
  storage.Reset();
  EXPECT_EQ(storage.WritePolicy(PYXPlugin, "a", "2"), 0);
  EXPECT_EQ(Read("a"), "2");
}

TEST_F(RestoringTheBackup, ThatCannotBeBroughtToTheDiskIsASuccessThatTheNextWriteEnds) {
  OpenWithRow("a", "1");
  // A directory that cannot be opened cannot be synced.
  fs::permissions(kStorageDirectory, fs::perms(0333));
  {
    const WithoutPrivilege plain;
    EXPECT_EQ(storage.RestoreBackup(), 0);
    EXPECT_EQ(Read("a"), "1");
  }
  fs::permissions(kStorageDirectory, fs::perms(0755));
  EXPECT_TRUE(FileExists(kRestoring));
  EXPECT_EQ(storage.WritePolicy(PYXPlugin, "a", "2"), 0);
  EXPECT_FALSE(FileExists(kRestoring));
  DBStorage next;
  next.InitHandler();
  std::string value;
  EXPECT_EQ(next.ReadPolicy(PYXPlugin, "a", value), 0);
  EXPECT_EQ(value, "2");
}

// ---- closed

TEST_F(AClosedDatabase, FailsEveryOperationBeforeItIsOpenedAndAfterOpeningFailed) {
  ExpectClosed();
  fs::create_directories(kDatabase);
  storage.InitHandler();
  ExpectClosed();
}

TEST_F(AClosedDatabase, TouchesNoFile) {
  MakeStorageDirectory();
  ExpectClosed();
  EXPECT_TRUE(fs::is_empty(kStorageDirectory));
}

// ---- damage

TEST_F(ADamagedDatabaseFile, IsSetAsideAndTheNextOpeningStartsClean) {
  MakeStorageDirectory();
  const std::string damaged(8192, 'x');
  WriteFile(kDatabase, damaged);
  storage.InitHandler();
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(DirectoryThere(),
                          StorageLine(kError, "InitHandler", "Failed to initialize handler: file is not a database")));
  EXPECT_FALSE(FileExists(kDatabase));
  EXPECT_EQ(ReadFile(kDamaged), damaged);
  ExpectClosed();
  storage.Reset();
  EXPECT_EQ(storage.CheckTables(), -51);
  EXPECT_EQ(storage.WritePolicy(PYXPlugin, "a", "1"), 0);
  EXPECT_EQ(ReadFile(kDamaged), damaged);
}

/// The header of a journal, by which the database had no page before.
std::string JournalOfAnEmptyDatabase() {
  std::string header("\xd9\xd5\x05\xf9\x20\xa1\x63\xd7", 8);
  // No record, no sum, no page; sectors of 512 bytes and pages of 4096.
  header += std::string(12, '\0') + std::string("\0\0\x02\0\0\0\x10\0", 8);
  header.resize(512, '\0');
  return header;
}

TEST_F(ADamagedDatabaseFile, OfWhichItsJournalLeavesNothingComesBackFromTheBackup) {
  OpenWithRow("a", "1");
  WriteFile(kJournal, JournalOfAnEmptyDatabase());
  DBStorage next;
  next.InitHandler();
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(DirectoryThere(),
                          StorageLine(kError, "InitHandler",
                                      "Failed to initialize handler: the journal left nothing of the database")));
  EXPECT_EQ(next.CheckTables(), -50);
  EXPECT_TRUE(FileExists(kRestoring));
  EXPECT_FALSE(FileExists(kOpening));
  next.Reset();
  std::string value;
  EXPECT_EQ(next.ReadPolicy(PYXPlugin, "a", value), -51);
  EXPECT_EQ(next.RestoreBackup(), 0);
  EXPECT_EQ(next.ReadPolicy(PYXPlugin, "a", value), 0);
  EXPECT_EQ(value, "1");
  EXPECT_FALSE(FileExists(kRestoring));
}

TEST_F(ADamagedDatabaseFile, OfWhichItsJournalLeavesNothingIsThatOfANewDeviceWithoutABackup) {
  OpenWithRow("a", "1");
  fs::remove(kBackup);
  WriteFile(kJournal, JournalOfAnEmptyDatabase());
  DBStorage next;
  next.InitHandler();
  EXPECT_EQ(next.CheckTables(), -51);
}

TEST_F(ADamagedDatabaseFile, ThatWasEmptyBeforeIsThatOfANewDevice) {
  OpenWithRow("a", "1");
  WriteFile(kDatabase, "");
  DBStorage next;
  next.InitHandler();
  EXPECT_EQ(next.CheckTables(), -51);
}

TEST_F(ADamagedDatabaseFile, FailsTheReadWhileItIsOpenAndComesBackFromTheBackup) {
  OpenWithRow("a", "1");
  WriteFile(kDatabase, std::string(8192, 'x'));
  std::string value;
  EXPECT_EQ(storage.ReadPolicy(PYXPlugin, "a", value), -50);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(StorageLine(kError, "ReadPolicy", "Failed to read [a]: file is not a database")));
  EXPECT_EQ(storage.RestoreBackup(), 0);
  EXPECT_EQ(Read("a"), "1");
}

}  // namespace
}  // namespace zav::test
