#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>

#include "GrowingLog.h"
#include "Process.h"
#include "support/WaitUntil.h"

namespace zav::client::test {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

const std::vector<std::string> kPlain = {"LC_ALL=C.UTF-8", "TZ=UTC", "TERM=xterm", "PAGER=cat", "NO_COLOR=1"};

class OnATerminal : public testing::Test {
 protected:
  std::vector<std::string> Command(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--socket", log.path(), "--timeout", "20"});
    return arguments;
  }

  GrowingLog log;
  TemporaryDirectory directory;
};

TEST_F(OnATerminal, AWordHasAColour) {
  PyxctlOnATerminal pyxctl(Command({"state"}));
  EXPECT_EQ(pyxctl.Wait(), 0);
  EXPECT_EQ(pyxctl.shown(), "The feature is \x1b[32menabled\x1b[0m.\n");
}

TEST_F(OnATerminal, NothingHasAColourWhereNoneIsWanted) {
  for (const std::vector<std::string>& environment :
       std::vector<std::vector<std::string>>{{"TERM=xterm", "NO_COLOR=1"}, {"TERM=dumb"}, {"TERM="}, {}}) {
    PyxctlOnATerminal pyxctl(Command({"state"}), environment);
    EXPECT_EQ(pyxctl.Wait(), 0);
    EXPECT_EQ(pyxctl.shown(), "The feature is enabled.\n") << testing::PrintToString(environment);
  }
}

TEST_F(OnATerminal, AnEmptyNoColorIsNoWish) {
  PyxctlOnATerminal pyxctl(Command({"state"}), {"TERM=xterm", "NO_COLOR="});
  EXPECT_EQ(pyxctl.Wait(), 0);
  EXPECT_THAT(pyxctl.shown(), HasSubstr("\x1b[32m"));
}

TEST_F(OnATerminal, ALineEndsWithIt) {
  log.Add("http://" + std::string(100, 'u') + "/", 1, "phishing");
  PyxctlOnATerminal pyxctl(Command({"log"}), kPlain);
  EXPECT_EQ(pyxctl.Wait(), 0);
  EXPECT_THAT(pyxctl.shown(), EndsWith("\n0      1970-01-01 00:00:01  phishing  http://uuuuuuuuuuuu...\n"));
}

TEST_F(OnATerminal, NoTextOfTheLogControlsIt) {
  log.Add("\x1b]0;title\x07\x1b[2J\xc2\x9b", 1, "\x1b[31m\r\b");
  for (const char* const format : {"human", "json", "ndjson", "csv"}) {
    for (const char* const verb : {"log", "top", "export"}) {
      PyxctlOnATerminal pyxctl(Command({verb, "-o", format, "--no-pager"}), kPlain);
      if (verb == std::string("top") && format == std::string("human")) {
        EXPECT_TRUE(pyxctl.HasShown("HOST"));
        EXPECT_TRUE(pyxctl.HasShown("\\x1b[31m"));
        EXPECT_THAT(pyxctl.shown(), Not(HasSubstr("\x1b[31m")));
        continue;
      }
      EXPECT_EQ(pyxctl.Wait(), 0);
      for (const char* const sequence : {"\x1b", "\x07", "\b", "\xc2\x9b", "\x9b"}) {
        EXPECT_THAT(pyxctl.shown(), Not(HasSubstr(sequence))) << verb << ' ' << format;
      }
    }
  }
}

TEST_F(OnATerminal, ALongResultGoesThroughThePager) {
  log.AddUpTo(0, 5);
  const std::string seen = directory.path() / "seen";
  PyxctlOnATerminal pyxctl(Command({"log"}), {"TERM=xterm", "NO_COLOR=1", "TZ=UTC", "PAGER=cat >" + seen});
  EXPECT_EQ(pyxctl.Wait(), 0);
  EXPECT_EQ(pyxctl.shown(), "");
  EXPECT_EQ(std::filesystem::file_size(seen), 40U + 6 * 38U);
}

TEST_F(OnATerminal, ThePagerGetsWholeLines) {
  log.Add(std::string(100, 'u'), 1);
  PyxctlOnATerminal pyxctl(Command({"log"}), {"TERM=xterm", "PATH=/usr/bin:/bin", "PAGER=sed s/^/paged:/"});
  EXPECT_EQ(pyxctl.Wait(), 0);
  EXPECT_THAT(pyxctl.shown(), HasSubstr("paged:0"));
  EXPECT_THAT(pyxctl.shown(), EndsWith(std::string(100, 'u') + "\n"));
}

TEST_F(OnATerminal, APersonMayLeaveThePagerEarly) {
  log.AddUpTo(0, 1999);
  PyxctlOnATerminal pyxctl(Command({"log"}), {"TERM=xterm", "PATH=/usr/bin:/bin", "PAGER=head -n 1"});
  EXPECT_EQ(pyxctl.Wait(), 0);
  EXPECT_THAT(pyxctl.shown(), HasSubstr("INDEX"));
  EXPECT_THAT(pyxctl.shown(), Not(HasSubstr("pyxctl:")));
}

TEST_F(OnATerminal, APagerThatDoesNotExistHidesNothing) {
  log.AddUpTo(0, 99);
  PyxctlOnATerminal pyxctl(Command({"log"}), {"TERM=xterm", "TZ=UTC", "PAGER=no-such-pager"});
  EXPECT_EQ(pyxctl.Wait(), 0);
  EXPECT_THAT(pyxctl.shown(), HasSubstr("no-such-pager"));
  EXPECT_THAT(pyxctl.shown(), EndsWith("\n99     1970-01-01 00:01:39          99\n"));
}

TEST_F(OnATerminal, ADeviceWithoutAPagerShowsItAll) {
  log.AddUpTo(0, 99);
  PyxctlOnATerminal pyxctl(Command({"log"}), {"TERM=xterm", "TZ=UTC", "PATH=/nonexistent"});
  EXPECT_EQ(pyxctl.Wait(), 0);
  EXPECT_THAT(pyxctl.shown(), EndsWith("\n99     1970-01-01 00:01:39          99\n"));
}

TEST_F(OnATerminal, ThereIsNoPagerWhereNoneIsWanted) {
  log.Add(1);
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"log", "--no-pager"}, {"log", "-o", "json"}, {"count"}}) {
    PyxctlOnATerminal pyxctl(Command(arguments), {"TERM=xterm", "PAGER=sed s/^/paged:/", "PATH=/usr/bin:/bin"});
    EXPECT_EQ(pyxctl.Wait(), 0);
    EXPECT_THAT(pyxctl.shown(), HasSubstr("1"));
    EXPECT_THAT(pyxctl.shown(), Not(HasSubstr("paged:")));
  }
}

TEST_F(OnATerminal, ResetAsksAndDoesNothingWithoutAYes) {
  log.AddUpTo(0, 3);
  for (const char* const answer : {"n\n", "\n", "yesterday\n", "\x04"}) {
    PyxctlOnATerminal pyxctl(Command({"reset"}));
    EXPECT_TRUE(pyxctl.HasShown("Delete every record of the log? [y/N] "));
    pyxctl.Type(answer);
    EXPECT_EQ(pyxctl.Wait(), 1);
    EXPECT_THAT(pyxctl.shown(), EndsWith("pyxctl: nothing was deleted\n"));
  }
  EXPECT_EQ(log.requests(), 0);
}

TEST_F(OnATerminal, ResetDeletesAfterAYes) {
  log.AddUpTo(0, 3);
  PyxctlOnATerminal pyxctl(Command({"reset"}));
  EXPECT_TRUE(pyxctl.HasShown("? [y/N] "));
  pyxctl.Type("y\n");
  EXPECT_EQ(pyxctl.Wait(), 0);
  EXPECT_THAT(pyxctl.shown(), EndsWith("The log is empty.\n"));
  EXPECT_EQ(RunPyxctl({"count", "--socket", log.path()}).out, "0 records\n");
}

TEST_F(OnATerminal, ResetWithoutOneRefusesToGuess) {
  const Outcome outcome = RunPyxctl({"reset", "--socket", log.path()});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.err, HasSubstr("say --yes"));
  EXPECT_EQ(log.requests(), 0);
}

TEST_F(OnATerminal, TopLooksAgainUntilItIsInterrupted) {
  log.Add("http://a.example/", 1, "phishing");
  PyxctlOnATerminal pyxctl(Command({"top", "--interval", "0.1"}), kPlain);
  EXPECT_TRUE(pyxctl.HasShown("1 record, "));
  log.Add("http://a.example/", 2, "phishing");
  EXPECT_TRUE(pyxctl.HasShown("2 records, "));
  pyxctl.Type("\x03");
  EXPECT_EQ(pyxctl.Wait(), -1) << "ended by the interrupt";
}

TEST_F(OnATerminal, TopEndsWithTheKeyForIt) {
  PyxctlOnATerminal pyxctl(Command({"top", "--interval", "1000"}), kPlain);
  EXPECT_TRUE(pyxctl.HasShown("no records"));
  EXPECT_FALSE(pyxctl.IsUsual());
  pyxctl.Type("xyz q");
  EXPECT_EQ(pyxctl.Wait(), 0);
  EXPECT_TRUE(pyxctl.IsUsual());
  EXPECT_THAT(pyxctl.shown(), Not(HasSubstr("xyz"))) << "keys are not shown";
}

TEST_F(OnATerminal, TopLeavesItAsItWas) {
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
    PyxctlOnATerminal pyxctl(Command({"top", "--interval", "1000"}), kPlain);
    EXPECT_TRUE(pyxctl.HasShown("no records"));
    EXPECT_FALSE(pyxctl.IsUsual());
    pyxctl.Signal(number);
    EXPECT_EQ(pyxctl.Wait(), -1) << "ended by the signal";
    EXPECT_TRUE(pyxctl.IsUsual()) << number;
  }
}

TEST_F(OnATerminal, TopLeavesItAsItWasAlsoWhenItIsStopped) {
  PyxctlOnATerminal pyxctl(Command({"top", "--interval", "1000"}), kPlain);
  EXPECT_TRUE(pyxctl.HasShown("no records"));
  pyxctl.Signal(SIGTSTP);
  EXPECT_TRUE(zav::test::WaitUntil([&] { return pyxctl.IsUsual(); }));
  pyxctl.Signal(SIGCONT);
  EXPECT_TRUE(zav::test::WaitUntil([&] { return !pyxctl.IsUsual(); }));
  pyxctl.Type("Q");
  EXPECT_EQ(pyxctl.Wait(), 0);
}

TEST_F(OnATerminal, TopKeepsItsTitlesOnTheScreen) {
  for (int number = 0; number < 20; ++number)
    log.Add("http://h" + std::to_string(number) + ".example/", 1, std::to_string(number));
  PyxctlOnATerminal pyxctl(Command({"top", "-n", "20"}), kPlain);
  EXPECT_TRUE(pyxctl.HasShown("HOST"));
  EXPECT_TRUE(pyxctl.HasShown("h16.example"));
  const std::string first = pyxctl.shown().substr(0, pyxctl.shown().find("\x1b[H", 1));
  EXPECT_LT(std::count(first.begin(), first.end(), '\n'), 24);
}

TEST_F(OnATerminal, TopLooksOnceWhereThatIsAskedFor) {
  PyxctlOnATerminal pyxctl(Command({"top", "--once"}), kPlain);
  EXPECT_EQ(pyxctl.Wait(), 0);
  EXPECT_EQ(pyxctl.shown(), "no records\n");
}

TEST_F(OnATerminal, TheBarsOfTopFillALine) {
  log.Add("http://a.example/", 1, "phishing");
  log.Add("http://a.example/", 1, "phishing");
  log.Add("http://b.example/", 1, "malware");
  PyxctlOnATerminal pyxctl(Command({"top", "--once"}), {"TERM=xterm", "NO_COLOR=1", "LC_ALL=C", "TZ=UTC"});
  EXPECT_EQ(pyxctl.Wait(), 0);
  EXPECT_EQ(pyxctl.shown(),
            "3 records, 1970-01-01 00:00:01 to 1970-01-01 00:00:01\n"
            "\n"
            "THREAT                           COUNT\n"
            "phishing                             2  ####################\n"
            "malware                              1  ##########\n"
            "\n"
            "HOST                             COUNT\n"
            "a.example                            2  ####################\n"
            "b.example                            1  ##########\n");
}

}  // namespace
}  // namespace zav::client::test
