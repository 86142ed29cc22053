#include "Process.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "support/WaitUntil.h"

namespace zav::client::test {
namespace {

using zav::test::WaitUntil;

constexpr std::chrono::seconds kPatience{60};

/// The null-terminated list of pointers that starting a program takes.
std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

std::string Contents(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// Where the standard streams of a program come from and go to.
struct Streams {
  std::string in = "/dev/null";
  std::string out;
  std::string err;
  /// Whether it leaves the terminal of the tests, and takes the first that it opens.
  bool ownSession = false;
};

pid_t Start(std::vector<std::string> arguments, std::vector<std::string> environment, const Streams& streams) {
  arguments.insert(arguments.begin(), "pyxctl");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, streams.in.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, streams.out.c_str(), O_WRONLY | O_CREAT, 0600);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, streams.err.c_str(), O_WRONLY | O_CREAT, 0600);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  if (streams.ownSession) posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
  pid_t pid = -1;
  const int error =
      ::posix_spawn(&pid, PYXCTL_PATH, &actions, &attributes, Pointers(arguments).data(), Pointers(environment).data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) throw std::runtime_error(std::strerror(error));
  return pid;
}

int AwaitExit(pid_t pid) {
  const int fd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  pollfd waiting{fd, POLLIN, 0};
  if (fd == -1 || ::poll(&waiting, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count())) != 1)
    ::kill(pid, SIGKILL);
  ::close(fd);
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// Ends a program that has not ended by itself.
void End(pid_t pid) {
  if (pid == -1) return;
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
}

int AwaitEnd(pid_t& pid) {
  return AwaitExit(std::exchange(pid, -1));
}

}  // namespace

RunningPyxctl::RunningPyxctl(const std::vector<std::string>& arguments, const Surroundings& surroundings)
    : outPath_(surroundings.outPath.empty() ? (directory_.path() / "out").string() : surroundings.outPath),
      pid_(Start(arguments, surroundings.environment, {.out = outPath_, .err = directory_.path() / "err"})) {}

RunningPyxctl::~RunningPyxctl() {
  End(pid_);
}

std::string RunningPyxctl::out() const {
  return Contents(outPath_);
}

std::string RunningPyxctl::err() const {
  return Contents(directory_.path() / "err");
}

bool RunningPyxctl::HasWritten(const std::string& text) const {
  return WaitUntil([&] { return out().find(text) != std::string::npos; }, kPatience);
}

bool RunningPyxctl::HasComplained(const std::string& text) const {
  return WaitUntil([&] { return err().find(text) != std::string::npos; }, kPatience);
}

void RunningPyxctl::Signal(int number) const {
  ::kill(pid_, number);
}

int RunningPyxctl::Wait() {
  return AwaitEnd(pid_);
}

Outcome RunPyxctl(const std::vector<std::string>& arguments, const Surroundings& surroundings) {
  RunningPyxctl pyxctl(arguments, surroundings);
  Outcome outcome;
  outcome.status = pyxctl.Wait();
  if (surroundings.outPath.empty()) outcome.out = pyxctl.out();
  outcome.err = pyxctl.err();
  return outcome;
}

PyxctlOnATerminal::PyxctlOnATerminal(const std::vector<std::string>& arguments, std::vector<std::string> environment,
                                     const std::string& outPath) {
  constexpr winsize kSize{24, 60, 0, 0};
  int program = -1;
  std::array<char, PATH_MAX> path{};
  if (::openpty(&terminal_, &program, path.data(), nullptr, &kSize) != 0) throw std::runtime_error("no terminal");
  ::fcntl(terminal_, F_SETFD, FD_CLOEXEC);
  ::fcntl(terminal_, F_SETFL, O_NONBLOCK);
  const std::string name = path.data();
  pid_ = Start(arguments, std::move(environment),
               {.in = name, .out = outPath.empty() ? name : outPath, .err = name, .ownSession = true});
  ::close(program);
}

PyxctlOnATerminal::~PyxctlOnATerminal() {
  End(pid_);
  ::close(terminal_);
}

void PyxctlOnATerminal::Take() {
  std::array<char, 4096> buffer{};
  for (ssize_t size = 0; (size = ::read(terminal_, buffer.data(), buffer.size())) > 0;) {
    shown_.append(buffer.data(), static_cast<std::size_t>(size));
  }
  std::erase(shown_, '\r');
}

const std::string& PyxctlOnATerminal::shown() {
  Take();
  return shown_;
}

bool PyxctlOnATerminal::HasShown(const std::string& text) {
  return WaitUntil([&] { return shown().find(text) != std::string::npos; }, kPatience);
}

bool PyxctlOnATerminal::IsUsual() const {
  termios settings{};
  return ::tcgetattr(terminal_, &settings) == 0 && (settings.c_lflag & ECHO) != 0 && (settings.c_lflag & ICANON) != 0;
}

void PyxctlOnATerminal::Signal(int number) const {
  ::kill(pid_, number);
}

void PyxctlOnATerminal::Type(const std::string& text) const {
  if (::write(terminal_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    throw std::runtime_error("the terminal takes no keys");
  }
}

int PyxctlOnATerminal::Wait() {
  // What is shown is taken meanwhile: a program waits for room on its terminal.
  WaitUntil(
      [&] {
        Take();
        siginfo_t info{};
        return ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid != 0;
      },
      kPatience);
  const int status = AwaitEnd(pid_);
  Take();
  return status;
}

}  // namespace zav::client::test
