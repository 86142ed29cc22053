// The main program of every test program.
//
// The plug-in's paths are fixed, so a test runs on a device root of its own: an empty /opt and an empty /tmp that only
// its process sees. And it runs in a process of its own, since the plug-in's singletons live as long as the process:
// asked for several tests, the program starts itself once for each.

#include <gmock/gmock.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "support/DeviceRootEntry.h"

namespace {

using zav::test::DeviceRoot;

constexpr int kCannotRun = 125;

/// Which tests the filter selects is not to be had from the library before it runs them, but from its list.
std::vector<std::string> SelectedTests() {
  const std::string program = std::filesystem::read_symlink("/proc/self/exe");
  const std::string command =
      "'" + program + "' --gtest_list_tests '--gtest_filter=" + testing::GTEST_FLAG(filter) + "'";
  FILE* list = popen(command.c_str(), "r");
  if (list == nullptr) return {};
  std::vector<std::string> names;
  std::string suite;
  std::array<char, 4096> line{};
  while (std::fgets(line.data(), line.size(), list) != nullptr) {
    // "Suite." or "Suite.  # comment", then "  Test" or "  Test  # comment" for each of its tests.
    const std::string text = line.data();
    const bool isTest = text.starts_with("  ");
    const auto begin = text.find_first_not_of(' ');
    const std::string name = text.substr(begin, text.find_first_of(" \n", begin) - begin);
    if (isTest) {
      names.push_back(suite + name);
    } else {
      suite = name;
    }
  }
  pclose(list);
  return names;
}

bool IsOneTest(const std::string& filter) {
  return filter.find_first_of("*?:-") == std::string::npos;
}

int RunInProcessOfItsOwn(const std::string& test) {
  std::string program = "/proc/self/exe";
  std::string filter = "--gtest_filter=" + test;
  std::array<char*, 3> arguments{program.data(), filter.data(), nullptr};
  pid_t child = 0;
  if (posix_spawn(&child, program.c_str(), nullptr, nullptr, arguments.data(), environ) != 0) return kCannotRun;
  int status = 0;
  while (waitpid(child, &status, 0) == -1) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : kCannotRun;
}

int RunEach(const std::vector<std::string>& tests) {
  std::vector<std::string> failed;
  for (const auto& test : tests) {
    if (RunInProcessOfItsOwn(test) != 0) failed.push_back(test);
  }
  for (const auto& test : failed) std::printf("failed: %s\n", test.c_str());
  std::printf("%zu passed, %zu failed\n", tests.size() - failed.size(), failed.size());
  return failed.empty() ? 0 : 1;
}

/// Where there are no namespaces, the tests have the machine's own directories, one test at a time.
class RealDeviceRoot : public testing::Environment {
 public:
  void SetUp() override { zav::test::ClearDeviceRoot(); }
  void TearDown() override { zav::test::ClearDeviceRoot(); }
};

}  // namespace

int main(int count, char** arguments) {
  const std::vector<std::string> original(arguments, arguments + count);
  testing::InitGoogleMock(&count, arguments);
  if (testing::GTEST_FLAG(list_tests)) return RUN_ALL_TESTS();

  if (!IsOneTest(testing::GTEST_FLAG(filter))) return RunEach(SelectedTests());

  const DeviceRoot root = zav::test::CurrentDeviceRoot();
  if (root == DeviceRoot::kNone) {
    std::vector<std::string> words = original;
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (auto& word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);
    return zav::test::EnterDeviceRoot(pointers.data(), {ZAV_BUILD_DIRECTORY});
  }
  if (root == DeviceRoot::kReal) testing::AddGlobalTestEnvironment(new RealDeviceRoot);
  return RUN_ALL_TESTS();
}
