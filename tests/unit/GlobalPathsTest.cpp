#include "common/GlobalPaths.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "support/Device.h"
#include "support/LogRecorder.h"
#include "support/Surroundings.h"

namespace zav::test {
namespace {

using common::makeDir;
using testing::ElementsAre;

auto MakeDirLine(int priority, const std::string& message) {
  return PluginLine(priority, "GlobalPaths.cpp", "makeDir", message);
}

TEST(TheSharedPaths, AreTheFixedOnes) {
  EXPECT_EQ(common::runPath, "/tmp/zav-pyx-plugin");
  EXPECT_EQ(common::dataPath, "");
  EXPECT_EQ(common::storagePath, "");
}

TEST(TheSharedPaths, AreCompletedWhereTheLoadOfTheLibraryFoundNoMemory) {
  common::runPath.clear();
  common::completePaths();
  EXPECT_EQ(common::runPath, "/tmp/zav-pyx-plugin");
}

class AServiceDirectory : public testing::Test {
 protected:
  ScratchDirectory scratch;
  const std::string path = scratch + "/run";
};

TEST_F(AServiceDirectory, IsMadeAndTheResultOfTheCallLogged) {
  EXPECT_TRUE(makeDir(path));
  EXPECT_TRUE(std::filesystem::is_directory(path));
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(MakeDirLine(kDebug, path + " : 0")));
}

TEST_F(AServiceDirectory, IsNotWritableForOthers) {
  const Umask all(0);
  ASSERT_TRUE(makeDir(path));
  EXPECT_EQ(PermissionsOf(path), 0755u);
}

TEST_F(AServiceDirectory, HasFewerPermissionsWhereTheMaskTakesThem) {
  const Umask mine(077);
  ASSERT_TRUE(makeDir(path));
  EXPECT_EQ(PermissionsOf(path), 0700u);
}

TEST_F(AServiceDirectory, ThatExistsIsASuccess) {
  std::filesystem::create_directory(path);
  EXPECT_TRUE(makeDir(path));
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(MakeDirLine(kDebug, path + " : -1")));
}

TEST_F(AServiceDirectory, CountsAsThereWhenAFileHasItsName) {
  WriteFile(path, "file");
  EXPECT_TRUE(makeDir(path));
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(MakeDirLine(kDebug, path + " : -1")));
}

TEST_F(AServiceDirectory, WithoutAParentIsAFailureThatNamesTheReason) {
  EXPECT_FALSE(makeDir(path + "/deeper"));
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(MakeDirLine(kError, path + "/deeper : No such file or directory")));
  EXPECT_FALSE(FileExists(path));
}

TEST_F(AServiceDirectory, FailsWithTheReasonOfItsOwnCallWhateverErrnoWasBefore) {
  const std::string name = path + std::string(300, 'x');
  errno = EEXIST;
  EXPECT_FALSE(makeDir(name));
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(MakeDirLine(kError, name + " : File name too long")));
}

// isOwnDirectory

TEST_F(AServiceDirectory, IsOnesOwnAsItIsMade) {
  const Umask usual(022);
  ASSERT_TRUE(makeDir(path));
  LogRecorder::Clear();
  EXPECT_TRUE(common::isOwnDirectory(path));
  EXPECT_THAT(LogRecorder::Lines(), testing::IsEmpty());
}

TEST_F(AServiceDirectory, IsNotOnesOwnWhereOthersCanWrite) {
  ASSERT_TRUE(makeDir(path));
  for (const mode_t mode : {0775U, 0757U, 01777U}) {
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
    EXPECT_FALSE(common::isOwnDirectory(path)) << std::oct << mode;
  }
}

TEST_F(AServiceDirectory, IsNotOnesOwnWhenItIsNoneOrALinkToOne) {
  EXPECT_FALSE(common::isOwnDirectory(path));
  WriteFile(path, "file");
  EXPECT_FALSE(common::isOwnDirectory(path));
  std::filesystem::remove(path);
  std::filesystem::create_directory_symlink(scratch + "", path);
  EXPECT_FALSE(common::isOwnDirectory(path));
}

TEST_F(AServiceDirectory, IsNotOnesOwnWhenItIsAnotherUsers) {
  ASSERT_TRUE(makeDir(path));
  // Who cannot give one away is not root, and no directory of root's is their own.
  const std::string others = chown(path.c_str(), 1, 1) == 0 ? path : "/proc/1";
  EXPECT_FALSE(common::isOwnDirectory(others));
}

}  // namespace
}  // namespace zav::test
