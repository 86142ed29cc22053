#include "common/Log.h"

#include <gmock/gmock.h>

#include <climits>
#include <new>

#include "support/LogRecorder.h"
#include "support/Surroundings.h"

/// A piece whose making disturbs errno, and one that finds no memory.
namespace pieces {

struct Disturbing {};
void AppendPiece(std::string& message, const Disturbing&) {
  errno = EIO;
  message += "disturbed";
}

struct Exhausted {};
void AppendPiece(std::string&, const Exhausted&) {
  throw std::bad_alloc();
}

}  // namespace pieces

namespace zav::test {
namespace {

using testing::ElementsAre;

const char* const kUnit = "LogTest.cpp";

std::string OnlyMessage() {
  const auto lines = LogRecorder::Lines();
  return lines.size() == 1 ? lines[0].message : "(" + std::to_string(lines.size()) + " lines)";
}

TEST(ALogLine, GoesToTheSystemBufferWithThePlugInsTagAndFormat) {
  LOG_INFO("text");
  const auto lines = LogRecorder::Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].buffer, 2);
  EXPECT_EQ(lines[0].tag, "ZAV_PYX_PLUGIN");
  EXPECT_EQ(lines[0].format, "%s: %s(%d) > %s");
  EXPECT_EQ(lines[0].message, "text");
}

TEST(ALogLine, NamesTheBaseNameOfItsUnitWithTheExtensionItsFunctionAndItsLine) {
  const int line = __LINE__ + 1;
  LOG_DEBUG("text");
  const auto lines = LogRecorder::Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].unit, kUnit);
  EXPECT_EQ(lines[0].function, "TestBody");
  EXPECT_EQ(lines[0].line, line);
}

TEST(ALogLine, CanNameTheFunctionThatItIsAPartOf) {
  common::LogLine(common::Priority::kError, LOG_SITE_OF("GetPolicy"), "text");
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(PluginLine(kError, kUnit, "GetPolicy", "text")));
}

TEST(ALogLine, HasThePriorityOfItsKind) {
  LOG_DEBUG("progress");
  LOG_INFO("event");
  LOG_WARNING("handled");
  LOG_ERROR("failed");
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(PluginLine(3, kUnit, "TestBody", "progress"), PluginLine(4, kUnit, "TestBody", "event"),
                          PluginLine(5, kUnit, "TestBody", "handled"), PluginLine(6, kUnit, "TestBody", "failed")));
}

TEST(ALogLine, IsItsPiecesOneAfterTheOther) {
  const std::string name = "Storage";
  LOG_ERROR("Failed to write [", name, "], ", std::string_view("reason"), 5);
  EXPECT_EQ(OnlyMessage(), "Failed to write [Storage], reason5");
}

TEST(ALogLine, KeepsThePercentSignsOfItsMessage) {
  LOG_DEBUG("100 %s %n %%");
  EXPECT_EQ(OnlyMessage(), "100 %s %n %%");
}

TEST(ALogLine, HasRoomForAMessageOfAnyLength) {
  const std::string text(200'000, 'x');
  LOG_DEBUG(text);
  EXPECT_EQ(OnlyMessage(), text);
}

TEST(ALogLine, WritesIntegersOfEveryWidthInDecimal) {
  LOG_DEBUG(INT_MIN, " ", UINT_MAX, " ", LLONG_MIN, " ", ULLONG_MAX, " ", 0, " ", static_cast<short>(-7));
  EXPECT_EQ(OnlyMessage(), "-2147483648 4294967295 -9223372036854775808 18446744073709551615 0 -7");
}

TEST(ALogLine, WritesPlainNumbersUnderALocaleThatGroupsDigits) {
  const GroupingLocale locale;
  LOG_DEBUG(1234567, " ", -1234567890123456789LL, " ", 4000000000U);
  EXPECT_EQ(OnlyMessage(), "1234567 -1234567890123456789 4000000000");
}

TEST(ALogLine, WritesAPointerInHexadecimal) {
  LOG_DEBUG(reinterpret_cast<const void*>(0xabc123));
  EXPECT_EQ(OnlyMessage(), "0xabc123");
}

TEST(ALogLine, LeavesErrnoAsItWas) {
  errno = ENOENT;
  LOG_DEBUG(pieces::Disturbing{});
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(OnlyMessage(), "disturbed");
}

TEST(ALogLine, ThatFindsNoMemorySaysSoAndDoesNotThrow) {
  EXPECT_NO_THROW(LOG_WARNING("begun ", pieces::Exhausted{}));
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(PluginLine(kWarning, kUnit, "TestBody", "(no memory for the message)")));
}

}  // namespace
}  // namespace zav::test
