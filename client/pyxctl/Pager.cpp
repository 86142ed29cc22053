#include "Pager.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

namespace zav::pyxctl {
namespace {

/// Leaves at once what fits on the screen, shows colours, cuts long lines and shows their rest sideways, and leaves the
/// screen as it is at the end.
constexpr const char* kUsualOptions = "FRSX";

std::string Chosen() {
  const char* const pager = std::getenv("PAGER");
  return pager == nullptr ? "less" : pager;
}

/// @return the process, or -1.
pid_t Spawn(const std::string& pager, int input) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  std::string shell = "sh";
  std::string option = "-c";
  std::string command = pager;
  const std::array arguments = {shell.data(), option.data(), command.data(), static_cast<char*>(nullptr)};
  pid_t pid = -1;
  const int error = ::posix_spawn(&pid, "/bin/sh", &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return error == 0 ? pid : -1;
}

}  // namespace

std::unique_ptr<Pager> Pager::Start() {
  const std::string pager = Chosen();
  if (pager.empty() || pager == "cat") return nullptr;
  ::setenv("LESS", kUsualOptions, 0);
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return nullptr;
  const pid_t pid = Spawn(pager, ends[0]);
  ::close(ends[0]);
  if (pid != -1) ::dup2(ends[1], STDOUT_FILENO);
  ::close(ends[1]);
  if (pid == -1) return nullptr;
  ::signal(SIGINT, SIG_IGN);
  return std::unique_ptr<Pager>(new Pager(pid));
}

Pager::~Pager() {
  std::cout.flush();
  ::close(STDOUT_FILENO);
  while (::waitpid(pid_, nullptr, 0) == -1 && errno == EINTR) continue;
}

}  // namespace zav::pyxctl
