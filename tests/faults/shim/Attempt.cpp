#include "Attempt.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <exception>
#include <new>
#include <stdexcept>

#include "support/WaitUntil.h"

namespace zav::test {
namespace {

template <size_t Size>
void Put(std::array<char, Size>& place, std::string_view text) {
  const size_t length = std::min(text.size(), Size - 1);
  std::memcpy(place.data(), text.data(), length);
  place[length] = '\0';
}

Report& FreshReport() {
  static void* const memory = mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::runtime_error("no shared memory");
  return *new (memory) Report;
}

[[noreturn]] void RunAndLeave(const std::function<void(Report&)>& attempt, Report& report) {
  try {
    attempt(report);
  } catch (const std::exception& exception) {
    report.Fail(std::string("exception: ") + exception.what());
  }
  // Its thread, which has ended, is nobody's to join: a sanitizer would take it for a leak.
  if (report.isFinal) syscall(SYS_exit_group, 0);
  _exit(0);
}

/// What a process that is gone says about it by its status; empty for a good end.
std::string Blame(int status) {
  if (WIFSIGNALED(status)) return std::string("the host is gone: ") + strsignal(WTERMSIG(status));
  if (WEXITSTATUS(status) != 0) return "the host ended with status " + std::to_string(WEXITSTATUS(status));
  return {};
}

}  // namespace

void Report::At(std::string_view next) {
  Put(step, next);
}

void Report::Fail(const std::string& what) {
  if (!HasFailed()) Put(failure, what);
}

void Report::AddLine(const char* line) {
  const std::lock_guard guard(adding);
  Put(lines[count++ % kLines], line);
}

void Report::MarkLines() {
  const std::lock_guard guard(adding);
  mark = count;
}

bool Report::HasLine(std::string_view part) {
  const std::lock_guard guard(adding);
  for (size_t index = std::max(mark, count > kLines ? count - kLines : 0); index < count; ++index) {
    if (std::string_view(lines[index % kLines].data()).find(part) != part.npos) return true;
  }
  return false;
}

std::string Report::Lines() const {
  constexpr size_t kShown = 40;
  std::string text;
  for (size_t index = mark; index < std::min(mark + kShown, count); ++index) {
    text.append("    ").append(lines[index % kLines].data()).append("\n");
  }
  return text;
}

const Report& RunInChild(const std::function<void(Report&)>& attempt, std::chrono::seconds deadline) {
  Report& report = FreshReport();
  const pid_t child = fork();
  if (child == -1) throw std::runtime_error("no process for an attempt");
  if (child == 0) RunAndLeave(attempt, report);
  int status = 0;
  if (WaitUntil([&] { return waitpid(child, &status, WNOHANG) == child; }, deadline)) {
    const std::string blame = Blame(status);
    if (!blame.empty()) report.Fail(blame + ", at: " + report.Step());
    return report;
  }
  kill(child, SIGKILL);
  waitpid(child, &status, 0);
  report.Fail("no end in time, at: " + report.Step());
  return report;
}

}  // namespace zav::test
