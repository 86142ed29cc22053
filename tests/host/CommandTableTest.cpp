#include "CommandTable.h"

#include <gmock/gmock.h>

#include <stdexcept>

namespace host {
namespace {

using testing::_;
using testing::HasSubstr;
using testing::Optional;
using testing::Return;
using testing::StartsWith;
using testing::Throw;

class FakeProvider : public AbstractDPluginProvider {
 public:
  MOCK_METHOD(int, setStatus, (int status), (override));
  MOCK_METHOD(int, getStatus, (), (override));
  MOCK_METHOD(void, applyStatus, (int status), (override));
  MOCK_METHOD(std::string, executeCommand, (const std::string& command, const std::string& data), (override));
};

class FakeSource : public ProviderSource {
 public:
  AbstractDPluginProvider& Provider() override { return provider; }
  MOCK_METHOD(void, Reload, (), (override));

  testing::StrictMock<FakeProvider> provider;
};

class ACommandTable : public testing::Test {
 protected:
  std::optional<std::string> Reply(const std::string& toExec) {
    EXPECT_CALL(source.provider, executeCommand(_, _)).WillOnce(Return(toExec));
    return table.Run("exec Any");
  }

  testing::StrictMock<FakeSource> source;
  CommandTable table{source};
};

TEST_F(ACommandTable, AnswersSetWithTheProvidersResult) {
  EXPECT_CALL(source.provider, setStatus(1)).WillOnce(Return(0));
  EXPECT_CALL(source.provider, setStatus(-7)).WillOnce(Return(-1));
  EXPECT_THAT(table.Run("set 1"), Optional(std::string("0")));
  EXPECT_THAT(table.Run("set -7"), Optional(std::string("-1")));
}

TEST_F(ACommandTable, AnswersGetWithTheStatus) {
  EXPECT_CALL(source.provider, getStatus()).WillOnce(Return(1));
  EXPECT_THAT(table.Run("get"), Optional(std::string("1")));
}

TEST_F(ACommandTable, AppliesAStatus) {
  EXPECT_CALL(source.provider, applyStatus(5));
  EXPECT_THAT(table.Run("apply 5"), Optional(std::string("ok")));
}

TEST_F(ACommandTable, PassesACommandAndItsPayloadOnAsTheyStand) {
  EXPECT_CALL(source.provider, executeCommand("UpdateConfig", R"({"a":  "b c"})")).WillOnce(Return("{}\n"));
  EXPECT_THAT(table.Run("exec UpdateConfig   {\"a\":  \"b c\"}"), Optional(std::string("{}")));
}

TEST_F(ACommandTable, PassesACommandWithoutPayloadOnWithAnEmptyOne) {
  EXPECT_CALL(source.provider, executeCommand("GetStatus", "")).WillOnce(Return("fail"));
  EXPECT_THAT(table.Run("exec GetStatus"), Optional(std::string("fail")));
}

TEST_F(ACommandTable, TakesOneNewlineOffTheEndOfAReply) {
  EXPECT_THAT(Reply("text\n"), Optional(std::string("text")));
  EXPECT_THAT(Reply("text\n\n"), Optional(std::string("text\\n")));
}

TEST_F(ACommandTable, WritesControlCharactersOfAReplyAsText) {
  EXPECT_THAT(Reply("a\nb\r\tc\x1b[m\x7f"), Optional(std::string("a\\nb\\r\\tc\\x1b[m\\x7f")));
  EXPECT_THAT(Reply(std::string("a\0b", 3)), Optional(std::string("a\\x00b")));
}

TEST_F(ACommandTable, LeavesWhatIsNoControlCharacterOfAReplyAlone) {
  EXPECT_THAT(Reply("{\"url\":\"\\u00e4\\n\xc3\xa4\"}"), Optional(std::string("{\"url\":\"\\u00e4\\n\xc3\xa4\"}")));
}

TEST_F(ACommandTable, AnswersAnEmptyReplyWithAnEmptyLine) {
  EXPECT_THAT(Reply(""), Optional(std::string()));
}

TEST_F(ACommandTable, IgnoresBlanksAroundTheWords) {
  EXPECT_CALL(source.provider, setStatus(1)).WillOnce(Return(0));
  EXPECT_THAT(table.Run(" \tset  1 \r"), Optional(std::string("0")));
}

TEST_F(ACommandTable, AnswersNothingToABlankLine) {
  EXPECT_EQ(table.Run(""), std::nullopt);
  EXPECT_EQ(table.Run(" \t\r"), std::nullopt);
}

TEST_F(ACommandTable, RefusesAnUnknownCommand) {
  EXPECT_THAT(table.Run("Set 1"), Optional(StartsWith("error: unknown command [Set]")));
  EXPECT_THAT(table.Run("bad\x07word"), Optional(HasSubstr("[bad\\x07word]")));
}

struct WrongLine {
  const char* name;
  const char* line;
  const char* usage;
};

void PrintTo(const WrongLine& line, std::ostream* stream) {
  *stream << line.name;
}

class AWrongLine : public ACommandTable, public testing::WithParamInterface<WrongLine> {};

TEST_P(AWrongLine, IsAnsweredWithTheUsageAndCallsNothing) {
  EXPECT_THAT(table.Run(GetParam().line), Optional(std::string("error: usage: ") + GetParam().usage));
  EXPECT_FALSE(table.ended());
}

constexpr WrongLine kWrongLines[] = {
    {"SetWithoutNumber", "set", "set N"},
    {"SetOfAWord", "set one", "set N"},
    {"SetOfANumberWithMoreBehind", "set 1x", "set N"},
    {"SetOfTwoNumbers", "set 1 2", "set N"},
    {"SetOfTooLargeANumber", "set 2147483648", "set N"},
    {"ApplyWithoutNumber", "apply", "apply N"},
    {"GetWithArgument", "get 1", "get"},
    {"ExecWithoutCommand", "exec", "exec COMMAND [JSON]"},
    {"ReloadWithArgument", "reload now", "reload"},
    {"HelpWithArgument", "help me", "help"},
    {"QuitWithArgument", "quit now", "quit"},
};

INSTANTIATE_TEST_SUITE_P(Arguments, AWrongLine, testing::ValuesIn(kWrongLines),
                         [](const auto& line) { return line.param.name; });

TEST_F(ACommandTable, AnswersAnExceptionOfThePluginWithAnError) {
  EXPECT_CALL(source.provider, executeCommand(_, _)).WillOnce(Throw(std::runtime_error("two\nlines")));
  EXPECT_THAT(table.Run("exec Any"), Optional(std::string("error: two\\nlines")));
  EXPECT_CALL(source.provider, getStatus()).WillOnce(Throw(1));
  EXPECT_THAT(table.Run("get"), Optional(std::string("error: unknown reason")));
}

TEST_F(ACommandTable, ReloadsThePlugin) {
  EXPECT_CALL(source, Reload()).WillOnce(Return()).WillOnce(Throw(std::runtime_error("gone")));
  EXPECT_THAT(table.Run("reload"), Optional(std::string("ok")));
  EXPECT_THAT(table.Run("reload"), Optional(std::string("error: gone")));
}

TEST_F(ACommandTable, ListsEveryCommandOnOneLine) {
  const std::string help = table.Run("help").value();
  for (const std::string& word : CommandTable::Words()) EXPECT_THAT(help, HasSubstr(word));
  EXPECT_EQ(CommandTable::Words().size(), 7U);
  EXPECT_THAT(help, testing::Not(HasSubstr("\n")));
}

TEST_F(ACommandTable, EndsWithQuit) {
  EXPECT_FALSE(table.ended());
  EXPECT_THAT(table.Run("quit"), Optional(std::string("ok")));
  EXPECT_TRUE(table.ended());
}

TEST_F(ACommandTable, RefusesALineThatIsTooLong) {
  const std::string most = "exec Any " + std::string(CommandTable::kMaxLine - 9, 'x');
  EXPECT_CALL(source.provider, executeCommand("Any", most.substr(9))).WillOnce(Return("fine"));
  EXPECT_THAT(table.Run(most), Optional(std::string("fine")));
  EXPECT_THAT(table.Run(most + "x"), Optional(StartsWith("error: the line is longer than 1048576 bytes")));
}

}  // namespace
}  // namespace host
