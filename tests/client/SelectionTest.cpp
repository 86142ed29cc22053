#include "Selection.h"

#include <gmock/gmock.h>

#include "GrowingLog.h"
#include "Process.h"
#include "Text.h"

namespace zav::client::test {
namespace {

using pyxctl::Pattern;
using pyxctl::Shortened;

TEST(APattern, IgnoresCaseUnlessItHasACapital) {
  EXPECT_TRUE(Pattern("evil").IsIn("http://EVIL.example/"));
  EXPECT_TRUE(Pattern("Evil").IsIn("http://Evil.example/"));
  EXPECT_FALSE(Pattern("Evil").IsIn("http://evil.example/"));
}

TEST(APattern, IsAnExtendedRegularExpression) {
  EXPECT_TRUE(Pattern("^https?://(a|b)\\.example/$").IsIn("http://b.example/"));
  EXPECT_FALSE(Pattern("^https?://(a|b)\\.example/$").IsIn("http://c.example/"));
}

TEST(APattern, LooksBehindAZeroByte) {
  EXPECT_TRUE(Pattern("after").IsIn(std::string("before\0after", 12)));
  EXPECT_FALSE(Pattern("after").IsIn(std::string("before\0", 7)));
}

TEST(APattern, OfNothingIsEverywhere) {
  EXPECT_TRUE(Pattern("").IsIn(""));
  EXPECT_TRUE(Pattern("").IsIn("text"));
}

TEST(APattern, IsRefusedInWords) {
  for (const char* const wrong : {"(", "[a", "*(", "a{2,1}"}) {
    EXPECT_THROW(Pattern{wrong}, std::invalid_argument) << wrong;
  }
  EXPECT_THROW(Pattern(std::string("a\0b", 3)), std::invalid_argument);
}

TEST(AShortenedText, FitsIntoItsColumns) {
  EXPECT_EQ(Shortened("abcdef", 6), "abcdef");
  EXPECT_EQ(Shortened("abcdefg", 6), "abc...");
  EXPECT_EQ(Shortened("abcdefg", 3), "...");
  EXPECT_EQ(Shortened("abcdefg", 2), "..");
  EXPECT_EQ(Shortened("abcdefg", 0), "");
}

class ASelection : public testing::Test {
 protected:
  ASelection() {
    log.Add("http://a.example/1", 10, "phishing");
    log.Add("http://b.example/2", 20, "malware");
    log.Add("http://a.example/3", 30, "malware");
    log.Add("http://c.example/4", 40, "Spyware");
  }

  /// The ends of the urls that a verb gives.
  std::string Given(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--socket", log.path(), "-o", "csv"});
    const Outcome outcome = RunPyxctl(arguments);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    std::string ends;
    for (std::size_t at = 0; (at = outcome.out.find('\n', at + 1)) != std::string::npos;) ends += outcome.out[at - 1];
    // The columns' names end with an l.
    return ends.substr(1);
  }

  GrowingLog log;
};

TEST_F(ASelection, IsCounted) {
  const auto count = [this](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"count", "--socket", log.path()});
    const Outcome outcome = RunPyxctl(arguments);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    return outcome.out;
  };
  EXPECT_EQ(count({}), "4 records\n");
  EXPECT_EQ(count({"--since", "@20", "--until", "@30"}), "2 records\n");
  EXPECT_EQ(count({"--threat", "malware"}), "2 records\n");
  EXPECT_EQ(count({"--grep", "ware$", "--since", "@25"}), "2 records\n");
  EXPECT_EQ(count({"--grep", "b.example", "-o", "csv"}), "schema_version,count\n1,1\n");
}

TEST_F(ASelection, IsByTheThreat) {
  EXPECT_EQ(Given({"log", "--threat", "malware"}), "23");
  EXPECT_EQ(Given({"log", "--threat", "malware", "--threat", "phishing"}), "123");
  EXPECT_EQ(Given({"log", "--threat", "mal"}), "");
}

TEST_F(ASelection, IsByAPattern) {
  EXPECT_EQ(Given({"log", "--grep", "a\\.example"}), "13");
  EXPECT_EQ(Given({"log", "--grep", "ware$"}), "234");
  EXPECT_EQ(Given({"log", "--grep", "spy"}), "4");
  EXPECT_EQ(Given({"log", "--grep", "A"}), "");
}

TEST_F(ASelection, IsByBothAndTheTime) {
  EXPECT_EQ(Given({"log", "--grep", "example", "--threat", "malware", "--since", "@21"}), "3");
  EXPECT_EQ(Given({"export", "--threat", "malware", "--until", "@20"}), "2");
}

TEST_F(ASelection, GivesTheNewestOfWhatMatches) {
  EXPECT_EQ(Given({"log", "-n", "1", "--threat", "malware"}), "3");
  EXPECT_EQ(Given({"log", "-n", "2"}), "34");
  EXPECT_EQ(Given({"log", "-n", "2", "--reverse"}), "43");
  EXPECT_EQ(Given({"log", "--lines", "9"}), "1234");
}

TEST_F(ASelection, CountsInTop) {
  const Outcome outcome = RunPyxctl({"top", "--grep", "ware", "-n", "1", "-o", "json", "--socket", log.path()});
  EXPECT_EQ(outcome.out, R"({"hosts":[{"count":1,"name":"a.example"}],"records":3,"schema_version":1,)"
                         R"("threats":[{"count":2,"name":"malware"}]})"
                         "\n");
}

}  // namespace
}  // namespace zav::client::test
