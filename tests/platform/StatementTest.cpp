#include "klay/database/Statement.h"

#include <gmock/gmock.h>
#include <klay/Exception.h>

#include <type_traits>

#include "platform/OpenFlags.h"
#include "support/Device.h"
#include "support/Surroundings.h"

namespace zav::test {
namespace {

using klay::database::Connection;
using klay::database::Statement;

class AStatement : public testing::Test {
 protected:
  AStatement() { Run("CREATE TABLE t (k TEXT, v TEXT)"); }

  int Run(const std::string& sql) { return Statement(connection, sql).exec(); }

  std::string First(const std::string& sql) {
    Statement select(connection, sql);
    return select.step() ? select.getColumn(0).getText() : "(no row)";
  }

  /// What an action throws.
  template <class Action>
  static std::string Failure(Action action) {
    try {
      action();
    } catch (const klay::Exception& exception) {
      return exception.what();
    }
    return "(nothing was thrown)";
  }

  ScratchDirectory scratch;
  const std::string file = scratch + "/file.db";
  Connection connection{file, kReadWriteCreate, true};
};

TEST_F(AStatement, ThatCannotBePreparedThrowsSqlitesText) {
  EXPECT_EQ(Failure([&] { Run("SELEC 1"); }), "near \"SELEC\": syntax error");
  EXPECT_EQ(Failure([&] { Run("INSERT INTO missing VALUES (1)"); }), "no such table: missing");
}

TEST_F(AStatement, ThatFailsWhileItRunsThrowsSqlitesText) {
  Run("CREATE UNIQUE INDEX i ON t(k)");
  Run("INSERT INTO t VALUES ('a', 'b')");
  EXPECT_EQ(Failure([&] { Run("INSERT INTO t VALUES ('a', 'c')"); }), "UNIQUE constraint failed: t.k");
}

TEST_F(AStatement, ThatFailedToBindThrowsSqlitesText) {
  Statement insert(connection, "INSERT INTO t VALUES (?, ?)");
  EXPECT_EQ(Failure([&] { insert.bind(3, "x"); }), "column index out of range");
  const std::string text = "x";
  EXPECT_EQ(Failure([&] { insert.bind(0, text); }), "column index out of range");
}

TEST_F(AStatement, BindsStringsWithTheirLengthZerosIncluded) {
  const std::string key("k\0y", 3);
  const std::string value("\0v\0", 3);
  Statement insert(connection, "INSERT INTO t VALUES (?, ?)");
  insert.bind(1, key);
  insert.bind(2, value);
  EXPECT_EQ(insert.exec(), 1);
  EXPECT_EQ(First("SELECT k FROM t"), key);
  EXPECT_EQ(First("SELECT v FROM t"), value);
  EXPECT_EQ(First("SELECT hex(k) || hex(v) FROM t"), "6B0079007600");
}

TEST_F(AStatement, BindsACopyOfATextAndAStringAsItStands) {
  Statement insert(connection, "INSERT INTO t VALUES (?, ?)");
  char text[] = "text";
  std::string string = "string";
  insert.bind(1, text);
  insert.bind(2, string);
  text[0] = 'x';
  string[0] = 'x';
  insert.exec();
  EXPECT_EQ(First("SELECT k || ', ' || v FROM t"), "text, xtring");
}

TEST_F(AStatement, BindsANullPointerAsNullAndAnEmptyStringAsText) {
  Statement insert(connection, "INSERT INTO t VALUES (?, ?)");
  const char* const null = nullptr;
  insert.bind(1, null);
  const std::string empty;
  insert.bind(2, empty);
  insert.exec();
  EXPECT_EQ(First("SELECT typeof(k) || ' ' || typeof(v) FROM t"), "null text");
}

TEST_F(AStatement, DoesNotTakeABoundTextForSql) {
  Statement insert(connection, "INSERT INTO t VALUES (?, 'v')");
  insert.bind(1, "'); DROP TABLE t; --");
  insert.exec();
  EXPECT_EQ(First("SELECT k FROM t"), "'); DROP TABLE t; --");
}

TEST_F(AStatement, StepsThroughItsRowsOneAfterTheOther) {
  Run("INSERT INTO t VALUES ('a', ''), ('b', '')");
  Statement select(connection, "SELECT k FROM t ORDER BY k");
  ASSERT_TRUE(select.step());
  EXPECT_EQ(select.getColumn(0).getText(), "a");
  ASSERT_TRUE(select.step());
  EXPECT_EQ(select.getColumn(0).getText(), "b");
  EXPECT_FALSE(select.step());
}

TEST_F(AStatement, ReportsHowManyRowsItChanged) {
  EXPECT_EQ(Run("INSERT INTO t VALUES ('a', ''), ('b', ''), ('c', '')"), 3);
  EXPECT_EQ(Run("UPDATE t SET v = 'x' WHERE k < 'c'"), 2);
  EXPECT_EQ(Run("DELETE FROM t WHERE k = 'missing'"), 0);
}

TEST_F(AStatement, ThatATriggerIgnoresChangedNothing) {
  Run("INSERT INTO t VALUES ('a', '')");
  Run("CREATE TRIGGER refuse BEFORE INSERT ON t BEGIN SELECT RAISE(IGNORE); END");
  EXPECT_EQ(Run("INSERT INTO t VALUES ('b', '')"), 0);
}

TEST_F(AStatement, KnowsHowManyColumnsItsRowsHave) {
  EXPECT_EQ(Statement(connection, "SELECT k FROM t").getColumnCount(), 1);
  EXPECT_EQ(Statement(connection, "SELECT k, v FROM t").getColumnCount(), 2);
  EXPECT_EQ(Statement(connection, "DELETE FROM t").getColumnCount(), 0);
}

TEST_F(AStatement, HasSqlitesTextForTheLastError) {
  Statement select(connection, "SELECT 1");
  EXPECT_EQ(select.getErrorMessage(), "not an error");
  EXPECT_THROW(Run("nonsense"), klay::Exception);
  EXPECT_EQ(select.getErrorMessage(), "near \"nonsense\": syntax error");
}

TEST_F(AStatement, IsCommittedWhenItReturns) {
  Run("INSERT INTO t VALUES ('a', '')");
  EXPECT_EQ(Sql("SELECT k FROM t", file), "a");
}

TEST_F(AStatement, ThatEndsHalfWayFreesTheDatabaseForOthers) {
  Run("INSERT INTO t VALUES ('a', ''), ('b', '')");
  {
    Statement select(connection, "SELECT k FROM t");
    ASSERT_TRUE(select.step());
  }
  EXPECT_NO_THROW(Sql("DROP TABLE t", file));
}

TEST_F(AStatement, CannotBeCopied) {
  EXPECT_FALSE(std::is_copy_constructible_v<Statement>);
  EXPECT_FALSE(std::is_copy_assignable_v<Statement>);
}

}  // namespace
}  // namespace zav::test
