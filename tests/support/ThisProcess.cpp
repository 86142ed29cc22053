#include "support/ThisProcess.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <thread>

#include "support/WaitUntil.h"

namespace zav::test {
namespace {

std::set<int> Numbers(const char* directory) {
  std::set<int> numbers;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    numbers.insert(std::stoi(entry.path().filename()));
  }
  return numbers;
}

bool MakeAThread() {
  pid_t thread = 0;
  std::thread([&] { thread = gettid(); }).join();
  return WaitUntil([&] { return !Numbers("/proc/self/task").contains(thread); });
}

}  // namespace

std::set<int> ThreadIds() {
  // A sanitizer starts a thread of its own with the first thread of the program.
  static const bool hasThreads = MakeAThread();
  return hasThreads ? Numbers("/proc/self/task") : std::set<int>();
}

namespace {

/// What follows `name` in what the kernel tells of a thread; empty for a thread that is gone.
std::string StatusOf(int thread, const std::string& name) {
  std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name)) return line.substr(name.size());
  }
  return {};
}

}  // namespace

std::uint64_t BlockedSignals(int thread) {
  const std::string bits = StatusOf(thread, "SigBlk:");
  return bits.empty() ? 0 : std::stoull(bits, nullptr, 16);
}

bool IsAsleep(int thread) {
  return StatusOf(thread, "State:").starts_with("\tS");
}

long SleepsOf(int thread) {
  return std::stol(StatusOf(thread, "voluntary_ctxt_switches:"));
}

std::set<int> Descriptors() {
  std::set<int> open = Numbers("/proc/self/fd");
  // The one that the listing itself had.
  std::erase_if(open, [](int fd) { return fcntl(fd, F_GETFD) == -1; });
  return open;
}

bool IsCloseOnExec(int descriptor) {
  return (fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0;
}

bool IsMapped(const std::string& name) {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find(name) != std::string::npos) return true;
  }
  return false;
}

bool OccupyDescriptorsBelow(int number) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::min(limit.rlim_max, static_cast<rlim_t>(number) + 1000);
  setrlimit(RLIMIT_NOFILE, &limit);
  int last = 0;
  while (last != -1 && last < number) last = open("/dev/null", O_RDONLY | O_CLOEXEC);
  return last != -1;
}

OutputDescriptor::OutputDescriptor() : kept_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)) {}

OutputDescriptor::~OutputDescriptor() {
  dup2(kept_, STDOUT_FILENO);
  close(kept_);
}

void OutputDescriptor::Free() {
  close(STDOUT_FILENO);
}

}  // namespace zav::test
