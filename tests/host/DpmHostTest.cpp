#include <gmock/gmock.h>
#include <signal.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "Child.h"
#include "StatusStorage.h"
#include "support/TemporaryDirectory.h"

namespace {

using zav::test::TemporaryDirectory;

using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class TheHost : public testing::Test {
 protected:
  std::vector<std::string> Command(const std::vector<std::string>& more = {}) const {
    std::vector<std::string> command{DPM_HOST, "--library",      TEST_PLUGIN, "--state-dir", directory / "state",
                                     "--log",  directory / "log"};
    command.insert(command.end(), more.begin(), more.end());
    return command;
  }

  std::string Log() const {
    std::ifstream file(directory / "log");
    return {std::istreambuf_iterator<char>(file), {}};
  }

  /// Provider first, library after it: the one way out that leaves nothing behind.
  void ExpectCleanEnd(Child& host) const {
    EXPECT_EQ(host.Wait(), 0) << host.Errors();
    const size_t provider = Log().find("provider deleted");
    const size_t library = Log().find("library unloaded");
    EXPECT_NE(library, std::string::npos) << Log();
    EXPECT_LT(provider, library) << Log();
  }

  static void AwaitStart(Child& host) {
    host.Write("get\n");
    EXPECT_EQ(host.ReadLine(), "-1");
  }

  TemporaryDirectory directory;
};

TEST_F(TheHost, AnswersEveryCommandWithOneLine) {
  Child host(Command());
  host.Write(
      "set 1\nget\napply 0\nget\nset -1\nexec Echo {\"a\": 1}\nexec Lines\nexec Throw\nnonsense\nset x\nhelp\n"
      "exec Count\nexec Count\nreload\nexec Count\nget\nquit\n");
  const char* expected[] = {"0",
                            "1",
                            "ok",
                            "1",
                            "-1",
                            "[Echo][{\"a\": 1}]",
                            "first\\nsecond\\r\\tthird\\x01\\x7f",
                            "error: thrown\\nby the plug-in",
                            "error: unknown command [nonsense]; \"help\" lists the commands",
                            "error: usage: set N",
                            "set N | get | apply N | exec COMMAND [JSON] | reload | help | quit",
                            "count 1",
                            "count 2",
                            "ok",
                            "count 1",
                            "1",
                            "ok"};
  for (const char* line : expected) EXPECT_EQ(host.ReadLine(), line);
  EXPECT_THAT(host.ReadAll(), IsEmpty());
  ExpectCleanEnd(host);
  EXPECT_THAT(host.Errors(), IsEmpty());
}

TEST_F(TheHost, AnswersAtOnce) {
  Child host(Command());
  for (int i = 0; i < 3; ++i) {
    host.Write("set 1\n");
    EXPECT_EQ(host.ReadLine(), "0");
  }
}

TEST_F(TheHost, EndsCleanlyWithItsInput) {
  Child host(Command());
  host.Write("get");
  host.CloseInput();
  EXPECT_EQ(host.ReadAll(), "-1\n");
  ExpectCleanEnd(host);
}

TEST_F(TheHost, LeavesTheRestOfItsInputAloneAfterQuit) {
  Child host(Command());
  host.Write("quit\nset 1\n");
  EXPECT_EQ(host.ReadAll(), "ok\n");
  ExpectCleanEnd(host);
  EXPECT_EQ(host::StatusStorage(directory / "state/status.db").read("test-policy"), -1);
}

TEST_F(TheHost, RemembersAStatusFromRunToRun) {
  {
    Child host(Command());
    host.Write("set 5\nquit\n");
    EXPECT_EQ(host.ReadAll(), "0\nok\n");
    EXPECT_EQ(host.Wait(), 0);
  }
  Child host(Command());
  host.Write("get\nquit\n");
  EXPECT_EQ(host.ReadAll(), "5\nok\n");
}

class ASignal : public TheHost, public testing::WithParamInterface<int> {};

TEST_P(ASignal, EndsAServingHostCleanlyAfterItsInputHasEnded) {
  Child host(Command({"--serve"}));
  AwaitStart(host);
  host.CloseInput();
  host.Signal(GetParam());
  ExpectCleanEnd(host);
}

TEST_P(ASignal, EndsAHostCleanlyThatWaitsForACommand) {
  Child host(Command());
  AwaitStart(host);
  host.Signal(GetParam());
  ExpectCleanEnd(host);
}

INSTANTIATE_TEST_SUITE_P(ThatEnds, ASignal, testing::Values(SIGINT, SIGTERM, SIGHUP),
                         [](const auto& signal) { return sigabbrev_np(signal.param); });

TEST_F(TheHost, GoesOnServingAfterTheEndOfItsInput) {
  Child host(Command({"--serve"}));
  AwaitStart(host);
  host.CloseInput();
  // The second host is refused only as long as the first one runs.
  for (int i = 0; i < 3; ++i) EXPECT_EQ(RunToEnd(Command()).status, 1);
  host.Signal(SIGTERM);
  ExpectCleanEnd(host);
  EXPECT_EQ(RunToEnd(Command()).status, 0);
}

TEST_F(TheHost, IsEndedBySigintAlsoWhenItWasStartedWithItIgnored) {
  Child host(Command({"--serve"}), Child::Stdio::kPipes, [] { signal(SIGINT, SIG_IGN); });
  AwaitStart(host);
  host.Signal(SIGINT);
  ExpectCleanEnd(host);
}

TEST_F(TheHost, IsNotEndedBySighupWhenItWasStartedWithItIgnored) {
  Child host(Command(), Child::Stdio::kPipes, [] { signal(SIGHUP, SIG_IGN); });
  AwaitStart(host);
  host.Signal(SIGHUP);
  AwaitStart(host);
}

TEST_F(TheHost, EndsWithQuitAlsoWhenItServes) {
  Child host(Command({"--serve"}));
  host.Write("quit\n");
  EXPECT_EQ(host.ReadAll(), "ok\n");
  ExpectCleanEnd(host);
}

TEST_F(TheHost, RefusesToRunTwiceOnOneStateDirectory) {
  Child first(Command());
  AwaitStart(first);
  const Outcome second = RunToEnd(Command());
  EXPECT_EQ(second.status, 1);
  EXPECT_THAT(second.output, IsEmpty());
  EXPECT_EQ(second.errors, "dpm-host: another dpm-host already runs on " + directory / "state" + "; end it first\n");
}

TEST_F(TheHost, FailsWithOneLineWhenThePluginCannotBeLoaded) {
  const Outcome outcome = RunToEnd({DPM_HOST, "--library", directory / "none.so", "--state-dir", directory / "state"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.output, IsEmpty());
  EXPECT_THAT(outcome.errors, StartsWith("dpm-host: can't load the plug-in: "));
  EXPECT_EQ(std::count(outcome.errors.begin(), outcome.errors.end(), '\n'), 1);
}

TEST_F(TheHost, FailsWithOneLineWhenThePluginDoesNotStart) {
  const Outcome outcome = RunToEnd(Command(), [] { setenv("TEST_PLUGIN_REFUSES", "1", 1); });
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.errors, HasSubstr("did not start; the log says why\n"));
}

TEST_F(TheHost, FailsWhenItsLogCannotBeOpened) {
  const Outcome outcome = RunToEnd(
      {DPM_HOST, "--library", TEST_PLUGIN, "--state-dir", directory / "state", "--log", directory / "none/log"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.errors, StartsWith("dpm-host: can't open the log "));
}

TEST_F(TheHost, FailsWhenNobodyTakesItsAnswers) {
  Child host(Command());
  AwaitStart(host);
  host.CloseOutput();
  host.Write("get\n");
  EXPECT_EQ(host.Wait(), 1);
  EXPECT_THAT(host.Errors(), StartsWith("dpm-host: can't write the answer"));
  EXPECT_THAT(Log(), HasSubstr("library unloaded"));
}

TEST_F(TheHost, ShowsItsHelp) {
  const Outcome outcome = RunToEnd({DPM_HOST, "--help"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.output, HasSubstr("--state-dir"));
  EXPECT_THAT(outcome.errors, IsEmpty());
}

TEST_F(TheHost, EndsWithTheUsageStatusWhenItsCommandLineIsWrong) {
  EXPECT_EQ(RunToEnd({DPM_HOST}).status, 2);
  EXPECT_EQ(RunToEnd(Command({"--what"})).status, 2);
}

TEST_F(TheHost, LogsFromTheWantedLevelOn) {
  EXPECT_EQ(RunToEnd(Command({"--log-level", "error"})).status, 0);
  EXPECT_THAT(Log(), IsEmpty());
  EXPECT_EQ(RunToEnd(Command({"--log-level", "info"})).status, 0);
  EXPECT_THAT(Log(), HasSubstr("provider deleted"));
}

TEST_F(TheHost, PromptsOnATerminalOnly) {
  Child onTerminal(Command(), Child::Stdio::kTerminal);
  onTerminal.ReadUntil("dpm> ");
  onTerminal.Write("get\n");
  onTerminal.ReadUntil("-1\r\n");
  onTerminal.ReadUntil("dpm> ");
  onTerminal.Write("quit\n");
  onTerminal.ReadUntil("ok\r\n");
  EXPECT_EQ(onTerminal.Wait(), 0);
  EXPECT_EQ(RunToEnd(Command()).output, "");
}

TEST_F(TheHost, RecallsTheLastLineOnATerminal) {
  Child host(Command(), Child::Stdio::kTerminal);
  host.ReadUntil("dpm> ");
  host.Write("exec Count\n");
  host.ReadUntil("count 1\r\n");
  host.ReadUntil("dpm> ");
  host.Write("\x1b[A\n");
  host.ReadUntil("count 2\r\n");
}

TEST_F(TheHost, CompletesACommandOnATerminal) {
  Child host(Command(), Child::Stdio::kTerminal);
  host.ReadUntil("dpm> ");
  host.Write("rel\t\n");
  host.ReadUntil("ok\r\n");
}

TEST_F(TheHost, TakesSeveralLinesThatArePastedAtOnce) {
  Child host(Command(), Child::Stdio::kTerminal);
  host.ReadUntil("dpm> ");
  host.Write("exec Count\nexec Count\nexec Count\n");
  for (const char* answer : {"count 1\r\n", "count 2\r\n", "count 3\r\n"}) host.ReadUntil(answer);
}

TEST_F(TheHost, TakesCharactersOfSeveralBytesOnATerminal) {
  Child host(Command(), Child::Stdio::kTerminal, [] { setenv("LC_ALL", "C.UTF-8", 1); });
  host.ReadUntil("dpm> ");
  host.Write("exec Echo {\"gr\xc3\xb6\xc3\x9f\x65\":1}\n");
  host.ReadUntil("[Echo][{\"gr\xc3\xb6\xc3\x9f\x65\":1}]\r\n");
}

class AKey : public TheHost, public testing::WithParamInterface<const char*> {};

TEST_P(AKey, EndsTheHostCleanlyOnATerminal) {
  Child host(Command(), Child::Stdio::kTerminal);
  host.ReadUntil("dpm> ");
  host.Write(GetParam());
  ExpectCleanEnd(host);
}

constexpr const char* kControlC = "\x03";
constexpr const char* kControlD = "\x04";
INSTANTIATE_TEST_SUITE_P(ThatEnds, AKey, testing::Values(kControlC, kControlD),
                         [](const auto& key) { return key.param == std::string(kControlC) ? "ControlC" : "ControlD"; });

TEST_F(TheHost, StillEndsByAKeyAfterSomeCommands) {
  Child host(Command(), Child::Stdio::kTerminal);
  host.ReadUntil("dpm> ");
  host.Write("get\n");
  host.ReadUntil("-1\r\n");
  host.ReadUntil("dpm> ");
  host.Write(kControlC);
  ExpectCleanEnd(host);
}

TEST_F(TheHost, EndsCleanlyWithItsTerminal) {
  Child host(Command(), Child::Stdio::kTerminal);
  host.ReadUntil("dpm> ");
  host.HangUp();
  ExpectCleanEnd(host);
}

TEST_F(TheHost, EndsCleanlyWithItsTerminalAlsoWhenTheSignalForItIsIgnored) {
  Child host(Command(), Child::Stdio::kTerminal, [] { signal(SIGHUP, SIG_IGN); });
  host.ReadUntil("dpm> ");
  host.HangUp();
  ExpectCleanEnd(host);
}

}  // namespace
