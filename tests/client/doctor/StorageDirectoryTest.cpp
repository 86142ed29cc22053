#include <unistd.h>

#include <filesystem>

#include "doctor/DeviceFiles.h"
#include "support/Device.h"
#include "support/Surroundings.h"

namespace zav::client::test {
namespace {

namespace fs = std::filesystem;
using pyxctl::doctor::ExamineRoom;
using pyxctl::doctor::ExamineStorageDirectory;
using pyxctl::doctor::JudgeRoom;
using testing::ElementsAre;
using testing::IsEmpty;

class AStorageDirectory : public testing::Test {
 protected:
  const std::string& path() const { return device.paths.storageDirectory; }
  void SetMode(unsigned mode) const { fs::permissions(path(), fs::perms(mode)); }

  DeviceFiles device;
};

TEST_F(AStorageDirectory, IsSoundWhenItsOwnerAloneMayChangeIt) {
  for (const unsigned mode : {0700U, 0755U}) {
    SetMode(mode);
    EXPECT_THAT(device.Examined(ExamineStorageDirectory), IsEmpty());
  }
}

TEST_F(AStorageDirectory, IsMissing) {
  fs::remove_all(path());
  EXPECT_THAT(device.Examined(ExamineStorageDirectory), ElementsAre(IsProblem("there is no " + path())));
}

TEST_F(AStorageDirectory, IsALink) {
  fs::rename(path(), path() + ".real");
  fs::create_symlink(path() + ".real", path());
  EXPECT_THAT(device.Examined(ExamineStorageDirectory), ElementsAre(IsProblem("is a symbolic link, and no directory")));
}

TEST_F(AStorageDirectory, HoldsAFileThatOthersMayWrite) {
  for (const std::string& file : {device.paths.Database(), device.paths.Backup(), device.paths.DefaultPolicy()}) {
    fs::permissions(file, fs::perms(0666));
    EXPECT_THAT(device.Examined(ExamineStorageDirectory), ElementsAre(IsProblem(file + " has mode 0666")));
    fs::permissions(file, fs::perms(0644));
  }
}

TEST_F(AStorageDirectory, HoldsALinkInPlaceOfAFile) {
  const std::string file = device.paths.DefaultPolicy();
  fs::rename(file, file + ".real");
  fs::create_symlink(file + ".real", file);
  EXPECT_THAT(device.Examined(ExamineStorageDirectory), ElementsAre(IsProblem(file + " is a symbolic link")));
}

TEST_F(AStorageDirectory, HoldsAFileOfAnotherUser) {
  const std::string file = device.paths.Database();
  // Who is root in a namespace of his own alone knows no other user.
  if (::chown(file.c_str(), 65534, 65534) != 0) GTEST_SKIP() << "only root gives files away";
  EXPECT_THAT(device.Examined(ExamineStorageDirectory), ElementsAre(IsProblem(file + " belongs to ")));
}

TEST_F(AStorageDirectory, IsOpenToItsGroup) {
  SetMode(0770);
  EXPECT_THAT(device.Examined(ExamineStorageDirectory), ElementsAre(IsWarning("0770, lets its group replace")));
}

TEST_F(AStorageDirectory, IsOpenToEverybody) {
  SetMode(0777);
  EXPECT_THAT(device.Examined(ExamineStorageDirectory), ElementsAre(IsProblem("0777, lets every user replace")));
}

TEST_F(AStorageDirectory, StandsWhereEverybodyCanReplaceIt) {
  const std::string parent = path() + "/open";
  device.paths.storageDirectory = parent + "/storage";
  fs::create_directories(path());
  fs::permissions(parent, fs::perms(0777));
  EXPECT_THAT(device.Examined(ExamineStorageDirectory), ElementsAre(IsProblem(parent + " above it has mode 0777")));
  fs::permissions(parent, fs::perms(01777));
  EXPECT_THAT(device.Examined(ExamineStorageDirectory), IsEmpty());
}

TEST_F(AStorageDirectory, CannotBeLookedAt) {
  const std::string parent = path();
  device.paths.storageDirectory = parent + "/storage";
  fs::permissions(parent, fs::perms::none);
  const zav::test::WithoutPrivilege ordinary;
  EXPECT_THAT(device.Examined(ExamineStorageDirectory), ElementsAre(IsWarning("not examined: this user may not look")));
  EXPECT_THAT(device.Examined(ExamineRoom), ElementsAre(IsWarning("not examined: this user may not look")));
}

/// A disk with so many KiB left.
struct statvfs DiskWith(std::uint64_t kibibytes) {
  struct statvfs disk {};
  disk.f_frsize = 1024;
  disk.f_bavail = kibibytes;
  disk.f_files = 100;
  disk.f_favail = 10;
  return disk;
}

TEST(ADisk, HasRoom) {
  EXPECT_THAT(JudgeRoom(DiskWith(1064), "/x", 1 << 20), ElementsAre(IsWarning("less than another copy")));
  EXPECT_THAT(JudgeRoom(DiskWith(1088), "/x", 1 << 20), IsEmpty());
}

TEST(ADisk, IsFull) {
  EXPECT_THAT(JudgeRoom(DiskWith(63), "/x", 0), ElementsAre(IsProblem("/x has 63 KiB left: reports cannot be stored")));
  EXPECT_THAT(JudgeRoom(DiskWith(64), "/x", 0), IsEmpty());
}

TEST(ADisk, HasNoRoomForAFile) {
  struct statvfs disk = DiskWith(1 << 20);
  disk.f_favail = 0;
  EXPECT_THAT(JudgeRoom(disk, "/x", 0), ElementsAre(IsProblem("has no room for another file")));
  // Some file systems do not count them.
  disk.f_files = 0;
  EXPECT_THAT(JudgeRoom(disk, "/x", 0), IsEmpty());
}

TEST_F(AStorageDirectory, LiesOnADiskThatIsReadOnlyOrFull) {
  EXPECT_THAT(device.Examined(ExamineRoom), IsEmpty());
  zav::test::SmallDisk disk(path(), 1 << 20);
  if (!disk.IsMounted()) GTEST_SKIP() << "no right to mount";
  EXPECT_THAT(device.Examined(ExamineRoom), IsEmpty());
  disk.Resize(4096);
  EXPECT_THAT(device.Examined(ExamineRoom), ElementsAre(IsProblem("reports cannot be stored")));
  disk.MakeReadOnly();
  EXPECT_THAT(device.Examined(ExamineRoom), ElementsAre(IsProblem(path() + " is read-only")));
}

TEST(AStorageDirectoryThatIsNotThere, HasNothingInItThatIsSaidToBeSound) {
  const DeviceFiles device;
  std::filesystem::remove_all(device.paths.storageDirectory);
  std::map<std::string, Severity> severities;
  for (const Finding& each : device.Examined()) severities[each.subject] = each.severity;
  EXPECT_EQ(severities["storage directory"], Severity::kProblem);
  for (const char* const subject : {"disk", "database", "backup", "notes", "stored policies", "policy.json"}) {
    ASSERT_TRUE(severities.contains(subject)) << subject;
    EXPECT_EQ(severities[subject], Severity::kWarning) << subject;
  }
}

}  // namespace
}  // namespace zav::client::test
