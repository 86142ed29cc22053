#include "common/Storage.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/Device.h"
#include "support/LogRecorder.h"
#include "support/Surroundings.h"
#include "support/ThisProcess.h"

namespace zav::test {
namespace {

using common::ReadFromStorage;
using testing::ElementsAre;
using testing::IsEmpty;

class TheDefaultPolicyFile : public testing::Test {
 protected:
  void SetUp() override { MakeStorageDirectory(); }
};

TEST_F(TheDefaultPolicyFile, IsReadByteForByte) {
  using namespace std::string_literals;
  const std::string content = "{\r\n\0\xff\x1a }\n\n"s + std::string(100'000, 'x');
  WriteFile(kDefaultPolicy, content);
  EXPECT_EQ(ReadFromStorage(), content);
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(TheDefaultPolicyFile, ThatIsEmptyReadsAsEmptyTextAndLogsNothing) {
  WriteFile(kDefaultPolicy, "");
  EXPECT_EQ(ReadFromStorage(), "");
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(TheDefaultPolicyFile, ThatIsNotThereReadsAsEmptyTextAndLogsNothing) {
  EXPECT_EQ(ReadFromStorage(), "");
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(TheDefaultPolicyFile, WithoutTheRightToReadItReadsAsEmptyText) {
  WriteFile(kDefaultPolicy, "{}");
  std::filesystem::permissions(kDefaultPolicy, std::filesystem::perms::none);
  const WithoutPrivilege plain;
  EXPECT_EQ(ReadFromStorage(), "");
}

TEST_F(TheDefaultPolicyFile, ThatIsADirectoryFailsToBeRead) {
  std::filesystem::create_directory(kDefaultPolicy);
  EXPECT_EQ(ReadFromStorage(), "");
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(PluginLine(kError, "Storage.cpp", "ReadFromStorage",
                                                           "Failed to read policy.json from storage.")));
}

TEST_F(TheDefaultPolicyFile, ThatIsAPipeOrADeviceFailsToBeRead) {
  // Opened, the pipe would wait for a writer; read, the device would never end.
  ASSERT_EQ(mkfifo(kDefaultPolicy.c_str(), 0600), 0);
  EXPECT_EQ(ReadFromStorage(), "");
  std::filesystem::remove(kDefaultPolicy);
  std::filesystem::create_symlink("/dev/zero", kDefaultPolicy);
  EXPECT_EQ(ReadFromStorage(), "");
  const auto failed = PluginLine(kError, "Storage.cpp", "ReadFromStorage", "Failed to read policy.json from storage.");
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(failed, failed));
}

TEST_F(TheDefaultPolicyFile, ThatGivesAnErrorWhenItIsReadIsAFailure) {
  // The memory of a process can be opened, and cannot be read where nothing is mapped.
  std::filesystem::create_symlink("/proc/self/mem", kDefaultPolicy);
  EXPECT_EQ(ReadFromStorage(), "");
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(PluginLine(kError, "Storage.cpp", "ReadFromStorage",
                                                           "Failed to read policy.json from storage.")));
}

TEST_F(TheDefaultPolicyFile, IsClosedAfterEveryRead) {
  const auto before = Descriptors();
  WriteFile(kDefaultPolicy, "{}");
  ReadFromStorage();
  std::filesystem::remove(kDefaultPolicy);
  ReadFromStorage();
  std::filesystem::create_directory(kDefaultPolicy);
  ReadFromStorage();
  EXPECT_EQ(Descriptors(), before);
}

}  // namespace
}  // namespace zav::test
