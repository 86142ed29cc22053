// A small plug-in for the host's tests: a real library with a factory and a provider.

#include <cstdlib>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <string>

#include "dlog/dlog.h"
#include "dpm/AbstractDPluginProvider.h"
#include "dpm/PolicyStorage.h"

namespace {

constexpr const char* kPolicyName = "test-policy";

void Log(const char* text) {
  __dlog_print(DLOG_BUFFER_MAIN, DLOG_INFO, "TEST_PLUGIN", "%s", text);
}

/// Stands still until whoever has the FIFO's other end lets go of it.
void PassGate(const char* fifo) {
  if (fifo == nullptr) return;
  std::ifstream gate(fifo);
  gate.get();
}

/// Counts since the library was loaded, and tells when it goes.
struct Library {
  int count = 0;
  ~Library() { Log("library unloaded"); }
} library;

class TestProvider : public AbstractDPluginProvider {
 public:
  ~TestProvider() override {
    PassGate(std::getenv("TEST_PLUGIN_EXIT"));
    Log("provider deleted");
  }

  int setStatus(int status) override {
    if (status < 0) return -1;
    const std::lock_guard lock(PolicyStorage::dbLock);
    return PolicyStorage::backend->store(kPolicyName, status);
  }

  int getStatus() override {
    const std::lock_guard lock(PolicyStorage::dbLock);
    return PolicyStorage::backend->read(kPolicyName);
  }

  void applyStatus(int status) override { Log(("applied " + std::to_string(status)).c_str()); }

  std::string executeCommand(const std::string& command, const std::string& data) override {
    if (command == "Count") return "count " + std::to_string(++library.count) + "\n";
    if (command == "Throw") throw std::runtime_error("thrown\nby the plug-in");
    if (command == "Hang") PassGate(data.c_str());
    if (command == "Lines") return "first\nsecond\r\tthird\x01\x7f\n";
    return "[" + command + "][" + data + "]\n";
  }
};

}  // namespace

extern "C" __attribute__((visibility("default"))) AbstractDPluginProvider* DPluginFactory() {
  if (std::getenv("TEST_PLUGIN_REFUSES") != nullptr) return nullptr;
  PassGate(std::getenv("TEST_PLUGIN_ENTRY"));
  return new TestProvider;
}
