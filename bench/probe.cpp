// bench-probe: the least that can host the plug-in, to see what the plug-in adds to a process. It waits for a line on
// its standard input before it loads the library, and after that until the input ends; what it prints is JSON.

#include <dlfcn.h>
#include <dlog/control.h>
#include <dlog/dlog.h>
#include <dpm/AbstractDPluginProvider.h>
#include <dpm/PolicyStorage.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "ipc/service/Package.h"

namespace {

using Clock = std::chrono::steady_clock;

class MemoryBackend final : public PolicyStorageBackend {
 public:
  int store(const std::string& name, int status) override {
    statuses[name] = status;
    return 0;
  }
  int read(const std::string& name) override { return statuses[name]; }

 private:
  std::map<std::string, int> statuses;
};

/// Whether the feature's state was asked for and answered. No more system calls than that takes.
bool IsAnswered() {
  const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/tmp/zav-pyx-plugin/.socket");
  bool answered = false;
  if (connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
    zav::ipc::Header header;
    header.method = static_cast<std::int32_t>(zav::ipc::Method::kGetPyxState);
    const auto request = zav::ipc::Encode(header);
    zav::ipc::PackageBytes<zav::ipc::StatePackage> bytes{};
    answered = send(client, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size()) &&
               recv(client, bytes.data(), bytes.size(), MSG_WAITALL) == static_cast<ssize_t>(bytes.size()) &&
               zav::ipc::Decode<zav::ipc::StatePackage>(bytes).code == zav::ipc::kPyxStateCode;
  }
  close(client);
  return answered;
}

double Milliseconds(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double, std::milli>(to - from).count();
}

/// Stays loaded; the process ends as it is.
bool Start(const char* library) {
  const Clock::time_point begin = Clock::now();
  void* const loaded = dlopen(library, RTLD_NOW | RTLD_LOCAL);
  if (loaded == nullptr) {
    std::fprintf(stderr, "bench-probe: %s\n", dlerror());
    return false;
  }
  const auto factory = reinterpret_cast<AbstractDPluginProvider* (*)()>(dlsym(loaded, "DPluginFactory"));
  const Clock::time_point called = Clock::now();
  if (factory == nullptr || factory() == nullptr) return false;
  const Clock::time_point made = Clock::now();
  constexpr std::chrono::seconds kPatience{60};
  while (!IsAnswered()) {
    if (Clock::now() - made > kPatience) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(20));
  }
  std::printf("{\"load_ms\": %.3f, \"factory_ms\": %.3f, \"answer_ms\": %.3f}\n", Milliseconds(begin, called),
              Milliseconds(called, made), Milliseconds(called, Clock::now()));
  return std::fflush(stdout) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("Usage: bench-probe LIBRARY\n", stderr);
    return 2;
  }
  MemoryBackend backend;
  PolicyStorage::backend = &backend;
  dlog::SetLevel(DLOG_WARN);
  std::puts("{}");
  std::fflush(stdout);
  std::string line;
  if (!std::getline(std::cin, line)) return 0;
  if (!Start(argv[1])) return 1;
  while (std::getline(std::cin, line)) {
  }
  // The plug-in's thread ends with the library.
  std::exit(0);
}
