#include "dlog/dlog.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "dlog/control.h"
#include "support/Device.h"
#include "support/Surroundings.h"
#include "support/ThisProcess.h"
#include "support/WaitUntil.h"

namespace zav::test {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;

constexpr int kSystem = DLOG_BUFFER_SYSTEM;

std::vector<std::string> LinesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

/// The text that thread `writer` logs as its line `number`, long enough to take more than one write of a careless log.
std::string Text(int writer, int number, size_t length) {
  const std::string name = std::to_string(writer) + "/" + std::to_string(number) + " ";
  return name + std::string(length, static_cast<char>('a' + writer)) + " end";
}

void LogFromThreads(int threads, int lines, size_t length) {
  std::vector<std::jthread> writers;
  for (int writer = 0; writer < threads; ++writer) {
    writers.emplace_back([=] {
      for (int number = 0; number < lines; ++number) {
        __dlog_print(kSystem, DLOG_DEBUG, "TAG", "%s", Text(writer, number, length).c_str());
      }
    });
  }
}

/// Every line is whole, and none is missing.
void ExpectWholeLines(const std::string& content, int threads, int lines, size_t length) {
  std::set<std::string> expected;
  for (int writer = 0; writer < threads; ++writer) {
    for (int number = 0; number < lines; ++number) expected.insert(Text(writer, number, length));
  }
  size_t broken = 0;
  for (const std::string& line : LinesOf(content)) {
    const auto head = line.find("): ");
    if (head == std::string::npos || expected.erase(line.substr(head + 3)) != 1) ++broken;
  }
  EXPECT_EQ(broken, 0u);
  EXPECT_EQ(expected.size(), 0u) << "lines are missing";
}

class TheLog : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(dlog::SetFile(file.c_str()), 0); }
  void TearDown() override { dlog::SetFile(nullptr); }

  std::string Content() const { return ReadFile(file); }

  ScratchDirectory scratch;
  const std::string file = scratch + "/log";
};

/// Standard error is a pipe while it lives.
class StandardErrorPipe {
 public:
  StandardErrorPipe() {
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    EXPECT_EQ(dup2(ends[1], STDERR_FILENO), STDERR_FILENO);
  }
  ~StandardErrorPipe() {
    CloseWriter();
    close(ends[0]);
  }
  StandardErrorPipe(const StandardErrorPipe&) = delete;
  StandardErrorPipe& operator=(const StandardErrorPipe&) = delete;

  /// Everything until the last writer is closed.
  std::string ReadToEnd() {
    std::string content;
    std::vector<char> part(3000);
    for (ssize_t got = 0; (got = read(ends[0], part.data(), part.size())) > 0;) {
      content.append(part.data(), static_cast<size_t>(got));
    }
    return content;
  }

  void CloseWriter() {
    if (original == -1) return;
    dup2(original, STDERR_FILENO);
    close(original);
    close(ends[1]);
    original = -1;
  }

  void DoNotBlock() { fcntl(ends[1], F_SETFL, O_NONBLOCK); }

  void Fill() {
    DoNotBlock();
    while (write(ends[1], "x", 1) == 1) {
    }
    fcntl(ends[1], F_SETFL, 0);
  }

 private:
  int ends[2]{-1, -1};
  int original = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
};

// ---- a line

TEST_F(TheLog, WritesTimePriorityTagProcessThreadAndText) {
  __dlog_print(kSystem, DLOG_WARN, "TAG", "%s: %s(%d) > %s", "Unit.cpp", "function", 12, "message");
  const std::string ids = "(" + std::to_string(getpid()) + ", " + std::to_string(syscall(SYS_gettid)) + ")";
  EXPECT_THAT(Content(), MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} W/TAG .*\n"));
  EXPECT_THAT(Content(), EndsWith("W/TAG " + ids + ": Unit.cpp: function(12) > message\n"));
}

TEST_F(TheLog, HasALetterForEachPriority) {
  for (const int priority : {DLOG_DEBUG, DLOG_INFO, DLOG_WARN, DLOG_ERROR}) {
    __dlog_print(kSystem, priority, "TAG", "text");
  }
  const auto lines = LinesOf(Content());
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_THAT(lines[0], HasSubstr(" D/TAG "));
  EXPECT_THAT(lines[1], HasSubstr(" I/TAG "));
  EXPECT_THAT(lines[2], HasSubstr(" W/TAG "));
  EXPECT_THAT(lines[3], HasSubstr(" E/TAG "));
}

TEST_F(TheLog, TakesAnyPriorityAndAnyBuffer) {
  EXPECT_GT(__dlog_print(77, 1000, "TAG", "text"), 0);
  EXPECT_EQ(LinesOf(Content()).size(), 1u);
}

TEST_F(TheLog, NamesTheThreadThatWrites) {
  long thread = 0;
  std::thread([&] {
    thread = syscall(SYS_gettid);
    __dlog_print(kSystem, DLOG_DEBUG, "TAG", "text");
  }).join();
  EXPECT_THAT(Content(), HasSubstr(", " + std::to_string(thread) + "): text"));
}

TEST_F(TheLog, ReturnsHowManyBytesItWrote) {
  const int written = __dlog_print(kSystem, DLOG_DEBUG, "TAG", "text");
  EXPECT_EQ(written, static_cast<int>(Content().size()));
}

TEST_F(TheLog, WritesLinesOfEveryLengthWhole) {
  for (const size_t length : {size_t{0}, size_t{900}, size_t{970}, size_t{1024}, size_t{5000}, size_t{1'000'000}}) {
    const std::string text(length, 'x');
    const int written = __dlog_print(kSystem, DLOG_DEBUG, "TAG", "%s", text.c_str());
    const auto lines = LinesOf(Content());
    EXPECT_TRUE(lines.back().ends_with("): " + text)) << length;
    EXPECT_EQ(written, static_cast<int>(lines.back().size()) + 1) << length;
  }
  EXPECT_EQ(LinesOf(Content()).size(), 6u);
}

TEST_F(TheLog, WritesLinesOfEveryLengthAroundTheSizeOfItsBufferWhole) {
  constexpr size_t kFirst = 850;
  constexpr size_t kLast = 1050;
  for (size_t length = kFirst; length <= kLast; ++length) {
    __dlog_print(kSystem, DLOG_DEBUG, "TAG", "%s", std::string(length, 'x').c_str());
  }
  const auto lines = LinesOf(Content());
  ASSERT_EQ(lines.size(), kLast - kFirst + 1);
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_TRUE(lines[i].ends_with("): " + std::string(kFirst + i, 'x'))) << kFirst + i;
  }
}

TEST_F(TheLog, SurvivesATagOfAnyLength) {
  const std::string tag(5000, 't');
  EXPECT_GT(__dlog_print(kSystem, DLOG_DEBUG, tag.c_str(), "text"), 0);
  EXPECT_THAT(Content(), EndsWith("): text\n"));
}

TEST_F(TheLog, LeavesErrnoAsItWas) {
  errno = EXDEV;
  __dlog_print(kSystem, DLOG_DEBUG, "TAG", "text");
  EXPECT_EQ(errno, EXDEV);
}

TEST_F(TheLog, ThatCannotWriteSaysSoAndLeavesErrnoAsItWas) {
  ASSERT_EQ(dlog::SetFile("/dev/full"), 0);
  errno = EXDEV;
  EXPECT_EQ(__dlog_print(kSystem, DLOG_DEBUG, "TAG", "text"), -1);
  EXPECT_EQ(errno, EXDEV);
}

// ---- the level

TEST_F(TheLog, WritesAllPrioritiesAtFirst) {
  EXPECT_GT(__dlog_print(kSystem, DLOG_DEBUG, "TAG", "text"), 0);
}

TEST_F(TheLog, DropsWhatIsBelowItsLevel) {
  dlog::SetLevel(DLOG_WARN);
  EXPECT_EQ(__dlog_print(kSystem, DLOG_DEBUG, "TAG", "debug"), 0);
  EXPECT_EQ(__dlog_print(kSystem, DLOG_INFO, "TAG", "info"), 0);
  EXPECT_GT(__dlog_print(kSystem, DLOG_WARN, "TAG", "warning"), 0);
  EXPECT_GT(__dlog_print(kSystem, DLOG_ERROR, "TAG", "error"), 0);
  dlog::SetLevel(DLOG_DEBUG);
  EXPECT_GT(__dlog_print(kSystem, DLOG_DEBUG, "TAG", "debug again"), 0);
  EXPECT_EQ(LinesOf(Content()).size(), 3u);
}

// ---- where it goes

TEST_F(TheLog, AddsToAFileThatExists) {
  const std::string other = scratch + "/other";
  WriteFile(other, "earlier\n");
  ASSERT_EQ(dlog::SetFile(other.c_str()), 0);
  __dlog_print(kSystem, DLOG_DEBUG, "TAG", "text");
  EXPECT_THAT(ReadFile(other), MatchesRegex("earlier\n.*: text\n"));
}

TEST_F(TheLog, WritesBehindWhatAnotherProcessHasWrittenMeanwhile) {
  __dlog_print(kSystem, DLOG_DEBUG, "TAG", "first");
  {
    const int other = open(file.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    EXPECT_EQ(write(other, "other\n", 6), 6);
    close(other);
  }
  __dlog_print(kSystem, DLOG_DEBUG, "TAG", "second");
  EXPECT_THAT(Content(), MatchesRegex(".*: first\nother\n.*: second\n"));
}

TEST_F(TheLog, ThatCannotOpenAFileTellsTheErrorAndGoesWhereItWent) {
  EXPECT_EQ(dlog::SetFile("/nowhere/log"), ENOENT);
  __dlog_print(kSystem, DLOG_DEBUG, "TAG", "text");
  EXPECT_THAT(Content(), EndsWith(": text\n"));
}

TEST_F(TheLog, KeepsOneFileOpenAndPassesItOnToNoChild) {
  const std::string other = scratch + "/other";
  const auto before = Descriptors();
  ASSERT_EQ(dlog::SetFile(other.c_str()), 0);
  EXPECT_EQ(Descriptors().size(), before.size());
  for (const int descriptor : Descriptors()) {
    if (before.contains(descriptor)) continue;
    EXPECT_TRUE(IsCloseOnExec(descriptor)) << descriptor;
  }
  ASSERT_EQ(dlog::SetFile(nullptr), 0);
  EXPECT_EQ(Descriptors().size(), before.size() - 1);
}

TEST_F(TheLog, GoesToStandardErrorWithoutAFile) {
  StandardErrorPipe pipe;
  ASSERT_EQ(dlog::SetFile(nullptr), 0);
  __dlog_print(kSystem, DLOG_DEBUG, "TAG", "text");
  pipe.CloseWriter();
  EXPECT_THAT(pipe.ReadToEnd(), EndsWith(": text\n"));
  EXPECT_EQ(Content(), "");
}

// ---- threads

TEST_F(TheLog, WritesTheLinesOfManyThreadsWholeIntoAFile) {
  LogFromThreads(4, 200, 3000);
  ExpectWholeLines(Content(), 4, 200, 3000);
}

TEST_F(TheLog, WritesTheLinesOfManyThreadsWholeIntoAPipe) {
  StandardErrorPipe pipe;
  dlog::SetFile(nullptr);
  auto content = std::async(std::launch::async, [&] { return pipe.ReadToEnd(); });
  LogFromThreads(4, 200, 3000);
  pipe.CloseWriter();
  ExpectWholeLines(content.get(), 4, 200, 3000);
}

TEST_F(TheLog, WritesTheLinesOfManyThreadsWholeIntoAPipeThatTheyFill) {
  // Longer than what a pipe takes in one piece whoever else writes.
  constexpr size_t kLong = 20'000;
  StandardErrorPipe pipe;
  dlog::SetFile(nullptr);
  auto content = std::async(std::launch::async, [&] { return pipe.ReadToEnd(); });
  LogFromThreads(4, 100, kLong);
  pipe.CloseWriter();
  ExpectWholeLines(content.get(), 4, 100, kLong);
}

TEST_F(TheLog, WritesWholeLinesIntoAPipeThatDoesNotBlock) {
  constexpr size_t kLong = 20'000;
  StandardErrorPipe pipe;
  pipe.DoNotBlock();
  dlog::SetFile(nullptr);
  auto content = std::async(std::launch::async, [&] { return pipe.ReadToEnd(); });
  LogFromThreads(4, 100, kLong);
  pipe.CloseWriter();
  ExpectWholeLines(content.get(), 4, 100, kLong);
}

TEST_F(TheLog, KeepsNobodyWaitingWhoWritesNothing) {
  StandardErrorPipe pipe;
  dlog::SetFile(nullptr);
  pipe.Fill();
  std::atomic<int> stuckThread{0};
  std::jthread stuck([&] {
    stuckThread = gettid();
    __dlog_print(kSystem, DLOG_ERROR, "TAG", "waits for the reader");
  });
  ASSERT_TRUE(WaitUntil([&] { return stuckThread != 0 && IsAsleep(stuckThread); }));
  dlog::SetLevel(DLOG_ERROR);
  auto dropped = std::async(std::launch::async, [] { return __dlog_print(kSystem, DLOG_DEBUG, "TAG", "dropped"); });
  EXPECT_EQ(dropped.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  auto content = std::async(std::launch::async, [&] { return pipe.ReadToEnd(); });
  stuck.join();
  pipe.CloseWriter();
  EXPECT_THAT(content.get(), EndsWith(": waits for the reader\n"));
}

}  // namespace
}  // namespace zav::test
