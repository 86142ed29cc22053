#include "policy/Manager.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <latch>
#include <set>
#include <stdexcept>
#include <thread>

#include "support/Device.h"
#include "support/LogRecorder.h"
#include "support/Surroundings.h"
#include "support/ThisProcess.h"

namespace zav::test {
namespace {

namespace fs = std::filesystem;
using common::PYXPlugin;
using policy::Manager;
using policy::ParseJsonString;
using policy::Policy;
using testing::_;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;
using testing::UnorderedElementsAre;

using Lines = std::vector<testing::Matcher<LogEntry>>;

const std::string kDamaged = kDatabase + ".damaged";
const std::string kGarbage(8192, 'x');
const char* const kNotOpen = "Storage handler was not initialized";
const char* const kNoTable = "Table PYXPlugin is not created yet";
const char* const kNoDatabase = "Failed to initialize handler: file is not a database";

testing::Matcher<LogEntry> ManagerLine(int priority, const std::string& function, const std::string& message) {
  return PluginLine(priority, "Manager.cpp", function, message);
}

testing::Matcher<LogEntry> StorageLine(int priority, const std::string& function, const std::string& message) {
  return PluginLine(priority, "DBStorage.cpp", function, message);
}

testing::Matcher<LogEntry> FileLine(int priority, const std::string& function, const std::string& message) {
  return PluginLine(priority, "FileHelper.cpp", function, message);
}

testing::Matcher<LogEntry> DirectoryThere() {
  return FileLine(kDebug, "createDirectory", "directory: " + kStorageDirectory + " exist");
}

testing::Matcher<LogEntry> TableThere() {
  return StorageLine(kDebug, "CheckTables", "Table [PYXPlugin] is present");
}

testing::Matcher<LogEntry> DefaultsRead() {
  return ManagerLine(kInfo, "DefaultPolicy", "Default policy successfully read");
}

testing::Matcher<LogEntry> DefaultsNotRead() {
  return ManagerLine(kError, "DefaultPolicy", "Failed to read default policy");
}

testing::Matcher<LogEntry> TryingDefault(const std::string& name) {
  return ManagerLine(kInfo, "GetPolicy", "Trying to restore default [" + name + "] policy");
}

/// The lines of a file copy that succeeds.
Lines Copied(const std::string& from, const std::string& to) {
  return {PluginLine(kDebug, "FileHelper.cpp", "copyFile", StartsWith("file: " + from + " size is ")),
          FileLine(kDebug, "copyFile", "copy from file: " + from + "\n       to file: " + to + "\nsuccess"),
          PluginLine(kDebug, "FileHelper.cpp", "copyFile", StartsWith("chmod "))};
}

Lines Saved() {
  return Copied(kDatabase, kBackup);
}

Lines operator+(Lines lines, const Lines& more) {
  lines.insert(lines.end(), more.begin(), more.end());
  return lines;
}

Lines BackupInPlace() {
  return Lines{FileLine(kDebug, "deleteFile", "delete file: " + kDatabase + " success")} + Copied(kBackup, kDatabase) +
         Lines{DirectoryThere()};
}

Lines NoBackup() {
  return {FileLine(kDebug, "deleteFile", "delete file: " + kDatabase + " success"),
          FileLine(kWarning, "copyFile", "could not take info (lstat) about src: " + kBackup),
          StorageLine(kWarning, "RestoreBackup", "Failed to restore backup")};
}

std::string Get(const std::string& name) {
  return Manager::Instance().GetPolicy(PYXPlugin, name).AsString();
}

int Update(const std::string& name, const Policy& policy) {
  return Manager::Instance().UpdatePolicy(PYXPlugin, name, policy);
}

int Update(const std::string& name, const std::string& text) {
  return Update(name, ParseJsonString(text));
}

class ADevice : public testing::Test {
 protected:
  void SetUp() override { MakeStorageDirectory(); }
};

class AFirstStart : public ADevice {};
class ALaterStart : public ADevice {};
class TheDefaultPolicy : public ADevice {};
class ADamagedDatabase : public ADevice {};
class AnUnusableDirectory : public ADevice {};

/// A device whose database holds the row "a", with a backup; nothing of its making is left in the log.
class AStoredPolicy : public ADevice {
 protected:
  void SetUp() override {
    ADevice::SetUp();
    WriteDefaultPolicy(R"({"a":{"from":"file"},"b":{"from":"default"}})");
    ASSERT_EQ(Update("a", R"({"from":"write"})"), 0);
    LogRecorder::Clear();
  }
};

class ReadingAPolicy : public AStoredPolicy {};
class WritingAPolicy : public AStoredPolicy {};

// ---- the first start

TEST_F(AFirstStart, WritesTheObjectsOfTheDefaultFileAndSkipsWhatIsNoObject) {
  WriteDefaultPolicy(R"({"Storage":{"config":{"max_index":5}},"a number":5})");
  Manager::Instance();
  EXPECT_THAT(Rows(), ElementsAre(Pair("Storage", "{\"config\":{\"max_index\":5}}\n")));
  EXPECT_THAT(LogRecorder::Lines(), ElementsAreArray(Lines{DirectoryThere(), DefaultsRead()} + Saved()));
}

TEST_F(AFirstStart, SkipsEveryKindOfMemberThatIsNoObjectAndGoesOnAfterIt) {
  WriteDefaultPolicy(R"({"1":[{}],"2":null,"3":"{}","4":true,"5":5.5,"6":{"a":1},"7":{}})");
  Manager::Instance();
  EXPECT_THAT(Rows(), ElementsAre(Pair("6", "{\"a\":1}\n"), Pair("7", "{}\n")));
}

TEST_F(AFirstStart, WritesThePoliciesInTheOrderOfTheirNames) {
  WriteDefaultPolicy(UsualPolicies());
  Manager::Instance();
  EXPECT_EQ(Sql("SELECT group_concat(name) FROM (SELECT name FROM PYXPlugin ORDER BY rowid)"), "Service,State,Storage");
  EXPECT_EQ(Rows().at("Service"), "{\"restart_delay\":30}\n");
}

TEST_F(AFirstStart, LeavesABackupThatEqualsTheDatabase) {
  WriteDefaultPolicy(UsualPolicies());
  Manager::Instance();
  EXPECT_FALSE(ReadFile(kBackup).empty());
  EXPECT_EQ(ReadFile(kBackup), ReadFile(kDatabase));
}

TEST_F(AFirstStart, WithoutADefaultFileThrowsAndASecondCallTriesEverythingAgain) {
  try {
    Manager::Instance();
    FAIL() << "it did not throw";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Default policy is empty");
  }
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(DirectoryThere(), DefaultsNotRead()));
  LogRecorder::Clear();
  EXPECT_NO_THROW(Manager::Instance());
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(DirectoryThere(), TableThere()));
}

TEST_F(AFirstStart, ThatThrewFindsTheTablesTheSecondTimeAndSeedsNothing) {
  EXPECT_THROW(Manager::Instance(), std::runtime_error);
  WriteDefaultPolicy(UsualPolicies());
  EXPECT_NO_THROW(Manager::Instance());
  EXPECT_THAT(Rows(), IsEmpty());
}

TEST_F(AFirstStart, ThatThrewThrowsAgainWhenTheDatabaseIsGoneAgain) {
  EXPECT_THROW(Manager::Instance(), std::runtime_error);
  fs::remove(kDatabase);
  EXPECT_THROW(Manager::Instance(), std::runtime_error);
}

TEST_F(AFirstStart, ThatThrowsLeaksNoConnection) {
  const auto before = Descriptors();
  for (int i = 0; i < 3; ++i) {
    fs::remove(kDatabase);
    EXPECT_THROW(Manager::Instance(), std::runtime_error);
  }
  EXPECT_EQ(Descriptors(), before);
}

TEST_F(AFirstStart, WithADefaultFileThatDoesNotParseThrows) {
  WriteFile(kDefaultPolicy, "{");
  EXPECT_THROW(Manager::Instance(), std::runtime_error);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(DirectoryThere(), DefaultsRead(),
                          PluginLine(kError, "Policy.cpp", "ParseJsonString", StartsWith("Failed to parse: "))));
}

TEST_F(AFirstStart, WithADefaultFileOfOtherComponentsIsReadyWithEmptyTables) {
  WriteFile(kDefaultPolicy, R"({"Other":{"a":{"b":1}}})");
  EXPECT_NO_THROW(Manager::Instance());
  EXPECT_THAT(Rows(), IsEmpty());
}

TEST_F(AFirstStart, WithADefaultFileWhoseComponentIsNoObjectIsReadyWithEmptyTables) {
  WriteDefaultPolicy("[{\"a\":{}}]");
  EXPECT_NO_THROW(Manager::Instance());
  EXPECT_THAT(Rows(), IsEmpty());
}

TEST_F(AFirstStart, FromSeveralThreadsMakesOneManagerThatSeedsOnce) {
  WriteDefaultPolicy(UsualPolicies());
  constexpr int kThreads = 8;
  std::latch start(kThreads);
  std::vector<Manager*> managers(kThreads);
  {
    std::vector<std::jthread> threads;
    for (auto& manager : managers) {
      threads.emplace_back([&] {
        start.arrive_and_wait();
        manager = &Manager::Instance();
      });
    }
  }
  EXPECT_EQ(std::set<Manager*>(managers.begin(), managers.end()).size(), 1u);
  EXPECT_EQ(LogRecorder::Count("Default policy successfully read"), 1);
  EXPECT_EQ(Rows().size(), 3u);
}

// ---- later starts

TEST_F(ALaterStart, DoesNotReadTheDefaultFileUntilAReadFails) {
  SetRow("a", "{\"from\":\"row\"}");
  WriteDefaultPolicy(R"({"a":{"from":"default"},"b":{"from":"default"}})");
  EXPECT_EQ(Get("a"), "{\"from\":\"row\"}\n");
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(DirectoryThere(), TableThere(), StorageLine(kDebug, "ReadPolicy", "Successfully read [a]")));
  EXPECT_EQ(Get("b"), "{\"from\":\"default\"}\n");
  EXPECT_EQ(LogRecorder::Count("Default policy successfully read"), 1);
}

TEST_F(ALaterStart, NeedsNoDefaultFile) {
  SetRow("a", "{}");
  EXPECT_NO_THROW(Manager::Instance());
}

TEST_F(ALaterStart, WhoseDatabaseVanishedSeedsItAgain) {
  WriteDefaultPolicy(R"({"a":{"from":"default"}})");
  WriteFile(kBackup, "of no use here");
  Manager::Instance();
  EXPECT_THAT(Rows(), ElementsAre(Pair("a", "{\"from\":\"default\"}\n")));
}

TEST_F(ALaterStart, KeepsTheRowsOfATableWhoseNameDiffersInCase) {
  WriteDefaultPolicy(R"({"a":{"from":"default"}})");
  SetRow("a", "{}");
  Sql("ALTER TABLE PYXPlugin RENAME TO other");
  Sql("ALTER TABLE other RENAME TO PYXPluGin");
  Manager::Instance();
  EXPECT_THAT(Rows(), ElementsAre(Pair("a", "{}")));
}

TEST_F(AnUnusableDirectory, IsOpenedASecondTimeAndIsNoReasonToThrow) {
  fs::remove_all("/opt/data");
  EXPECT_NO_THROW(Manager::Instance());
  const auto noDirectory = FileLine(kWarning, "createDirectory", "could not create a directory: " + kStorageDirectory);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(noDirectory, StorageLine(kError, "CheckTables", kNotOpen), noDirectory));
}

TEST_F(AnUnusableDirectory, GivesNullForEveryPolicyAndFailsEveryWrite) {
  fs::remove_all("/opt/data");
  EXPECT_EQ(Get("a"), "");
  EXPECT_EQ(Update("a", "{}"), -50);
  EXPECT_EQ(LogRecorder::Count("Failed to update [a] policy"), 1);
}

TEST_F(AnUnusableDirectory, ThatBecomesUsableIsUsedByTheNextWrite) {
  fs::remove_all("/opt/data");
  Manager::Instance();
  MakeStorageDirectory();
  EXPECT_EQ(Update("a", "{\"b\":1}"), 0);
  EXPECT_THAT(Rows(), ElementsAre(Pair("a", "{\"b\":1}\n")));
}

// ---- the default policy

TEST_F(TheDefaultPolicy, IsReadOnceAndKept) {
  WriteDefaultPolicy("{\"a\":{}}");
  EXPECT_EQ(Manager::DefaultPolicy().AsString(), "{\"PYXPlugin\":{\"a\":{}}}\n");
  WriteDefaultPolicy("{\"b\":{}}");
  EXPECT_EQ(Manager::DefaultPolicy().AsString(), "{\"PYXPlugin\":{\"a\":{}}}\n");
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(DefaultsRead()));
}

TEST_F(TheDefaultPolicy, IsReadAgainUntilThatSucceeds) {
  EXPECT_TRUE(Manager::DefaultPolicy().isNull());
  WriteFile(kDefaultPolicy, "{\"cut off");
  EXPECT_TRUE(Manager::DefaultPolicy().isNull());
  WriteFile(kDefaultPolicy, "[1]");
  EXPECT_TRUE(Manager::DefaultPolicy().isNull());
  WriteDefaultPolicy("{}");
  EXPECT_FALSE(Manager::DefaultPolicy().isNull());
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(DefaultsNotRead(), DefaultsRead(), PluginLine(kError, "Policy.cpp", "ParseJsonString", _),
                          DefaultsRead(), DefaultsRead()));
}

TEST_F(TheDefaultPolicy, ThatIsNotThereIsOnlyThatItCouldNotBeRead) {
  EXPECT_TRUE(Manager::DefaultPolicy().isNull());
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(DefaultsNotRead()));
}

TEST_F(TheDefaultPolicy, ThatIsEmptyIsOnlyThatItCouldNotBeRead) {
  WriteFile(kDefaultPolicy, "");
  EXPECT_TRUE(Manager::DefaultPolicy().isNull());
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(DefaultsNotRead()));
}

TEST_F(TheDefaultPolicy, ThatIsADirectoryFailsTheReadBeforeThat) {
  fs::create_directory(kDefaultPolicy);
  EXPECT_TRUE(Manager::DefaultPolicy().isNull());
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(PluginLine(kError, "Storage.cpp", "ReadFromStorage",
                                                           "Failed to read policy.json from storage."),
                                                DefaultsNotRead()));
}

// ---- reading

TEST_F(ReadingAPolicy, GivesItsRow) {
  EXPECT_EQ(Get("a"), "{\"from\":\"write\"}\n");
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(StorageLine(kDebug, "ReadPolicy", "Successfully read [a]")));
}

TEST_F(ReadingAPolicy, WithNeitherARowNorADefaultGivesNullAfterTwoLines) {
  EXPECT_TRUE(Manager::Instance().GetPolicy(PYXPlugin, "missing").isNull());
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAreArray(BackupInPlace() +
                               Lines{TryingDefault("missing"),
                                     ManagerLine(kInfo, "RestoreDefaultPolicy", "Default [missing] policy is empty")}));
  EXPECT_THAT(Rows(), testing::Not(Contains(Pair("missing", _))));
}

TEST_F(ReadingAPolicy, WhoseRowHoldsInvalidJsonGivesNullAndLogsOnlyTheParseFailure) {
  SetRow("a", "{invalid");
  EXPECT_TRUE(Manager::Instance().GetPolicy(PYXPlugin, "a").isNull());
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(StorageLine(kDebug, "ReadPolicy", "Successfully read [a]"),
                          PluginLine(kError, "Policy.cpp", "ParseJsonString", StartsWith("Failed to parse: "))));
  EXPECT_EQ(Rows().at("a"), "{invalid");
}

TEST_F(ReadingAPolicy, WhoseRowIsEmptyGivesNullWithoutAnyRepair) {
  SetRow("a", "");
  EXPECT_TRUE(Manager::Instance().GetPolicy(PYXPlugin, "a").isNull());
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(StorageLine(kDebug, "ReadPolicy", "Successfully read [a]")));
}

TEST_F(ReadingAPolicy, WhoseRowIsLostTakesItFromTheBackupWithoutSayingSo) {
  Sql("DELETE FROM PYXPlugin");
  EXPECT_EQ(Get("a"), "{\"from\":\"write\"}\n");
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAreArray(BackupInPlace() + Lines{StorageLine(kDebug, "ReadPolicy", "Successfully read [a]")}));
  EXPECT_EQ(Rows().at("a"), "{\"from\":\"write\"}\n");
}

TEST_F(ReadingAPolicy, WhoseTableIsLostTakesItFromTheBackup) {
  Sql("DROP TABLE PYXPlugin");
  EXPECT_EQ(Get("a"), "{\"from\":\"write\"}\n");
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAreArray(Lines{StorageLine(kWarning, "ReadPolicy", kNoTable)} + BackupInPlace() +
                               Lines{StorageLine(kDebug, "ReadPolicy", "Successfully read [a]")}));
}

TEST_F(ALaterStart, AfterAPowerLossKeepsItsRowsWhicheverIsMissing) {
  SetRow("a", R"({"from":"before"})");
  WriteFile(kBackup, ReadFile(kDatabase));
  SetRow("a", R"({"from":"write"})");
  WriteFile(kBackup + ".stale", "");
  EXPECT_EQ(Get("missing"), "");
  EXPECT_EQ(Get("a"), "{\"from\":\"write\"}\n");
  EXPECT_EQ(Update("missing", "{}"), 0);
  EXPECT_THAT(Rows(), ElementsAre(Pair("a", _), Pair("missing", "{}\n")));
}

TEST_F(ReadingAPolicy, ThatTheBackupLacksTakesTheDefaultAndWritesIt) {
  Sql("DELETE FROM PYXPlugin WHERE name = 'b'");
  Sql("DELETE FROM PYXPlugin WHERE name = 'b'", kBackup);
  EXPECT_EQ(Get("b"), "{\"from\":\"default\"}\n");
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAreArray(BackupInPlace() +
                               Lines{TryingDefault("b"), StorageLine(kDebug, "RestoreTable", "Table already exists")} +
                               Saved()));
  EXPECT_THAT(Rows(), UnorderedElementsAre(Pair("a", "{\"from\":\"write\"}\n"), Pair("b", "{\"from\":\"default\"}\n")));
  EXPECT_EQ(ReadFile(kBackup), ReadFile(kDatabase));
}

TEST_F(ReadingAPolicy, WithoutABackupTakesTheDefaultWithoutWritingItAndOpensTheDatabaseAnew) {
  Sql("DELETE FROM PYXPlugin WHERE name = 'b'");
  fs::remove(kBackup);
  EXPECT_EQ(Get("b"), "{\"from\":\"default\"}\n");
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAreArray(NoBackup() + Lines{TryingDefault("b"), StorageLine(kError, "RestoreTable", kNotOpen),
                                                  DirectoryThere()}));
  EXPECT_EQ(Sql("SELECT count(*) FROM sqlite_master"), "0");
  EXPECT_EQ(Update("b", "{\"from\":\"later\"}"), 0);
  EXPECT_THAT(Rows(), ElementsAre(Pair("b", "{\"from\":\"later\"}\n")));
}

TEST_F(ReadingAPolicy, WhoseDefaultIsNoObjectGivesNull) {
  EXPECT_EQ(Manager::Instance().GetPolicy(static_cast<common::Component>(1), "a").AsString(), "");
  EXPECT_EQ(LogRecorder::Count("Trying to restore default [a] policy"), 1);
  EXPECT_EQ(LogRecorder::Count("Default [a] policy is empty"), 1);
}

// ---- writing

TEST_F(WritingAPolicy, StoresItsTextAndNothingElse) {
  EXPECT_EQ(Update("new", "{\"b\": 2, \"a\" : 1}"), 0);
  EXPECT_EQ(Rows().at("new"), "{\"a\":1,\"b\":2}\n");
  EXPECT_THAT(LogRecorder::Lines(), ElementsAreArray(Saved()));
}

TEST_F(WritingAPolicy, ThatIsNullWritesAnEmptyText) {
  EXPECT_EQ(Update("a", Policy()), 0);
  EXPECT_EQ(Rows().at("a"), "");
  EXPECT_EQ(Sql("SELECT typeof(value) FROM PYXPlugin WHERE name = 'a'"), "text");
  EXPECT_TRUE(Manager::Instance().GetPolicy(PYXPlugin, "a").isNull());
}

TEST_F(WritingAPolicy, ToALostTablePutsTheBackupInPlaceAndWritesAgain) {
  Sql("DROP TABLE PYXPlugin");
  EXPECT_EQ(Update("new", "{}"), 0);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAreArray(Lines{StorageLine(kWarning, "WritePolicy", kNoTable)} + BackupInPlace() + Saved()));
  EXPECT_THAT(Rows(), UnorderedElementsAre(Pair("a", "{\"from\":\"write\"}\n"), Pair("b", "{\"from\":\"default\"}\n"),
                                           Pair("new", "{}\n")));
}

TEST_F(WritingAPolicy, ToALostTableWithoutABackupMakesTheTableAnew) {
  Sql("DROP TABLE PYXPlugin");
  fs::remove(kBackup);
  EXPECT_EQ(Update("new", "{}"), 0);
  EXPECT_THAT(LogRecorder::Lines(), ElementsAreArray(Lines{StorageLine(kWarning, "WritePolicy", kNoTable)} +
                                                     NoBackup() + Lines{DirectoryThere()} + Saved()));
  EXPECT_THAT(Rows(), ElementsAre(Pair("new", "{}\n")));
}

TEST_F(WritingAPolicy, ToALostTableThatTheBackupLacksTooMakesTheTableAnew) {
  Sql("DROP TABLE PYXPlugin");
  Sql("DROP TABLE PYXPlugin", kBackup);
  EXPECT_EQ(Update("new", "{}"), 0);
  const auto noTable = StorageLine(kWarning, "WritePolicy", kNoTable);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAreArray(Lines{noTable} + BackupInPlace() + Lines{noTable, DirectoryThere()} + Saved()));
  EXPECT_THAT(Rows(), ElementsAre(Pair("new", "{}\n")));
}

TEST_F(WritingAPolicy, ThatFailsToTheEndLogsItAndReturnsTheCodeOfTheLastWrite) {
  Sql("CREATE TRIGGER refuse BEFORE INSERT ON PYXPlugin BEGIN SELECT RAISE(IGNORE); END");
  fs::copy_file(kDatabase, kBackup, fs::copy_options::overwrite_existing);
  EXPECT_EQ(Update("a", "{}"), -47);
  const auto notWritten = PluginLine(kError, "DBStorage.cpp", "WritePolicy", StartsWith("Failed to write [a], "));
  EXPECT_THAT(
      LogRecorder::Lines(),
      ElementsAreArray(Lines{notWritten} + BackupInPlace() +
                       Lines{notWritten, DirectoryThere(), StorageLine(kDebug, "RestoreTable", "Table already exists"),
                             notWritten, ManagerLine(kError, "UpdatePolicy", "Failed to update [a] policy")}));
  EXPECT_EQ(Rows().at("a"), "{\"from\":\"write\"}\n");
}

TEST_F(WritingAPolicy, ThatCannotRestoreTheTableReturnsThatCode) {
  fs::remove_all("/opt/data");
  EXPECT_EQ(Update("a", "{}"), -50);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(PluginLine(kError, "DBStorage.cpp", "WritePolicy", StartsWith("Failed to write [a], ")),
                          FileLine(kWarning, "deleteFile", "delete file: " + kDatabase + " failed"),
                          FileLine(kWarning, "copyFile", "could not take info (lstat) about src: " + kBackup),
                          StorageLine(kWarning, "RestoreBackup", "Failed to restore backup"),
                          FileLine(kWarning, "createDirectory", "could not create a directory: " + kStorageDirectory),
                          StorageLine(kError, "RestoreTable", kNotOpen),
                          ManagerLine(kError, "UpdatePolicy", "Failed to update [a] policy")));
}

// ---- damage

/// The lines of a start that finds its database damaged.
Lines DamagedStart() {
  return {DirectoryThere(), StorageLine(kError, "InitHandler", kNoDatabase),
          StorageLine(kError, "CheckTables", kNotOpen), DirectoryThere()};
}

/// Makes the backup a good one, with a row "a", and removes what else that left.
void MakeBackup() {
  SetRow("a", "{\"from\":\"backup\"}\n");
  fs::rename(kDatabase, kBackup);
}

TEST_F(ADamagedDatabase, IsReplacedByItsBackupAtTheNextRead) {
  MakeBackup();
  WriteFile(kDatabase, kGarbage);
  Manager::Instance();
  EXPECT_THAT(LogRecorder::Lines(), ElementsAreArray(DamagedStart()));
  EXPECT_EQ(Get("a"), "{\"from\":\"backup\"}\n");
  EXPECT_EQ(ReadFile(kDatabase), ReadFile(kBackup));
  EXPECT_EQ(ReadFile(kDamaged), kGarbage);
}

TEST_F(ADamagedDatabase, IsReplacedByItsBackupAtTheNextWrite) {
  MakeBackup();
  WriteFile(kDatabase, kGarbage);
  EXPECT_EQ(Update("b", "{}"), 0);
  EXPECT_THAT(Rows(), UnorderedElementsAre(Pair("a", "{\"from\":\"backup\"}\n"), Pair("b", "{}\n")));
}

TEST_F(ADamagedDatabase, WithADamagedBackupGivesTheDefaultsAndTheNextWriteHealsBoth) {
  WriteDefaultPolicy(R"({"a":{"from":"default"}})");
  WriteFile(kDatabase, kGarbage);
  WriteFile(kBackup, kGarbage);
  EXPECT_EQ(Get("a"), "{\"from\":\"default\"}\n");
  EXPECT_EQ(Update("a", "{\"from\":\"write\"}"), 0);
  EXPECT_THAT(Rows(), ElementsAre(Pair("a", "{\"from\":\"write\"}\n")));
  EXPECT_EQ(ReadFile(kBackup), ReadFile(kDatabase));
  EXPECT_EQ(ReadFile(kDamaged), kGarbage);
  LogRecorder::Clear();
  EXPECT_EQ(Get("a"), "{\"from\":\"write\"}\n");
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(StorageLine(kDebug, "ReadPolicy", "Successfully read [a]")));
}

TEST_F(ADamagedDatabase, WithADamagedBackupIsHealedByAWriteAlone) {
  WriteFile(kDatabase, kGarbage);
  WriteFile(kBackup, kGarbage);
  EXPECT_EQ(Update("a", "{\"from\":\"write\"}"), 0);
  EXPECT_EQ(Update("b", "{\"from\":\"write\"}"), 0);
  EXPECT_EQ(Rows().size(), 2u);
  EXPECT_EQ(ReadFile(kBackup), ReadFile(kDatabase));
}

TEST_F(ADamagedDatabase, WhoseReplacementWasCutShortIsReplacedAtTheNextStart) {
  WriteDefaultPolicy(R"({"State":{"from":"default"}})");
  SetRow("State", R"({"from":"reports"})");
  fs::rename(kDatabase, kBackup);
  WriteFile(kDatabase + ".restoring", "");
  EXPECT_EQ(Manager::Instance().GetPolicy(PYXPlugin, "State").GetStringValue("from"), "reports");
  EXPECT_EQ(LogRecorder::Count("Default policy successfully read"), 0);
}

TEST_F(ADamagedDatabase, OnADiskThatIsNearlyFullLosesNothingThatWasWritten) {
  MakeStorageDirectory();
  SmallDisk disk(kStorageDirectory, 1024 * 1024);
  if (!disk.IsMounted()) GTEST_SKIP() << "no right to mount a disk here";
  WriteDefaultPolicy(R"({"Other":{"from":"default"}})");
  Manager& manager = Manager::Instance();
  const auto sized = [](size_t size, char letter) {
    Policy policy;
    policy.SetStringValue("text", std::string(size, letter));
    return policy;
  };
  // The second one brings the journal to its full size.
  for (const char letter : {'u', 'v'}) ASSERT_EQ(manager.UpdatePolicy(PYXPlugin, "Storage", sized(40'000, letter)), 0);
  for (const unsigned room : {40u * 1024, 16u * 1024, 4u * 1024}) {
    SCOPED_TRACE(room);
    disk.Resize(1024 * 1024);
    disk.Resize(1024 * 1024 - static_cast<unsigned>(fs::space(kStorageDirectory).free) + room);
    const char letter = static_cast<char>('a' + room / 4096);
    ASSERT_EQ(manager.UpdatePolicy(PYXPlugin, "Storage", sized(40'000, letter)), 0);
    EXPECT_NE(manager.UpdatePolicy(PYXPlugin, "Storage", sized(150'000, 'x')), 0);
    EXPECT_EQ(manager.GetPolicy(PYXPlugin, "Storage").GetStringValue("text"), std::string(40'000, letter));
    EXPECT_NE(Rows()["Storage"].find(std::string(40'000, letter)), std::string::npos);
  }
}

TEST_F(ADamagedDatabase, WhileItIsInUseIsReplacedByItsBackup) {
  ASSERT_TRUE(!FileExists(kDatabase));
  WriteDefaultPolicy(R"({"a":{"from":"default"}})");
  ASSERT_EQ(Update("a", "{\"from\":\"write\"}"), 0);
  WriteFile(kDatabase, kGarbage);
  EXPECT_EQ(Get("a"), "{\"from\":\"write\"}\n");
}

TEST_F(ADamagedDatabase, InAPageThatNoStatementReadsAtTheStartIsFoundAtTheStart) {
  for (int i = 0; i < 50; ++i) SetRow("row" + std::to_string(i), std::string(500, 'x'));
  fs::copy_file(kDatabase, kBackup);
  std::string content = ReadFile(kDatabase);
  ASSERT_GT(content.size(), 20'000u);
  content.replace(content.size() - 4096, 4096, std::string(4096, '\xff'));
  WriteFile(kDatabase, content);
  Manager::Instance();
  EXPECT_EQ(ReadFile(kDamaged), content);
  EXPECT_EQ(LogRecorder::Count(kNotOpen), 1);
}

}  // namespace
}  // namespace zav::test
