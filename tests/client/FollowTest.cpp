#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "GrowingLog.h"
#include "Process.h"
#include "support/WaitUntil.h"

namespace zav::client::test {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class AFollower : public testing::Test {
 protected:
  std::vector<std::string> Command(std::vector<std::string> arguments = {}) const {
    arguments.insert(arguments.begin(), "follow");
    arguments.insert(arguments.end(), {"--socket", log.path(), "--interval", "0.1", "--timeout", "1"});
    return arguments;
  }
  std::vector<std::string> CommandWithCursor() const {
    return Command({"--cursor-file", directory.path() / "cursor", "-o", "csv"});
  }
  static std::string Row(int number) {
    const std::string text = std::to_string(number);
    return "," + text + ",1970-01-01T00:00:0" + text + "Z,," + text + "\n";
  }

  GrowingLog log;
  TemporaryDirectory directory;
};

TEST_F(AFollower, ShowsTheNewestTenAndThenWhatComes) {
  log.AddUpTo(0, 19);
  const RunningPyxctl follower(Command());
  EXPECT_TRUE(follower.HasWritten("19\n"));
  EXPECT_THAT(follower.out(), StartsWith("10     1970-01-01 00:00:10                10\n"));
  log.Add(20);
  EXPECT_TRUE(follower.HasWritten("\n20     1970-01-01 00:00:20                20\n"));
  log.Add(21);
  EXPECT_TRUE(follower.HasWritten("\n21 "));
  EXPECT_EQ(follower.err(), "");
}

TEST_F(AFollower, ShowsAsManyOfTheOldOnesAsWereAskedFor) {
  log.AddUpTo(0, 9);
  const RunningPyxctl follower(Command({"-n", "0", "-o", "csv"}));
  EXPECT_TRUE(follower.HasWritten("url\n"));
  log.Add(5);
  EXPECT_TRUE(follower.HasWritten("\n1,10,5,1970-01-01T00:00:05Z,,5\n"));
  EXPECT_EQ(follower.out(), "schema_version,index,timestamp,time,threat,url\n1,10,5,1970-01-01T00:00:05Z,,5\n");
}

TEST_F(AFollower, ShowsOnlyWhatIsSelected) {
  log.Add("http://a.example/", 1, "phishing");
  const RunningPyxctl follower(Command({"--threat", "phishing", "--grep", "A\\.EXAMPLE|b.example"}));
  log.Add("http://b.example/", 2, "malware");
  log.Add("http://c.example/", 3, "phishing");
  log.Add("http://b.example/", 4, "phishing");
  EXPECT_TRUE(follower.HasWritten("http://b.example/\n"));
  EXPECT_THAT(follower.out(), Not(HasSubstr("malware")));
  EXPECT_THAT(follower.out(), Not(HasSubstr("http://c.example/")));
  EXPECT_THAT(follower.out(), Not(HasSubstr("http://a.example/"))) << "a pattern with capitals minds them";
}

TEST_F(AFollower, IsALogThatGoesOn) {
  log.AddUpTo(0, 3);
  const RunningPyxctl pyxctl({"log", "-f", "-n", "2", "--grep", "1|2|3|4|9", "--socket", log.path(), "-o", "csv"});
  EXPECT_TRUE(pyxctl.HasWritten("3\n"));
  log.Add(9);
  EXPECT_TRUE(pyxctl.HasWritten("9\n"));
  EXPECT_THAT(pyxctl.out(), Not(HasSubstr(",1\n")));
  for (const std::vector<std::string>& other : std::vector<std::vector<std::string>>{{"-r"}, {"--start", "1"}}) {
    std::vector<std::string> arguments = {"log", "--follow", "--socket", log.path()};
    arguments.insert(arguments.end(), other.begin(), other.end());
    EXPECT_EQ(RunPyxctl(arguments).status, 2) << other.front();
  }
}

TEST_F(AFollower, GoesOnWhereAnEarlierOneStopped) {
  log.AddUpTo(0, 3);
  {
    const RunningPyxctl follower(CommandWithCursor());
    EXPECT_TRUE(follower.HasWritten(Row(3)));
    EXPECT_THAT(follower.out(), HasSubstr(Row(0)));
    log.Add(4);
    EXPECT_TRUE(follower.HasWritten(Row(4)));
    std::string cursor;
    EXPECT_TRUE(zav::test::WaitUntil([&] {
      std::getline(std::ifstream(directory.path() / "cursor"), cursor);
      return cursor.starts_with("pyx1:4:4:");
    })) << cursor;
  }
  log.Add(5);
  const RunningPyxctl follower(CommandWithCursor());
  EXPECT_TRUE(follower.HasWritten(Row(5)));
  EXPECT_THAT(follower.out(), Not(HasSubstr(Row(4))));
}

TEST_F(AFollower, WaitsForAServiceThatIsBusyAndSaysSo) {
  log.Add(1);
  const RunningPyxctl follower(Command());
  EXPECT_TRUE(follower.HasWritten("1\n"));
  log.SetBusy(true);
  EXPECT_TRUE(follower.HasComplained("busy and refused every connection; going on when it answers\n"));
  log.Add(2);
  log.SetBusy(false);
  EXPECT_TRUE(follower.HasWritten("\n1      1970-01-01 00:00:02                2\n"));
  EXPECT_THAT(follower.err(), EndsWith("pyxctl: the service answers again\n"));
}

TEST_F(AFollower, WaitsForAServiceThatIsSlow) {
  log.Add(1);
  log.SetDelay(std::chrono::milliseconds(1500));
  const RunningPyxctl follower(Command());
  EXPECT_TRUE(follower.HasComplained("the service did not answer in time; going on when it answers\n"));
  log.SetDelay({});
  EXPECT_TRUE(follower.HasWritten("1\n"));
}

TEST_F(AFollower, WaitsForAServiceThatIsNotThereYet) {
  const RunningPyxctl follower({"follow", "--socket", directory.path() / "none", "--interval", "0.1"});
  EXPECT_TRUE(follower.HasComplained("going on when it answers\n"));
  EXPECT_EQ(follower.out(), "");
}

TEST_F(AFollower, SaysThatTheLogWasReset) {
  log.AddUpTo(0, 5);
  const RunningPyxctl follower(Command());
  EXPECT_TRUE(follower.HasWritten("5\n"));
  log.ResetAll();
  log.Add(7);
  EXPECT_TRUE(follower.HasWritten("\n0      1970-01-01 00:00:07                7\n"));
  EXPECT_TRUE(follower.HasComplained("the log was reset, was numbered anew, or dropped records"));
}

TEST_F(AFollower, EndsWhenItsOutputCannotBeWritten) {
  log.Add(1);
  const Outcome outcome = RunPyxctl(Command(), {{}, "/dev/full"});
  EXPECT_EQ(outcome.status, 4);
  EXPECT_THAT(outcome.err, HasSubstr("the output cannot be written"));
}

TEST_F(AFollower, KeepsTheCursorOfWhatItCouldNotWrite) {
  log.Add(1);
  EXPECT_EQ(RunPyxctl(CommandWithCursor(), {{}, "/dev/full"}).status, 4);
  EXPECT_FALSE(std::filesystem::exists(directory.path() / "cursor"));
}

TEST_F(AFollower, EndsWithTheReaderOfItsOutput) {
  const std::string path = directory.path() / "pipe";
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  const int reader = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  RunningPyxctl follower(Command(), {{}, path});
  const int held = log.requests();
  EXPECT_TRUE(zav::test::WaitUntil([&] { return log.requests() > held; }));
  ::close(reader);
  EXPECT_EQ(follower.Wait(), 0);
}

class AnExport : public AFollower {
 protected:
  Outcome Export(std::vector<std::string> arguments = {}) const {
    arguments.insert(arguments.begin(), "export");
    arguments.insert(arguments.end(), {"--socket", log.path(), "--timeout", "20"});
    return RunPyxctl(arguments);
  }
  Outcome ExportFurther() const { return Export({"--cursor-file", directory.path() / "cursor", "-o", "csv"}); }
};

TEST_F(AnExport, GivesALineOfJsonARecord) {
  log.Add("http://a.example/", 1, "phishing");
  log.Add("b\x1b[2J", 2);
  const Outcome outcome = Export();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out,
            R"({"index":0,"schema_version":1,"threat":"phishing","time":"1970-01-01T00:00:01Z","timestamp":1,)"
            R"("url":"http://a.example/"})"
            "\n"
            R"({"index":1,"schema_version":1,"threat":"","time":"1970-01-01T00:00:02Z","timestamp":2,)"
            R"("url":"b\u001b[2J"})"
            "\n");
}

TEST_F(AnExport, GivesNothingTwiceWithACursorFile) {
  log.AddUpTo(0, 2);
  EXPECT_THAT(ExportFurther().out, EndsWith("1,2" + Row(2)));
  EXPECT_EQ(ExportFurther().out, "schema_version,index,timestamp,time,threat,url\n");
  log.Add(3);
  EXPECT_EQ(ExportFurther().out, "schema_version,index,timestamp,time,threat,url\n1,3" + Row(3));
}

TEST_F(AnExport, GivesALogOfManyRecordsWhole) {
  log.AddUpTo(0, 1999);
  const Outcome outcome = Export();
  EXPECT_EQ(std::count(outcome.out.begin(), outcome.out.end(), '\n'), 2000);
  EXPECT_THAT(outcome.out, HasSubstr(R"("index":1999,)"));
}

TEST_F(AnExport, SelectsByTheTimeToo) {
  log.AddUpTo(0, 9);
  const Outcome outcome = Export({"--since", "@3", "--until", "@4", "-o", "csv"});
  EXPECT_EQ(outcome.out, "schema_version,index,timestamp,time,threat,url\n1,3" + Row(3) + "1,4" + Row(4));
}

TEST_F(AnExport, SaysThatTheLogWasReset) {
  log.AddUpTo(0, 5);
  ExportFurther();
  log.ResetAll();
  log.Add(7);
  const Outcome outcome = ExportFurther();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.out, EndsWith("1,0" + Row(7)));
  EXPECT_THAT(outcome.err, HasSubstr("the log was reset, was numbered anew, or dropped records"));
}

TEST_F(AnExport, RefusesAFileThatHoldsNoCursor) {
  for (const std::string& content :
       {std::string("nonsense"), std::string("pyx1:1:1:0123456789abcdefg"), std::string(1000, 'x')}) {
    std::ofstream(directory.path() / "cursor") << content;
    const Outcome outcome = ExportFurther();
    EXPECT_EQ(outcome.status, 4);
    EXPECT_THAT(outcome.err, HasSubstr("holds no cursor; remove it"));
    EXPECT_EQ(outcome.out, "");
  }
}

TEST_F(AnExport, SaysThatItsCursorFileCannotBeWrittenBeforeItWritesAnything) {
  log.Add(1);
  const Outcome outcome = Export({"--cursor-file", directory.path() / "none" / "cursor"});
  EXPECT_EQ(outcome.status, 4);
  EXPECT_EQ(outcome.out, "");
  EXPECT_THAT(outcome.err, HasSubstr("cursor: No such file or directory"));
}

TEST_F(AnExport, TakesNoOtherThingThanAFileForItsCursor) {
  const std::string pipe = directory.path() / "pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  for (const std::string& other : {pipe, directory.path().string(), std::string("/dev/zero")}) {
    const Outcome outcome = Export({"--cursor-file", other});
    EXPECT_EQ(outcome.status, 4);
    EXPECT_EQ(outcome.err, "pyxctl: " + other + " is no file for a cursor\n");
  }
}

TEST_F(AnExport, LeavesOutARecordThatNoAnswerCanHold) {
  log.Add(0);
  log.Add(std::string(kLongestAnswer, 'u'), 1);
  log.Add(2);
  const Outcome outcome = ExportFurther();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.out, EndsWith("1,0" + Row(0) + "1,2" + Row(2)));
  EXPECT_EQ(outcome.err, "pyxctl: 1 record is larger than an answer can be, and left out\n");
  for (const char* const verb : {"log", "top"}) {
    const Outcome shown = RunPyxctl({verb, "--socket", log.path(), "--timeout", "20"});
    EXPECT_EQ(shown.status, 0);
    EXPECT_EQ(shown.err, outcome.err);
  }
}

TEST_F(AnExport, ReplacesItsCursorFileInOneStep) {
  log.Add(1);
  ExportFurther();
  const auto file = std::filesystem::path(directory.path()) / "cursor";
  std::filesystem::create_hard_link(file, directory.path() / "before");
  log.Add(2);
  ExportFurther();
  std::string before;
  std::getline(std::ifstream(directory.path() / "before"), before);
  EXPECT_THAT(before, StartsWith("pyx1:0:1:"));
  const std::filesystem::directory_iterator files(directory.path());
  EXPECT_EQ(std::distance(begin(files), end(files)), 2) << "nothing else is left";
}

#ifdef ZAV_SYNC_ORDER
TEST_F(AnExport, HasItsRecordsOnTheDiskBeforeItRemembersThem) {
  log.AddUpTo(0, 2);
  const std::string order = directory.path() / "order";
  Surroundings surroundings;
  surroundings.environment.insert(surroundings.environment.end(),
                                  {std::string("LD_PRELOAD=") + ZAV_SYNC_ORDER, "SYNC_ORDER=" + order});
  surroundings.outPath = directory.path() / "out";
  const Outcome outcome =
      RunPyxctl({"export", "--socket", log.path(), "--cursor-file", directory.path() / "cursor"}, surroundings);
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  std::ifstream file(order);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "sync\nrename\n");
}
#endif

TEST_F(AnExport, EndsWith3WhenTheServiceStaysBusy) {
  log.SetBusy(true);
  const Outcome outcome = RunPyxctl({"export", "--socket", log.path(), "--timeout", "0.3"});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.out, "");
}

TEST_F(AnExport, ShowsItsProgressWhereItTakesLong) {
  log.AddUpTo(0, 199);
  log.SetDelay(std::chrono::milliseconds(600));
  const std::string out = directory.path() / "out";
  PyxctlOnATerminal pyxctl({"export", "--socket", log.path()}, {"LC_ALL=C.UTF-8", "TZ=UTC", "TERM=xterm"}, out);
  EXPECT_EQ(pyxctl.Wait(), 0);
  EXPECT_THAT(pyxctl.shown(), testing::ContainsRegex("\\[#* *\\] [0-9]+ of 200 records"));
  EXPECT_THAT(pyxctl.shown(), EndsWith("\x1b[K")) << "the bar is gone at the end";
  std::ifstream file(out);
  EXPECT_EQ(std::count(std::istreambuf_iterator<char>(file), {}, '\n'), 200);
}

TEST_F(AnExport, ShowsOnlyHowMuchIsDoneWhereTheWholeIsNotKnown) {
  log.AddUpTo(0, 199);
  log.SetDelay(std::chrono::milliseconds(600));
  for (const std::vector<std::string>& few : {std::vector<std::string>{"--grep", "1"},
                                              std::vector<std::string>{"--cursor-file", directory.path() / "cursor"}}) {
    std::vector<std::string> arguments = {"export", "--socket", log.path()};
    arguments.insert(arguments.end(), few.begin(), few.end());
    PyxctlOnATerminal pyxctl(arguments, {"LC_ALL=C.UTF-8", "TZ=UTC", "TERM=xterm"}, directory.path() / "out");
    EXPECT_EQ(pyxctl.Wait(), 0);
    EXPECT_THAT(pyxctl.shown(), testing::ContainsRegex("\x1b\\[K[0-9]+ records"));
    EXPECT_THAT(pyxctl.shown(), Not(HasSubstr(" of ")));
  }
}

TEST_F(AnExport, CountsTowardsWhatIsInItsRange) {
  log.AddUpTo(0, 199);
  log.SetDelay(std::chrono::milliseconds(600));
  const std::string out = directory.path() / "out";
  PyxctlOnATerminal pyxctl({"export", "--until", "@99", "--socket", log.path()},
                           {"LC_ALL=C.UTF-8", "TZ=UTC", "TERM=xterm"}, out);
  EXPECT_EQ(pyxctl.Wait(), 0);
  EXPECT_THAT(pyxctl.shown(), testing::ContainsRegex("[0-9]+ of 100 records"));
}

TEST_F(AnExport, ShowsNoProgressAmongItsRecords) {
  log.AddUpTo(0, 199);
  log.SetDelay(std::chrono::milliseconds(600));
  PyxctlOnATerminal pyxctl({"export", "--socket", log.path(), "-o", "csv"});
  EXPECT_EQ(pyxctl.Wait(), 0);
  EXPECT_THAT(pyxctl.shown(), Not(HasSubstr("\x1b")));
  EXPECT_THAT(pyxctl.shown(), EndsWith(",,199\n"));
}

}  // namespace
}  // namespace zav::client::test
