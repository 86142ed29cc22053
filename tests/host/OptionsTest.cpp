#include "Options.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <sstream>
#include <vector>

namespace host {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Optional;

class TheOptions : public testing::Test {
 protected:
  std::optional<int> Parse(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "dpm-host");
    return Options::Parse(static_cast<int>(arguments.size()), arguments.data(), options, out, err);
  }

  Options options;
  std::ostringstream out;
  std::ostringstream err;
};

TEST_F(TheOptions, AreReadFromTheCommandLine) {
  EXPECT_EQ(
      Parse({"--library", "/lib/a.so", "--state-dir", "/state", "--log", "file", "--log-level", "debug", "--serve"}),
      std::nullopt);
  EXPECT_EQ(options.library, "/lib/a.so");
  EXPECT_EQ(options.stateDirectory, "/state");
  EXPECT_EQ(options.logFile, "file");
  EXPECT_EQ(options.logLevel, DLOG_DEBUG);
  EXPECT_TRUE(options.serve);
}

TEST_F(TheOptions, HaveDefaults) {
  EXPECT_EQ(Parse({"--library", "/lib/a.so", "--state-dir", "/state"}), std::nullopt);
  EXPECT_EQ(options.logFile, "");
  EXPECT_EQ(options.logLevel, DLOG_INFO);
  EXPECT_FALSE(options.serve);
}

TEST_F(TheOptions, TakeABareNameOfTheLibraryForAFileHere) {
  EXPECT_EQ(Parse({"--library", "a.so", "--state-dir", "state"}), std::nullopt);
  EXPECT_EQ(options.library, std::filesystem::current_path() / "a.so");
  EXPECT_EQ(options.stateDirectory, std::filesystem::current_path() / "state");
}

TEST_F(TheOptions, KnowFourLogLevels) {
  const std::pair<const char*, int> levels[] = {
      {"debug", DLOG_DEBUG}, {"info", DLOG_INFO}, {"warning", DLOG_WARN}, {"error", DLOG_ERROR}};
  for (const auto& [name, level] : levels) {
    EXPECT_EQ(Parse({"--library", "a", "--state-dir", "b", "--log-level", name}), std::nullopt);
    EXPECT_EQ(options.logLevel, level);
  }
}

TEST_F(TheOptions, ShowTheHelpOnStandardOutput) {
  EXPECT_THAT(Parse({"--help"}), Optional(0));
  for (const char* option : {"--library", "--state-dir", "--log", "--log-level", "--serve"}) {
    EXPECT_THAT(out.str(), HasSubstr(option));
  }
  EXPECT_THAT(err.str(), IsEmpty());
}

struct WrongCommandLine {
  const char* name;
  std::vector<const char*> arguments;
};

void PrintTo(const WrongCommandLine& line, std::ostream* stream) {
  *stream << line.name;
}

class AWrongCommandLine : public TheOptions, public testing::WithParamInterface<WrongCommandLine> {};

TEST_P(AWrongCommandLine, EndsWithTheUsageStatus) {
  EXPECT_THAT(Parse(GetParam().arguments), Optional(2));
  EXPECT_THAT(out.str(), IsEmpty());
  EXPECT_THAT(err.str(), Not(IsEmpty()));
}

const WrongCommandLine kWrongCommandLines[] = {
    {"Empty", {}},
    {"WithoutStateDirectory", {"--library", "a"}},
    {"WithoutLibrary", {"--state-dir", "a"}},
    {"WithoutValue", {"--library", "a", "--state-dir"}},
    {"WithAnArgument", {"--library", "a", "--state-dir", "b", "extra"}},
    {"WithAnUnknownOption", {"--library", "a", "--state-dir", "b", "--what"}},
    {"WithAnUnknownLevel", {"--library", "a", "--state-dir", "b", "--log-level", "loud"}},
};

INSTANTIATE_TEST_SUITE_P(Usage, AWrongCommandLine, testing::ValuesIn(kWrongCommandLines),
                         [](const auto& line) { return line.param.name; });

}  // namespace
}  // namespace host
