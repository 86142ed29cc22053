#include "klay/database/Connection.h"

#include <gmock/gmock.h>
#include <klay/Exception.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <filesystem>
#include <type_traits>

#include "klay/database/Statement.h"
#include "platform/OpenFlags.h"
#include "support/Device.h"
#include "support/Surroundings.h"
#include "support/ThisProcess.h"

namespace zav::test {
namespace {

namespace fs = std::filesystem;
using klay::database::Connection;
using klay::database::Statement;
using testing::AnyOf;

constexpr bool kCheck = true;
constexpr bool kNoCheck = false;
const std::string kGarbage(8192, 'x');

class AConnection : public testing::Test {
 protected:
  /// What opening throws; empty when it succeeds.
  std::string Failure(int flags = kReadWriteCreate, bool check = kCheck) const {
    try {
      const Connection connection(file, flags, check);
    } catch (const klay::Exception& exception) {
      return exception.what();
    }
    return "";
  }

  static std::string Pragma(const Connection& connection, const std::string& name) {
    Statement pragma(connection, "PRAGMA " + name);
    EXPECT_TRUE(pragma.step());
    return pragma.getColumn(0).getText();
  }

  static void Run(const Connection& connection, const std::string& sql) { Statement(connection, sql).exec(); }

  /// A database of many pages, the last of which is then overwritten: nothing that opens it reads that one.
  void MakeDamaged() const {
    Sql("CREATE TABLE t (v TEXT)", file);
    Sql("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100) "
        "INSERT INTO t SELECT hex(zeroblob(300)) FROM n",
        file);
    std::string content = ReadFile(file);
    ASSERT_GT(content.size(), 20'000u);
    content.replace(content.size() - 4096, 4096, std::string(4096, '\xff'));
    WriteFile(file, content);
  }

  /// A database in the middle of a transaction, and the journal that takes it back to a table with the text "old".
  void MakeCutOff() const {
    const std::string original = scratch + "/original.db";
    Sql("CREATE TABLE t (v TEXT)", original);
    Sql("INSERT INTO t VALUES ('old')", original);
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(original.c_str(), &other), SQLITE_OK);
    // Without syncs the journal is complete at every moment; with a cache of one page the change reaches the file.
    EXPECT_EQ(sqlite3_exec(other,
                           "PRAGMA synchronous = OFF; PRAGMA cache_size = 1; BEGIN; UPDATE t SET v = 'new';"
                           "INSERT INTO t SELECT hex(zeroblob(30000));",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    fs::copy_file(original, file);
    fs::copy_file(original + "-journal", journal);
    sqlite3_close(other);
  }

  ScratchDirectory scratch;
  const std::string file = scratch + "/file.db";
  const std::string journal = file + "-journal";
  const std::string damaged = file + ".damaged";
};

class ADamagedFile : public AConnection {};
class ADurableConnection : public AConnection {};

// ---- opening and closing

TEST_F(AConnection, MakesTheFileWhereItMay) {
  EXPECT_EQ(Failure(kReadWriteCreate), "");
  EXPECT_TRUE(FileExists(file));
}

TEST_F(AConnection, ThatMayNotMakeTheFileThrowsWithoutOne) {
  EXPECT_EQ(Failure(kReadWrite), "unable to open database file");
  EXPECT_FALSE(FileExists(file));
}

TEST_F(AConnection, OpensWhatIsThere) {
  Sql("CREATE TABLE t (v TEXT)", file);
  Sql("INSERT INTO t VALUES ('text')", file);
  const Connection connection(file, kReadWrite, kCheck);
  Statement select(connection, "SELECT v FROM t");
  ASSERT_TRUE(select.step());
  EXPECT_EQ(select.getColumn(0).getText(), "text");
}

TEST_F(AConnection, ClosesTheFileAtItsEnd) {
  const auto before = Descriptors();
  {
    const Connection connection(file, kReadWriteCreate, kCheck);
    Run(connection, "CREATE TABLE t (v TEXT)");
    EXPECT_NE(Descriptors(), before);
  }
  EXPECT_EQ(Descriptors(), before);
}

TEST_F(AConnection, WhoseConstructorThrowsClosesWhatItOpened) {
  const auto before = Descriptors();
  EXPECT_NE(Failure(kReadWrite), "");
  WriteFile(file, kGarbage);
  EXPECT_NE(Failure(kReadWriteCreate, kNoCheck), "");
  EXPECT_NE(Failure(kReadWriteCreate, kCheck), "");
  MakeDamaged();
  EXPECT_NE(Failure(kReadWriteCreate, kCheck), "");
  EXPECT_EQ(Descriptors(), before);
}

TEST_F(AConnection, DoesNotPassItsFileOnToChildren) {
  const auto before = Descriptors();
  const Connection connection(file, kReadWriteCreate, kCheck);
  for (const int descriptor : Descriptors()) {
    if (before.contains(descriptor)) continue;
    EXPECT_TRUE(IsCloseOnExec(descriptor)) << descriptor;
  }
}

TEST_F(AConnection, CannotBeCopied) {
  EXPECT_FALSE(std::is_copy_constructible_v<Connection>);
  EXPECT_FALSE(std::is_copy_assignable_v<Connection>);
}

// ---- settings

TEST_F(ADurableConnection, EndsItsJournalInAWayThatSurvivesAPowerLoss) {
  const Connection connection(file, kReadWriteCreate, kCheck);
  EXPECT_THAT(Pragma(connection, "journal_mode"), AnyOf("truncate", "persist"));
}

TEST_F(ADurableConnection, SyncsEveryTransaction) {
  const Connection connection(file, kReadWriteCreate, kCheck);
  // FULL or EXTRA.
  EXPECT_THAT(Pragma(connection, "synchronous"), AnyOf("2", "3"));
}

TEST_F(ADurableConnection, HasTheSameSettingsWithoutTheCheck) {
  const Connection connection(file, kReadWriteCreate, kNoCheck);
  EXPECT_THAT(Pragma(connection, "journal_mode"), AnyOf("truncate", "persist"));
  EXPECT_THAT(Pragma(connection, "synchronous"), AnyOf("2", "3"));
}

TEST_F(ADurableConnection, LeavesNoJournalThatWouldUndoAFinishedTransaction) {
  const Connection connection(file, kReadWriteCreate, kCheck);
  Run(connection, "CREATE TABLE t (v TEXT)");
  Run(connection, "INSERT INTO t VALUES ('first')");
  Run(connection, "UPDATE t SET v = 'second'");
  // What a power loss would leave.
  const std::string copy = scratch + "/copy.db";
  fs::copy_file(file, copy);
  if (FileExists(journal)) fs::copy_file(journal, copy + "-journal");
  EXPECT_EQ(Sql("SELECT v FROM t", copy), "second");
}

TEST_F(ADurableConnection, HasTheWholeDatabaseInItsOneFile) {
  const Connection connection(file, kReadWriteCreate, kCheck);
  Run(connection, "CREATE TABLE t (v TEXT)");
  Run(connection, "INSERT INTO t VALUES ('text')");
  EXPECT_FALSE(FileExists(file + "-wal"));
  fs::copy_file(file, scratch + "/copy.db");
  EXPECT_EQ(Sql("SELECT v FROM t", scratch + "/copy.db"), "text");
}

TEST_F(ADurableConnection, TakesAFileBackFromWriteAheadLogging) {
  Sql("PRAGMA journal_mode = WAL", file);
  Sql("CREATE TABLE t (v TEXT)", file);
  const Connection connection(file, kReadWriteCreate, kCheck);
  Run(connection, "INSERT INTO t VALUES ('text')");
  EXPECT_THAT(Pragma(connection, "journal_mode"), AnyOf("truncate", "persist"));
  EXPECT_FALSE(FileExists(file + "-wal"));
  fs::copy_file(file, scratch + "/copy.db");
  EXPECT_EQ(Sql("SELECT v FROM t", scratch + "/copy.db"), "text");
}

// ---- the check

TEST_F(ADamagedFile, ThatIsNoDatabaseThrowsAndIsSetAside) {
  WriteFile(file, kGarbage);
  EXPECT_EQ(Failure(), "file is not a database");
  EXPECT_FALSE(FileExists(file));
  EXPECT_EQ(ReadFile(damaged), kGarbage);
}

TEST_F(ADamagedFile, ThatIsNoDatabaseIsFoundHoweverShort) {
  WriteFile(file, "{}");
  EXPECT_EQ(Failure(), "file is not a database");
  EXPECT_EQ(ReadFile(damaged), "{}");
}

TEST_F(ADamagedFile, WithADamagedPageDoesNotPassTheCheckAndIsSetAside) {
  MakeDamaged();
  const std::string content = ReadFile(file);
  EXPECT_NE(Failure(), "");
  EXPECT_FALSE(FileExists(file));
  EXPECT_EQ(ReadFile(damaged), content);
}

TEST_F(ADamagedFile, ThatIsCutOffDoesNotPassTheCheckAndIsSetAside) {
  Sql("CREATE TABLE t (v TEXT)", file);
  Sql("INSERT INTO t SELECT hex(zeroblob(30000))", file);
  fs::resize_file(file, 8192);
  EXPECT_NE(Failure(), "");
  EXPECT_EQ(fs::file_size(damaged), 8192u);
}

TEST_F(ADamagedFile, ThatEndsWithinAPageDoesNotPassTheCheckAndIsSetAside) {
  // The last page holds the end of this text.
  Sql("CREATE TABLE t (v TEXT)", file);
  Sql("INSERT INTO t VALUES ('" + std::string(7000, 'x') + "')", file);
  for (const size_t missing : {1U, 511U, 3000U}) {
    const std::string cut = ReadFile(file);
    WriteFile(file, cut.substr(0, cut.size() - missing));
    EXPECT_EQ(Failure(), "the file ends within a page") << missing;
    EXPECT_FALSE(FileExists(file));
    WriteFile(file, cut);
  }
  EXPECT_EQ(Failure(), "");
}

TEST_F(ADamagedFile, ThatGoesOnBehindItsLastPageDoesNotPassTheCheckAndIsSetAside) {
  Sql("CREATE TABLE t (v TEXT)", file);
  const auto whole = fs::file_size(file);
  fs::resize_file(file, whole + 4096);
  EXPECT_EQ(Failure(), "the file goes on behind its last page");
  EXPECT_EQ(fs::file_size(damaged), whole + 4096);
}

// The journal tells how long the file was before: the flip of a bit there makes it as long as the disk has no room for.
TEST_F(ADamagedFile, IsOneThatADamagedJournalMadeFarTooLong) {
  MakeCutOff();
  std::string log = ReadFile(journal);
  constexpr size_t kPagesBefore = 16;
  log[kPagesBefore] = static_cast<char>(log[kPagesBefore] ^ 1);
  WriteFile(journal, log);
  EXPECT_EQ(Failure(), "the file goes on behind its last page");
  EXPECT_GT(fs::file_size(damaged), 1ULL << 32);
}

TEST_F(ADamagedFile, WhoseHeaderForbidsEveryWriteDoesNotPassTheCheckAndIsSetAside) {
  Sql("CREATE TABLE t (v TEXT)", file);
  std::string content = ReadFile(file);
  for (const char version : {'\x03', 'A', '\xff'}) {
    content[18] = version;
    WriteFile(file, content);
    EXPECT_EQ(Failure(), "the file is of a format that cannot be written");
    EXPECT_FALSE(FileExists(file));
  }
}

TEST_F(ADamagedFile, WhoseIndexNamesAnotherKeyDoesNotPassTheCheck) {
  Sql("CREATE TABLE t (k TEXT PRIMARY KEY)", file);
  Sql("INSERT INTO t VALUES ('original key')", file);
  std::string content = ReadFile(file);
  // The last page is the index's.
  content.replace(content.rfind("original key"), 8, "changed ");
  WriteFile(file, content);
  EXPECT_THAT(Failure(), testing::HasSubstr("missing from index"));
}

TEST_F(ADamagedFile, WhoseSchemaIsOfNoKnownFormatDoesNotPassTheCheck) {
  Sql("CREATE TABLE t (v TEXT)", file);
  std::string content = ReadFile(file);
  constexpr size_t kSchemaFormat = 47;
  content[kSchemaFormat] = '\x40';
  WriteFile(file, content);
  EXPECT_EQ(Failure(), "unsupported file format");
  EXPECT_FALSE(FileExists(file));
}

TEST_F(ADamagedFile, IsNotLookedAtWithoutTheCheck) {
  MakeDamaged();
  EXPECT_EQ(Failure(kReadWriteCreate, kNoCheck), "");
  EXPECT_TRUE(FileExists(file));
  EXPECT_FALSE(FileExists(damaged));
}

TEST_F(ADamagedFile, WithoutAJournalIsSetAsideWithoutAnEarlierOnes) {
  WriteFile(damaged + "-journal", "another file's");
  WriteFile(file, kGarbage);
  EXPECT_EQ(Failure(), "file is not a database");
  EXPECT_FALSE(FileExists(damaged + "-journal"));
}

TEST_F(ADamagedFile, ThatCannotBeSetAsideIsRemoved) {
  fs::create_directory(damaged);
  WriteFile(file, kGarbage);
  EXPECT_EQ(Failure(), "file is not a database");
  EXPECT_FALSE(FileExists(file));
  EXPECT_EQ(Failure(), "");
}

TEST_F(ADamagedFile, TakesThePlaceOfAnEarlierOne) {
  WriteFile(damaged, "earlier");
  WriteFile(file, kGarbage);
  EXPECT_NE(Failure(), "");
  EXPECT_EQ(ReadFile(damaged), kGarbage);
}

TEST_F(ADamagedFile, StartsCleanAtTheNextOpening) {
  WriteFile(file, kGarbage);
  EXPECT_NE(Failure(), "");
  const Connection connection(file, kReadWriteCreate, kCheck);
  Run(connection, "CREATE TABLE t (v TEXT)");
  EXPECT_EQ(Sql("SELECT count(*) FROM sqlite_master", file), "1");
  EXPECT_EQ(ReadFile(damaged), kGarbage);
}

TEST_F(ADamagedFile, LeavesNoJournalForTheFileThatComesNext) {
  {
    const Connection connection(file, kReadWriteCreate, kCheck);
    Run(connection, "CREATE TABLE t (v TEXT)");
  }
  // One that is not in use, as it stays beside a file whose transactions have all ended.
  WriteFile(journal, std::string(4096, '\0'));
  WriteFile(file, kGarbage);
  EXPECT_NE(Failure(), "");
  EXPECT_FALSE(FileExists(journal));
}

TEST_F(AConnection, ToAnEmptyFileIsToAnEmptyDatabase) {
  WriteFile(file, "");
  EXPECT_EQ(Failure(), "");
  EXPECT_TRUE(FileExists(file));
  EXPECT_FALSE(FileExists(damaged));
}

TEST_F(AConnection, ToWhatCannotBeOpenedThrowsAndLeavesItWhereItIs) {
  fs::create_directory(file);
  EXPECT_EQ(Failure(), "unable to open database file");
  EXPECT_TRUE(fs::is_directory(file));
  EXPECT_FALSE(FileExists(damaged));
}

TEST_F(AConnection, ToAFileWhoseJournalCannotBeReadThrowsAndLeavesItWhereItIs) {
  Sql("CREATE TABLE t (v TEXT)", file);
  fs::create_directory(journal);
  EXPECT_NE(Failure(), "");
  EXPECT_TRUE(FileExists(file));
  EXPECT_FALSE(FileExists(damaged));
  fs::remove(journal);
  EXPECT_EQ(Failure(), "");
}

TEST_F(AConnection, ToWhatCannotBeReadThrowsAndLeavesItWhereItIs) {
  ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
  EXPECT_EQ(Failure(), "disk I/O error");
  EXPECT_TRUE(fs::is_fifo(file));
  EXPECT_FALSE(FileExists(damaged));
}

// Takes the 5 s for which a connection waits for another one's transaction.
TEST_F(AConnection, ToAFileThatAnotherHoldsLockedThrowsAndLeavesItWhereItIs) {
  Sql("CREATE TABLE t (v TEXT)", file);
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(file.c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
  EXPECT_EQ(Failure(), "database is locked");
  sqlite3_close(other);
  EXPECT_FALSE(FileExists(damaged));
  EXPECT_EQ(Failure(), "");
}

TEST_F(AConnection, FinishesTheRollbackOfATransactionThatWasCutOff) {
  MakeCutOff();
  const Connection connection(file, kReadWriteCreate, kCheck);
  Statement select(connection, "SELECT group_concat(v) FROM t");
  ASSERT_TRUE(select.step());
  EXPECT_EQ(select.getColumn(0).getText(), "old");
}

}  // namespace
}  // namespace zav::test
