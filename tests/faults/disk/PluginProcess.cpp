#include "faults/disk/PluginProcess.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>

#include "support/Device.h"
#include "support/RawClient.h"
#include "support/WaitUntil.h"

namespace zav::test {
namespace {

using ipc::Method;
using std::chrono::milliseconds;

constexpr int kThrew = 124;
constexpr int kNoProvider = 3;
constexpr int kNotSaved = 4;
constexpr int kSignalled = 128;

void Check(bool fine, const char* what) {
  if (!fine) throw std::system_error(errno, std::generic_category(), what);
}

int Guarded(const std::function<int()>& work) {
  try {
    return work();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return kThrew;
  }
}

/// Loaded once for all processes that are forked: nothing of it runs before its factory is called.
Library& ThePlugin() {
  static Library& library = *new Library;
  return library;
}

}  // namespace

ForkedProcess::ForkedProcess(const std::function<int()>& work) {
  process = fork();
  Check(process != -1, "fork");
  if (process == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    _exit(Guarded(work));
  }
  handle = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
  Check(handle != -1, "pidfd_open");
}

ForkedProcess::~ForkedProcess() {
  Kill();
  Wait();
  close(handle);
}

bool ForkedProcess::EndsWithin(milliseconds time) const {
  pollfd waiting{handle, POLLIN, 0};
  int ready = 0;
  do {
    ready = poll(&waiting, 1, static_cast<int>(time.count()));
  } while (ready < 0 && errno == EINTR);
  return ready > 0;
}

bool ForkedProcess::HasEnded() const {
  return EndsWithin(milliseconds(0));
}

// By its handle: whoever has its number next is left alone.
void ForkedProcess::Kill() const {
  syscall(SYS_pidfd_send_signal, handle, SIGKILL, nullptr, 0);
}

std::optional<int> ForkedProcess::Wait(std::chrono::seconds deadline) {
  if (status) return status;
  const bool inTime = EndsWithin(deadline);
  if (!inTime) Kill();
  int how = 0;
  pid_t ended = 0;
  do {
    ended = waitpid(process, &how, 0);
  } while (ended == -1 && errno == EINTR);
  // Whoever traced it may have seen its end first.
  if (ended == process) status = WIFEXITED(how) ? WEXITSTATUS(how) : kSignalled + WTERMSIG(how);
  return inTime ? status : std::nullopt;
}

PluginProcess::PluginProcess(const std::function<void()>& prepare) {
  Library& library = ThePlugin();
  std::array<int, 2> ends{};
  Check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0, "socketpair");
  process.emplace([&]() -> int {
    close(ends[0]);
    if (prepare) prepare();
    const MemoryStorage storage;
    char go = 0;
    if (write(ends[1], &go, 1) != 1 || read(ends[1], &go, 1) != 1) return 0;
    auto provider = library.Make();
    if (!provider) return kNoProvider;
    // Nothing comes but the end, when the process is to go in order.
    while (read(ends[1], &go, 1) == -1) {
    }
    provider.reset();
    library.Unload();
    return 0;
  });
  close(ends[1]);
  control = ends[0];
  char ready = 0;
  Check(read(control, &ready, 1) == 1, "the process does not get ready");
}

PluginProcess::~PluginProcess() {
  process.reset();
  close(control);
}

void PluginProcess::Start() const {
  const char go = 0;
  send(control, &go, 1, MSG_NOSIGNAL);
}

void PluginProcess::Leave() {
  shutdown(control, SHUT_WR);
  if (process->Wait() != 0) throw std::runtime_error("the process does not end in order");
}

void PluginProcess::End() {
  process->Kill();
  process->Wait();
}

template <class Exchange>
std::optional<int> PluginProcess::Ask(Exchange exchange) const {
  std::optional<int> answer;
  WaitUntil([&] {
    try {
      RawClient client(kSocketFile, milliseconds(0));
      answer = exchange(client);
    } catch (const std::runtime_error&) {
    }
    return answer.has_value() || HasEnded();
  });
  return answer;
}

std::optional<int> PluginProcess::Send(const ThreatReport& report) const {
  return Ask([&](RawClient& client) -> std::optional<int> {
    if (!client.SendHeader(Method::kLogThreatUrl) || !client.SendString(report.url)) return std::nullopt;
    return client.SendString(report.threat) ? client.ReceiveInt() : std::nullopt;
  });
}

std::optional<int> PluginProcess::SendReset() const {
  return Ask([](RawClient& client) -> std::optional<int> {
    return client.SendHeader(Method::kResetLog) ? client.ReceiveInt() : std::nullopt;
  });
}

bool PluginProcess::Answers() const {
  return Ask([](RawClient& client) -> std::optional<int> {
           if (!client.SendHeader(Method::kGetLogStatus) || !client.ReceiveString()) return std::nullopt;
           return 0;
         })
      .has_value();
}

std::string Try(const Trial& trial) {
  const Library& library = ThePlugin();
  ForkedProcess process([&]() -> int {
    trial.prepare();
    const MemoryStorage storage;
    const auto provider = library.Make();
    if (!provider) return kNoProvider;
    provider->executeCommand("GetStatus", "");
    trial.between();
    // Not by the ordinary way: what is unloaded at the end is not looked at here.
    _exit(test::Report(trial.report.url, trial.report.threat) == 0 ? 0 : kNotSaved);
  });
  const auto status = process.Wait();
  if (!status) return "it hangs";
  if (*status == kNoProvider) return "there is no provider";
  if (*status == kNotSaved) return kNotSavedText;
  return *status == 0 ? "" : "it ends with " + std::to_string(*status);
}

}  // namespace zav::test
