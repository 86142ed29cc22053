#include <sys/stat.h>

#include <filesystem>

#include "FakeService.h"
#include "doctor/DeviceFiles.h"
#include "support/Device.h"
#include "support/Surroundings.h"

namespace zav::client::test {
namespace {

namespace fs = std::filesystem;
using pyxctl::doctor::ExamineBackup;
using pyxctl::doctor::ExamineDatabase;
using pyxctl::doctor::ExamineStoredPolicies;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using zav::test::ReadFile;
using zav::test::Sql;
using zav::test::WriteFile;

constexpr const char* kHotJournal = "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7";

class ADatabase : public testing::Test {
 protected:
  /// Writes other bytes over those of the database.
  void Overwrite(std::size_t at, const std::string& bytes) const {
    std::string content = ReadFile(path());
    content.replace(at, bytes.size(), bytes);
    WriteFile(path(), content);
  }
  std::string path() const { return device.paths.Database(); }
  std::string backup() const { return device.paths.Backup(); }
  void CopyToBackup() const { WriteFile(backup(), ReadFile(path())); }
  Findings Examined() const { return device.Examined(ExamineDatabase); }
  Findings ExaminedBackup() const { return device.Examined(ExamineBackup); }

  DeviceFiles device;
};

TEST_F(ADatabase, IsSoundAsThePluginMakesIt) {
  EXPECT_THAT(Examined(), IsEmpty());
  EXPECT_THAT(ExaminedBackup(), IsEmpty());
}

TEST_F(ADatabase, IsNotThereYet) {
  fs::remove(path());
  fs::remove(backup());
  EXPECT_THAT(Examined(), ElementsAre(IsNote("yet")));
  EXPECT_THAT(ExaminedBackup(), ElementsAre(IsNote("there is none yet")));
}

TEST_F(ADatabase, IsGoneAndItsBackupWillBeOverwritten) {
  fs::remove(path());
  EXPECT_THAT(Examined(), ElementsAre(IsProblem("overwrites the backup with it")));
}

TEST_F(ADatabase, IsGoneAndComesBack) {
  fs::remove(path());
  for (const std::string& note : {device.paths.Restoring(), device.paths.Opening()}) {
    WriteFile(note, "");
    EXPECT_THAT(Examined(), ElementsAre(IsWarning("a restore was cut short")));
    fs::remove(note);
  }
}

TEST_F(ADatabase, IsGoneUnderARunningService) {
  const FakeService service{Answering(Header(4), Words({0, 301, 1})), Answering(Header(5), Words({0, 1301, 1}))};
  device.options.socket = service.path();
  fs::remove(path());
  EXPECT_THAT(Examined(), ElementsAre(IsProblem("works on a file that was removed")));
}

TEST_F(ADatabase, CannotBeRead) {
  fs::remove(path());
  fs::create_directory(path());
  EXPECT_THAT(Examined(), ElementsAre(IsProblem("cannot be read: it is no regular file")));
  fs::remove(path());
  ASSERT_EQ(::mkfifo(path().c_str(), 0600), 0);
  EXPECT_THAT(Examined(), ElementsAre(IsProblem("cannot be read: it is no regular file")));
}

TEST_F(ADatabase, IsTooLarge) {
  fs::resize_file(path(), std::uintmax_t{1} << 40U);
  EXPECT_THAT(Examined(), ElementsAre(IsProblem("it is too large to be looked at (1099511627776 bytes)")));
}

TEST_F(ADatabase, MayNotBeLookedAt) {
  fs::permissions(path(), fs::perms::none);
  fs::permissions(backup(), fs::perms::none);
  const zav::test::WithoutPrivilege ordinary;
  EXPECT_THAT(Examined(), ElementsAre(IsWarning("not examined: this user may not look at " + path())));
  EXPECT_THAT(ExaminedBackup(), ElementsAre(IsWarning("not examined: this user may not look at " + backup())));
}

TEST_F(ADatabase, IsNoDatabase) {
  WriteFile(path(), std::string(8192, 'x'));
  EXPECT_THAT(Examined(), ElementsAre(IsProblem("it is damaged: file is not a database")));
}

TEST_F(ADatabase, IsDamagedInside) {
  // The page of the rows.
  Overwrite(4096, std::string(64, '\xff'));
  const Findings findings = Examined();
  ASSERT_THAT(findings, ElementsAre(IsProblem("it is damaged: ")));
  EXPECT_THAT(findings.front().advice, HasSubstr("puts the backup in its place"));
  fs::remove(backup());
  EXPECT_THAT(Examined().front().advice, HasSubstr("there is no sound backup: the log is lost"));
}

TEST_F(ADatabase, IsDamagedAsItsBackupIs) {
  Overwrite(4096, std::string(64, '\xff'));
  WriteFile(backup(), "junk");
  EXPECT_THAT(Examined().front().advice, HasSubstr("there is no sound backup"));
}

TEST_F(ADatabase, EndsWithinAPage) {
  std::string content = ReadFile(path());
  WriteFile(path(), content + std::string(10, '\0'));
  EXPECT_THAT(Examined(), ElementsAre(IsProblem("it is damaged: the file ends within a page")));
}

TEST_F(ADatabase, IsOfAFormatThatCannotBeWritten) {
  Overwrite(18, "\x07");
  EXPECT_THAT(Examined(), ElementsAre(IsProblem("of a format that cannot be written")));
}

TEST_F(ADatabase, IsEmpty) {
  WriteFile(path(), "");
  EXPECT_THAT(Examined(), ElementsAre(IsProblem("it lacks the table PYXPlugin")));
}

TEST_F(ADatabase, LacksItsTable) {
  Sql("DROP TABLE PYXPlugin", path());
  EXPECT_THAT(Examined(), ElementsAre(IsProblem("it lacks the table PYXPlugin")));
  EXPECT_THAT(device.Examined(ExamineStoredPolicies),
              ElementsAre(IsWarning("they cannot be read: there is no table PYXPlugin")));
}

TEST_F(ADatabase, HasAnotherTableOfThatName) {
  Sql("DROP TABLE PYXPlugin", path());
  Sql("CREATE TABLE PYXPlugin (name TEXT PRIMARY KEY, value TEXT)", path());
  EXPECT_THAT(Examined(), ElementsAre(IsWarning("is not as the plug-in makes it: CREATE TABLE PYXPlugin (name TEXT")));
}

TEST_F(ADatabase, HoldsWhatIsNotThePlugins) {
  Sql("CREATE TRIGGER refuse BEFORE INSERT ON PYXPlugin BEGIN SELECT RAISE(ABORT, 'no'); END", path());
  Sql("CREATE VIEW look AS SELECT * FROM PYXPlugin", path());
  EXPECT_THAT(Examined(), ElementsAre(IsWarning("not the plug-in's: trigger refuse"), IsWarning("view look")));
}

TEST_F(ADatabase, IsReadInTheOtherJournalModeToo) {
  Sql("PRAGMA journal_mode = WAL", path());
  EXPECT_THAT(Examined(), IsEmpty());
  WriteFile(device.paths.WriteAheadLog(), "not empty");
  EXPECT_THAT(Examined(), ElementsAre(IsWarning("left a log of its writes")));
}

TEST_F(ADatabase, WasLeftInTheMiddleOfAWrite) {
  WriteFile(device.paths.Journal(), kHotJournal);
  EXPECT_THAT(Examined(), ElementsAre(IsWarning("a write was cut short")));
  EXPECT_THAT(device.Examined(ExamineStoredPolicies), ElementsAre(IsNote("they were not examined")));
}

TEST_F(ADatabase, IsWrittenAllTheTime) {
  const FakeService service{Answering(Header(4), Words({0, 301, 1})), Answering(Header(5), Words({0, 1301, 1}))};
  device.options.socket = service.path();
  WriteFile(device.paths.Journal(), kHotJournal);
  EXPECT_THAT(Examined(), ElementsAre(IsWarning("it is being written all the time")));
}

TEST_F(ADatabase, HasAJournalWithoutMeaning) {
  WriteFile(device.paths.Journal(), std::string(512, '\0') + "old pages");
  EXPECT_THAT(Examined(), IsEmpty());
  WriteFile(device.paths.Journal(), "");
  EXPECT_THAT(Examined(), IsEmpty());
}

using ABackup = ADatabase;

TEST_F(ABackup, IsMissing) {
  fs::remove(backup());
  EXPECT_THAT(ExaminedBackup(), ElementsAre(IsWarning("there is no " + backup())));
}

TEST_F(ABackup, IsDamaged) {
  WriteFile(backup(), std::string(8192, 'x'));
  EXPECT_THAT(ExaminedBackup(), ElementsAre(IsProblem("it is damaged: file is not a database")));
}

TEST_F(ADatabase, HasAViewWithoutEndInPlaceOfItsTable) {
  Sql("DROP TABLE PYXPlugin", path());
  Sql("CREATE VIEW PYXPlugin(name, value) AS WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c) "
      "SELECT x, x FROM c",
      path());
  EXPECT_THAT(Examined(), testing::Contains(IsProblem("it lacks the table")));
  EXPECT_THAT(device.Examined(ExamineStoredPolicies), ElementsAre(IsWarning("they cannot be read: ")));
}

TEST_F(ABackup, LacksWhatTheDatabaseHolds) {
  Sql("INSERT INTO PYXPlugin VALUES ('State', '{}')", path());
  EXPECT_THAT(ExaminedBackup(), ElementsAre(IsWarning("it does not hold what the database holds")));
}

TEST_F(ABackup, IsNotHeldAgainstADamagedDatabase) {
  WriteFile(path(), std::string(8192, 'x'));
  EXPECT_THAT(ExaminedBackup(), IsEmpty());
}

TEST_F(ABackup, IsLookedAtWithoutADatabase) {
  fs::remove(path());
  EXPECT_THAT(ExaminedBackup(), IsEmpty());
  WriteFile(backup(), "");
  EXPECT_THAT(ExaminedBackup(), ElementsAre(IsWarning("it is empty")));
}

TEST_F(ABackup, CannotBeRead) {
  fs::remove(backup());
  fs::create_directory(backup());
  EXPECT_THAT(ExaminedBackup(), ElementsAre(IsProblem("cannot be read: it is no regular file")));
}

}  // namespace
}  // namespace zav::client::test
