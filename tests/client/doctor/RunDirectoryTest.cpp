#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

#include "doctor/DeviceFiles.h"
#include "support/Device.h"
#include "support/Surroundings.h"

namespace zav::client::test {
namespace {

namespace fs = std::filesystem;
using pyxctl::doctor::ExamineRunDirectory;
using pyxctl::doctor::ExamineSocket;
using testing::ElementsAre;
using testing::IsEmpty;
using zav::test::WriteFile;

constexpr uid_t kSomebody = 1;

/// A socket that nobody serves.
void MakeSocket(const std::string& path, mode_t mode) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ::close(fd);
  EXPECT_EQ(::chmod(path.c_str(), mode), 0);
}

class ARunDirectory : public testing::Test {
 protected:
  void SetMode(unsigned mode) const { fs::permissions(device.paths.RunDirectory(), fs::perms(mode)); }

  DeviceFiles device;
};

TEST_F(ARunDirectory, IsSoundAsTheServiceMakesIt) {
  EXPECT_THAT(device.Examined(ExamineRunDirectory), IsEmpty());
}

TEST_F(ARunDirectory, IsMissing) {
  fs::remove(device.paths.RunDirectory());
  EXPECT_THAT(device.Examined(ExamineRunDirectory),
              ElementsAre(IsProblem("there is no " + device.paths.RunDirectory())));
}

TEST_F(ARunDirectory, IsSomethingElse) {
  fs::remove(device.paths.RunDirectory());
  WriteFile(device.paths.RunDirectory(), "");
  EXPECT_THAT(device.Examined(ExamineRunDirectory), ElementsAre(IsProblem("is a file, and no directory")));
  fs::remove(device.paths.RunDirectory());
  fs::create_symlink(device.paths.storageDirectory, device.paths.RunDirectory());
  EXPECT_THAT(device.Examined(ExamineRunDirectory), ElementsAre(IsProblem("is a symbolic link, and no directory")));
}

TEST_F(ARunDirectory, LetsOthersReplaceTheSocket) {
  for (const unsigned mode : {0777U, 0775U, 01777U}) {
    SetMode(mode);
    EXPECT_THAT(device.Examined(ExamineRunDirectory),
                ElementsAre(IsProblem("lets others than its owner put a socket")));
  }
}

TEST_F(ARunDirectory, AdmitsAGroup) {
  SetMode(0750);
  EXPECT_THAT(device.Examined(ExamineRunDirectory),
              ElementsAre(IsNote("0750, admits the programs of its group alone")));
}

TEST_F(ARunDirectory, AdmitsNobody) {
  SetMode(0700);
  EXPECT_THAT(device.Examined(ExamineRunDirectory), ElementsAre(IsWarning("0700, admits no program but its owner's")));
}

TEST_F(ARunDirectory, BelongsToSomebodyElse) {
  if (::chown(device.paths.RunDirectory().c_str(), kSomebody, kSomebody) != 0) GTEST_SKIP() << "no other user";
  EXPECT_THAT(device.Examined(ExamineRunDirectory),
              ElementsAre(IsProblem("whoever owns it owns the name of the socket")));
}

TEST_F(ARunDirectory, CannotBeLookedAt) {
  device.paths.socket = device.paths.storageDirectory + "/run/.socket";
  fs::create_directory(device.paths.RunDirectory());
  fs::permissions(device.paths.storageDirectory, fs::perms::none);
  const zav::test::WithoutPrivilege ordinary;
  EXPECT_THAT(device.Examined(ExamineRunDirectory), ElementsAre(IsWarning("not examined: this user may not look")));
  EXPECT_THAT(device.Examined(ExamineSocket), ElementsAre(IsWarning("not examined: this user may not look")));
}

class ASocket : public ARunDirectory {};

TEST_F(ASocket, IsSoundAsTheServiceMakesIt) {
  MakeSocket(device.paths.socket, 01777);
  EXPECT_THAT(device.Examined(ExamineSocket), IsEmpty());
}

TEST_F(ASocket, IsMissing) {
  EXPECT_THAT(device.Examined(ExamineSocket), ElementsAre(IsProblem("there is no " + device.paths.socket)));
}

TEST_F(ASocket, IsNoSocket) {
  WriteFile(device.paths.socket, "");
  EXPECT_THAT(device.Examined(ExamineSocket), ElementsAre(IsProblem("is a file, and no socket")));
}

// The service may have ended for want of its directory: to switch the plug-in on then ends the daemon.
TEST_F(ASocket, ThatIsNotThereIsNoReasonToSwitchThePlugInOn) {
  const auto judge = [this](const std::string& advice) {
    for (const auto examine : {ExamineRunDirectory, ExamineSocket}) {
      for (const auto& finding : device.Examined(*examine)) {
        EXPECT_THAT(finding.advice, testing::HasSubstr(advice));
        EXPECT_THAT(finding.advice, testing::Not(testing::HasSubstr("off and on")));
      }
    }
  };
  WriteFile(device.paths.socket, "");
  EXPECT_EQ(device.Examined(ExamineSocket).size(), 1U);
  judge("start the daemon anew");
  fs::remove_all(device.paths.RunDirectory());
  EXPECT_EQ(device.Examined(ExamineRunDirectory).size(), 1U);
  judge("do not switch the plug-in on");
  WriteFile(device.paths.RunDirectory(), "");
  judge("the daemon");
}

TEST_F(ASocket, KeepsUsersFromConnecting) {
  MakeSocket(device.paths.socket, 0755);
  EXPECT_THAT(device.Examined(ExamineSocket),
              ElementsAre(IsWarning("0755, keeps users of the device from connecting")));
}

TEST_F(ASocket, BelongsToSomebodyElse) {
  MakeSocket(device.paths.socket, 0777);
  if (::chown(device.paths.socket.c_str(), kSomebody, kSomebody) != 0) GTEST_SKIP() << "no other user";
  EXPECT_THAT(device.Examined(ExamineSocket), ElementsAre(IsProblem("it may not be the service's")));
}

}  // namespace
}  // namespace zav::client::test
