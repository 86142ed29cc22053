#include "faults/disk/SystemCallTracer.h"

#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/wait.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <set>
#include <system_error>

namespace zav::test {
namespace {

// PTRACE_O_TRACESYSGOOD marks the stops of system calls so.
constexpr int kSystemCallStop = SIGTRAP | 0x80;
constexpr int kEventShift = 16;
constexpr size_t kLongestText = 4096;

void* Number(std::uint64_t value) {
  return std::bit_cast<void*>(value);
}

/// @return false when the thread has ended.
bool Seize(pid_t thread) {
  const std::uint64_t options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL;
  if (ptrace(PTRACE_SEIZE, thread, nullptr, Number(options)) == 0) {
    ptrace(PTRACE_INTERRUPT, thread, nullptr, nullptr);
    return true;
  }
  if (errno == ESRCH || errno == EPERM) return false;
  throw std::system_error(errno, std::generic_category(), "ptrace");
}

}  // namespace

SystemCallTracer::SystemCallTracer(pid_t traced) : process(traced) {
  std::set<pid_t> seized;
  // Until a look shows no thread that is new: one that was not yet traced may have started it.
  for (bool found = true; found;) {
    found = false;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
      const pid_t thread = std::stoi(entry.path().filename());
      if (seized.insert(thread).second && Seize(thread)) found = true;
    }
  }
}

void SystemCallTracer::Run(const Visit& before, const Visit& after) {
  for (;;) {
    int status = 0;
    const pid_t thread = waitpid(-1, &status, __WALL);
    if (thread == -1 && errno == EINTR) continue;
    if (thread == -1) return;
    if (!WIFSTOPPED(status)) continue;
    const int signal = WSTOPSIG(status);
    const bool isSystemCall = signal == kSystemCallStop;
    if (isSystemCall) Look(thread, before, after);
    const bool isDelivery = !isSystemCall && status >> kEventShift == 0;
    ptrace(PTRACE_SYSCALL, thread, nullptr, Number(isDelivery ? static_cast<unsigned>(signal) : 0));
  }
}

void SystemCallTracer::Look(pid_t thread, const Visit& before, const Visit& after) {
  __ptrace_syscall_info info{};
  if (ptrace(PTRACE_GET_SYSCALL_INFO, thread, Number(sizeof(info)), &info) <= 0) return;
  if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
    SystemCall& call = calls[thread];
    call.number = static_cast<long>(info.entry.nr);
    std::copy(std::begin(info.entry.args), std::end(info.entry.args), call.arguments.begin());
    before(call);
  } else if (info.op == PTRACE_SYSCALL_INFO_EXIT && calls.contains(thread)) {
    SystemCall call = calls[thread];
    call.result = info.exit.rval;
    after(call);
  }
}

std::string SystemCallTracer::Memory(std::uint64_t address, size_t size) const {
  std::string bytes(size, '\0');
  const iovec here{bytes.data(), size};
  const iovec there{Number(address), size};
  const ssize_t got = process_vm_readv(process, &here, 1, &there, 1, 0);
  bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
  return bytes;
}

std::string SystemCallTracer::Text(std::uint64_t address) const {
  constexpr std::uint64_t kSmallestPage = 4096;
  std::string text;
  // Not across the end of what is mapped.
  while (text.find('\0') == std::string::npos && text.size() < kLongestText) {
    const std::uint64_t next = address + text.size();
    const std::string piece = Memory(next, kSmallestPage - next % kSmallestPage);
    if (piece.empty()) break;
    text += piece;
  }
  return text.substr(0, text.find('\0'));
}

}  // namespace zav::test
