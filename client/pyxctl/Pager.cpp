#include "Pager.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <string_view>

namespace zav::pyxctl {
namespace {

/// Leaves at once what fits on the screen, shows colours, cuts long lines and shows their rest sideways, and leaves the
/// screen as it is at the end.
constexpr const char* kUsualOptions = "FRSX";

/// The shell's statuses for a command that cannot be run, and for one that is not there.
constexpr int kNotRunnable = 126;
constexpr int kNotFound = 127;

bool IsOnPath(const char* program) {
  const char* const path = std::getenv("PATH");
  std::istringstream directories(path == nullptr ? "/usr/bin:/bin" : path);
  for (std::string directory; std::getline(directories, directory, ':');) {
    if (::access((directory + '/' + program).c_str(), X_OK) == 0) return true;
  }
  return false;
}

/// A signal that is ignored for as long as this lives.
class Ignored {
 public:
  explicit Ignored(int number) : number_(number), before_(::signal(number, SIG_IGN)) {}
  ~Ignored() { ::signal(number_, before_); }
  Ignored(const Ignored&) = delete;
  Ignored& operator=(const Ignored&) = delete;

 private:
  int number_;
  sighandler_t before_;
};

/// @return the process, or -1.
pid_t Spawn(const std::string& command, int input) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  std::string shell = "sh";
  std::string option = "-c";
  std::string text = command;
  const std::array arguments = {shell.data(), option.data(), text.data(), static_cast<char*>(nullptr)};
  pid_t pid = -1;
  const int error = ::posix_spawn(&pid, "/bin/sh", &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return error == 0 ? pid : -1;
}

/// Until everything is written, or nobody reads any more.
void WriteTo(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written == -1 && errno != EINTR) return;
    if (written > 0) text.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace

std::string PagerCommand() {
  const char* const chosen = std::getenv("PAGER");
  if (chosen != nullptr) return std::string_view(chosen) == "cat" ? "" : chosen;
  for (const char* usual : {"less", "more"}) {
    if (IsOnPath(usual)) return usual;
  }
  return "";
}

bool ShowThrough(const std::string& command, std::string_view text) {
  ::setenv("LESS", kUsualOptions, 0);
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return false;
  const pid_t pid = Spawn(command, ends[0]);
  ::close(ends[0]);
  if (pid != -1) {
    // Whoever leaves the pager early has seen enough.
    const Ignored pipe(SIGPIPE);
    const Ignored interrupt(SIGINT);
    WriteTo(ends[1], text);
    ::close(ends[1]);
    int status = 0;
    while (::waitpid(pid, &status, 0) == -1 && errno == EINTR) continue;
    return !WIFEXITED(status) || (WEXITSTATUS(status) != kNotRunnable && WEXITSTATUS(status) != kNotFound);
  }
  ::close(ends[1]);
  return false;
}

}  // namespace zav::pyxctl
