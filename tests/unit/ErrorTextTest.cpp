#include "common/ErrorText.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <climits>

namespace zav::test {
namespace {

using common::errorToString;

TEST(AnErrorText, IsTheSystemsTextForTheNumber) {
  EXPECT_EQ(errorToString(ENOENT), "No such file or directory");
  EXPECT_EQ(errorToString(EACCES), "Permission denied");
  EXPECT_EQ(errorToString(0), "Success");
}

TEST(AnErrorText, OfAnUnknownNumberIsTheSystemsTextForUnknownOnes) {
  EXPECT_EQ(errorToString(99999), "Unknown error 99999");
  EXPECT_EQ(errorToString(-1), "Unknown error -1");
  EXPECT_EQ(errorToString(INT_MIN), "Unknown error -2147483648");
}

TEST(AnErrorText, LeavesErrnoAsItWas) {
  errno = EPIPE;
  errorToString(99999);
  EXPECT_EQ(errno, EPIPE);
}

}  // namespace
}  // namespace zav::test
