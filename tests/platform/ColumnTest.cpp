#include "klay/database/Column.h"

#include <gmock/gmock.h>

#include "klay/Exception.h"
#include "klay/database/Statement.h"
#include "platform/OpenFlags.h"
#include "support/Surroundings.h"

namespace zav::test {
namespace {

using klay::database::Connection;
using klay::database::Statement;

class AColumn : public testing::Test {
 protected:
  /// The text of the one value that an expression gives.
  std::string TextOf(const std::string& expression) {
    Statement select(connection, "SELECT " + expression);
    EXPECT_TRUE(select.step());
    return select.getColumn(0).getText();
  }

  ScratchDirectory scratch;
  Connection connection{scratch + "/file.db", kReadWriteCreate, true};
};

TEST_F(AColumn, ReadsText) {
  EXPECT_EQ(TextOf("'text'"), "text");
  EXPECT_EQ(TextOf("''"), "");
}

TEST_F(AColumn, OfNullReadsAsTheEmptyString) {
  EXPECT_EQ(TextOf("NULL"), "");
}

TEST_F(AColumn, ReadsWholeTextWithZerosInsideIt) {
  const std::string text("a\0b\0", 4);
  EXPECT_EQ(TextOf("CAST(x'61006200' AS TEXT)"), text);
  EXPECT_EQ(TextOf("x'61006200'"), text);
}

TEST_F(AColumn, ReadsANumberAsItsText) {
  EXPECT_EQ(TextOf("-5"), "-5");
  EXPECT_EQ(TextOf("1.5"), "1.5");
}

TEST_F(AColumn, ThatIsNotThereThrows) {
  Statement select(connection, "SELECT 'only'");
  ASSERT_TRUE(select.step());
  EXPECT_THROW(select.getColumn(1).getText(), klay::Exception);
  EXPECT_THROW(select.getColumn(-1).getText(), klay::Exception);
  EXPECT_EQ(select.getColumn(0).getText(), "only");
}

TEST_F(AColumn, IsCountedFromZero) {
  Statement select(connection, "SELECT 'first', 'second'");
  ASSERT_TRUE(select.step());
  EXPECT_EQ(select.getColumn(0).getText(), "first");
  EXPECT_EQ(select.getColumn(1).getText(), "second");
}

}  // namespace
}  // namespace zav::test
