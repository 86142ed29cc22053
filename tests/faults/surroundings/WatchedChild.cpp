#include "WatchedChild.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <optional>
#include <stdexcept>

#include "support/WaitUntil.h"

namespace zav::test {
namespace {

/// For a step. Less than what a client waits for an answer: whoever waits so long has not met the end of its
/// connection.
constexpr std::chrono::seconds kDeadline{15};
/// More than any body needs, sanitizers included.
constexpr unsigned long kMostBytes = 2UL << 30;

using Step = std::array<char, 256>;

/// Memory that parent and child have in common.
Step& TheStep() {
  static void* const memory = mmap(nullptr, sizeof(Step), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::runtime_error("no shared memory");
  return *static_cast<Step*>(memory);
}

unsigned long BytesInMemory(pid_t process) {
  std::ifstream numbers("/proc/" + std::to_string(process) + "/statm");
  unsigned long size = 0;
  unsigned long resident = 0;
  numbers >> size >> resident;
  return resident * static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
}

/// How many expectations of the running test have failed.
int Failures() {
  const testing::TestResult& result = *testing::UnitTest::GetInstance()->current_test_info()->result();
  int failures = 0;
  for (int part = 0; part < result.total_part_count(); ++part) failures += result.GetTestPartResult(part).failed();
  return failures;
}

[[noreturn]] void RunAndLeave(const std::string& name, const std::function<void()>& body) {
  // Those before the fork are the parent's.
  const int failures = Failures();
  try {
    const testing::ScopedTrace trace(__FILE__, __LINE__, name);
    body();
  } catch (const std::exception& exception) {
    ADD_FAILURE() << name << ": exception: " << exception.what();
  }
  // At once: the look for leaks at a usual end takes lines of the recorder for lost, now and then, in a forked process.
  std::fflush(nullptr);
  _exit(Failures() > failures ? EXIT_FAILURE : EXIT_SUCCESS);
}

/// @return how the child ended; nothing when it had to be ended.
std::optional<int> Await(pid_t child) {
  int status = 0;
  bool ended = false;
  bool goesOn = true;
  bool inTime = true;
  while (inTime && goesOn) {
    const Step step = TheStep();
    inTime = WaitUntil(
        [&] {
          ended = waitpid(child, &status, WNOHANG) == child;
          goesOn = !ended && BytesInMemory(child) <= kMostBytes;
          return !goesOn || step != TheStep();
        },
        kDeadline);
  }
  if (ended) return status;
  const char* const blame = inTime ? " takes memory without end, at: " : " does not end, at: ";
  kill(child, SIGKILL);
  waitpid(child, &status, 0);
  ADD_FAILURE() << "the child" << blame << TheStep().data();
  return std::nullopt;
}

}  // namespace

void NoteStep(const std::string& step) {
  std::snprintf(TheStep().data(), TheStep().size(), "%s", step.c_str());
}

void RunWatched(const std::string& name, const std::function<void()>& body) {
  const testing::ScopedTrace trace(__FILE__, __LINE__, name);
  NoteStep("the beginning");
  std::fflush(nullptr);
  const pid_t child = fork();
  ASSERT_NE(child, -1) << "no process";
  if (child == 0) RunAndLeave(name, body);
  const std::optional<int> status = Await(child);
  if (!status) return;
  if (WIFSIGNALED(*status)) {
    ADD_FAILURE() << "the child is gone: " << strsignal(WTERMSIG(*status)) << ", at: " << TheStep().data();
  } else {
    EXPECT_EQ(WEXITSTATUS(*status), EXIT_SUCCESS) << "last step: " << TheStep().data();
  }
}

}  // namespace zav::test
