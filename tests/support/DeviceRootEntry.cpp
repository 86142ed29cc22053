#include "support/DeviceRootEntry.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string_view>

namespace zav::test {
namespace {

constexpr const char* kVariable = "DEVICE_ROOT";
constexpr int kCannotRun = 125;

}  // namespace

DeviceRoot CurrentDeviceRoot() {
  const char* root = std::getenv(kVariable);
  if (root == nullptr) return DeviceRoot::kNone;
  return std::string_view(root) == "real" ? DeviceRoot::kReal : DeviceRoot::kPrivate;
}

int EnterDeviceRoot(char** arguments, const std::vector<std::string>& keep) {
  std::vector<std::string> words{ZAV_DEVICE_ROOT_TOOL, "--opt-tmpfs", "--tmp-tmpfs"};
  for (const auto& directory : keep) words.insert(words.end(), {"--keep", directory});
  words.insert(words.end(), {"--", std::filesystem::read_symlink("/proc/self/exe")});
  for (char** argument = arguments + 1; *argument != nullptr; ++argument) words.emplace_back(*argument);
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (auto& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  execv(pointers[0], pointers.data());
  std::perror(ZAV_DEVICE_ROOT_TOOL);
  return kCannotRun;
}

void ClearDeviceRoot() {
  std::filesystem::remove_all("/opt/data/dpm/dplugins/zav-pyx-plugin");
  std::filesystem::remove_all("/tmp/zav-pyx-plugin");
}

}  // namespace zav::test
