#include "Child.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>

namespace {

constexpr int kDeadlineMs = 60'000;

void Check(bool fine, const char* what) {
  if (!fine) throw std::system_error(errno, std::generic_category(), what);
}

/// Whether something happens on the descriptor before the deadline.
bool Await(int file) {
  pollfd waiting{file, POLLIN, 0};
  int ready = 0;
  do {
    ready = poll(&waiting, 1, kDeadlineMs);
  } while (ready < 0 && errno == EINTR);
  return ready > 0;
}

[[noreturn]] void Execute(const std::vector<std::string>& command, const std::function<void()>& prepare) {
  if (prepare) prepare();
  std::vector<char*> arguments;
  for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  execvp(arguments[0], arguments.data());
  _exit(127);
}

}  // namespace

Child::Child(const std::vector<std::string>& command, Stdio stdio, const std::function<void()>& prepare) {
  const auto run = [&command, &prepare] { Execute(command, prepare); };
  stdio == Stdio::kPipes ? StartWithPipes(run) : StartOnTerminal(run);
}

Child::~Child() {
  if (!status) {
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
  }
  HangUp();
  if (errors != -1) close(errors);
}

void Child::StartWithPipes(const std::function<void()>& run) {
  std::array<int, 2> in{};
  std::array<int, 2> out{};
  Check(pipe2(in.data(), O_CLOEXEC) == 0 && pipe2(out.data(), O_CLOEXEC) == 0, "pipe");
  errors = memfd_create("errors", MFD_CLOEXEC);
  Check(errors != -1, "memfd_create");
  process = fork();
  Check(process != -1, "fork");
  if (process == 0) {
    dup2(in[0], STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    dup2(errors, STDERR_FILENO);
    run();
  }
  close(in[0]);
  close(out[1]);
  input = in[1];
  output = out[0];
}

void Child::StartOnTerminal(const std::function<void()>& run) {
  const winsize size{24, 200, 0, 0};
  process = forkpty(&output, nullptr, nullptr, &size);
  Check(process != -1, "forkpty");
  if (process == 0) {
    setenv("TERM", "vt100", 1);
    run();
  }
  input = fcntl(output, F_DUPFD_CLOEXEC, 0);
}

void Child::Write(const std::string& text) {
  // A child that has ended is found out by what it does not answer.
  const auto before = std::signal(SIGPIPE, SIG_IGN);
  for (size_t done = 0; done < text.size();) {
    const ssize_t count = write(input, text.data() + done, text.size() - done);
    if (count < 0) break;
    done += static_cast<size_t>(count);
  }
  std::signal(SIGPIPE, before);
}

void Child::CloseInput() {
  if (input != -1) close(input);
  input = -1;
}

void Child::Signal(int number) const {
  kill(process, number);
}

void Child::CloseOutput() {
  if (output != -1) close(output);
  output = -1;
}

bool Child::ReadMore() {
  if (!Await(output)) {
    ADD_FAILURE() << "no output before the deadline; so far: " << buffer;
    return false;
  }
  std::array<char, 4096> bytes;
  const ssize_t count = read(output, bytes.data(), bytes.size());
  if (count <= 0) return false;
  buffer.append(bytes.data(), static_cast<size_t>(count));
  return true;
}

std::string Child::ReadUntil(const std::string& text) {
  size_t end = 0;
  while ((end = buffer.find(text)) == std::string::npos) {
    if (!ReadMore()) {
      ADD_FAILURE() << "the output lacks [" << text << "]: " << buffer << "\nstandard error: " << Errors();
      return {};
    }
  }
  std::string before = buffer.substr(0, end);
  buffer.erase(0, end + text.size());
  return before;
}

std::string Child::ReadAll() {
  while (ReadMore()) {
  }
  return std::move(buffer);
}

int Child::Wait() {
  if (status) return *status;
  const int handle = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
  if (!Await(handle)) {
    ADD_FAILURE() << "the child does not end; standard error: " << Errors();
    kill(process, SIGKILL);
  }
  close(handle);
  int how = 0;
  waitpid(process, &how, 0);
  status = WIFEXITED(how) ? WEXITSTATUS(how) : 128 + WTERMSIG(how);
  return *status;
}

std::string Child::Errors() const {
  std::string text;
  std::array<char, 4096> bytes;
  ssize_t count = 0;
  while (errors != -1 && (count = pread(errors, bytes.data(), bytes.size(), static_cast<off_t>(text.size()))) > 0) {
    text.append(bytes.data(), static_cast<size_t>(count));
  }
  return text;
}

Outcome RunToEnd(const std::vector<std::string>& command, const std::function<void()>& prepare) {
  Child child(command, Child::Stdio::kPipes, prepare);
  child.CloseInput();
  const std::string output = child.ReadAll();
  const int status = child.Wait();
  return {status, output, child.Errors()};
}
