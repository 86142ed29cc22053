#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "FakeService.h"

namespace zav::client::test {
namespace {

constexpr int kPatienceMs = 60000;

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

pid_t Start(std::vector<std::string> arguments, std::vector<std::string> environment, const std::string& out,
            const std::string& err) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), O_WRONLY | O_CREAT, 0600);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(), O_WRONLY | O_CREAT, 0600);
  pid_t pid = -1;
  const int error =
      ::posix_spawn(&pid, PYXCTL_PATH, &actions, nullptr, Pointers(arguments).data(), Pointers(environment).data());
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::runtime_error(std::strerror(error));
  return pid;
}

int AwaitExit(pid_t pid) {
  const int fd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  pollfd waiting{fd, POLLIN, 0};
  if (fd == -1 || ::poll(&waiting, 1, kPatienceMs) != 1) ::kill(pid, SIGKILL);
  ::close(fd);
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

Outcome RunPyxctl(const std::vector<std::string>& arguments, const Surroundings& surroundings) {
  const TemporaryDirectory directory;
  const std::string own = directory.path() / "out";
  const std::string& out = surroundings.outPath.empty() ? own : surroundings.outPath;
  const std::string err = directory.path() / "err";
  std::vector<std::string> command = {"pyxctl"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  Outcome outcome;
  outcome.status = AwaitExit(Start(command, surroundings.environment, out, err));
  if (surroundings.outPath.empty()) outcome.out = Contents(out);
  outcome.err = Contents(err);
  return outcome;
}

}  // namespace zav::client::test
