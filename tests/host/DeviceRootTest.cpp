#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "Child.h"
#include "support/TemporaryDirectory.h"

namespace {

using zav::test::TemporaryDirectory;

using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class ADeviceRoot : public testing::Test {
 protected:
  void SetUp() override {
    if (RunToEnd({DEVICE_ROOT_PROGRAM, "--check"}).status != 0) GTEST_SKIP() << "this machine refuses namespaces";
  }

  static Outcome Run(std::vector<std::string> options, const std::string& script) {
    options.insert(options.begin(), DEVICE_ROOT_PROGRAM);
    options.insert(options.end(), {"--", "sh", "-c", script});
    return RunToEnd(options);
  }

  static std::string Quoted(const std::string& path) { return "'" + path + "'"; }

  TemporaryDirectory directory;
};

TEST_F(ADeviceRoot, IsToBeHadHere) {
  const Outcome outcome = RunToEnd({DEVICE_ROOT_PROGRAM, "--check"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.output + outcome.errors, IsEmpty());
}

TEST_F(ADeviceRoot, HasItsOwnEmptyDirectories) {
  const Outcome outcome =
      Run({"--opt-tmpfs", "--tmp-tmpfs"}, "ls -A /opt /tmp; touch /opt/new /tmp/new && ls /opt /tmp");
  EXPECT_EQ(outcome.output, "/opt:\n\n/tmp:\n/opt:\nnew\n\n/tmp:\nnew\n") << outcome.errors;
  EXPECT_FALSE(std::filesystem::exists("/opt/new"));
  EXPECT_FALSE(std::filesystem::exists("/tmp/new"));
}

TEST_F(ADeviceRoot, GivesEverybodyTheRightToTheEmptyTmp) {
  EXPECT_EQ(Run({"--tmp-tmpfs"}, "stat -c %a /tmp").output, "1777\n");
}

TEST_F(ADeviceRoot, HasADirectoryOfTheCallerAtOpt) {
  const Outcome outcome = Run({"--opt", directory.path()}, "echo text > /opt/file");
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_TRUE(std::filesystem::exists(directory / "file"));
  EXPECT_FALSE(std::filesystem::exists("/opt/file"));
}

TEST_F(ADeviceRoot, HasADirectoryOfTheCallerAtTmpThatIsStillThereUnderItsOwnPath) {
  const Outcome outcome = Run({"--tmp", directory.path()}, "echo text > /tmp/file; cat " + Quoted(directory / "file"));
  EXPECT_EQ(outcome.output, "text\n") << outcome.errors;
  EXPECT_TRUE(std::filesystem::exists(directory / "file"));
}

TEST_F(ADeviceRoot, LeavesAloneWhatIsNotAskedFor) {
  std::ofstream(directory / "file") << "text";
  EXPECT_EQ(Run({"--opt-tmpfs"}, "cat " + Quoted(directory / "file")).output, "text");
}

TEST_F(ADeviceRoot, KeepsADirectoryBelowTmp) {
  std::ofstream(directory / "file") << "text";
  const Outcome outcome = Run({"--opt-tmpfs", "--tmp-tmpfs", "--keep", directory.path()},
                              "ls /tmp; cat " + Quoted(directory / "file") + "; touch " + Quoted(directory / "new"));
  EXPECT_EQ(outcome.output, directory.path().filename().string() + "\ntext") << outcome.errors;
  EXPECT_TRUE(std::filesystem::exists(directory / "new"));
}

TEST_F(ADeviceRoot, HidesADirectoryBelowTmpThatIsNotKept) {
  EXPECT_EQ(Run({"--tmp-tmpfs"}, "test -e " + Quoted(directory.path())).status, 1);
}

TEST_F(ADeviceRoot, KeepsADirectoryUnderThePathThatWasGivenToo) {
  std::filesystem::create_directories(directory / "real/project");
  std::ofstream(directory / "real/project/file") << "text";
  std::filesystem::create_directory_symlink(directory / "real", directory / "link");
  EXPECT_EQ(Run({"--tmp-tmpfs", "--keep", directory / "link/project"},
                "cat " + Quoted(directory / "link/project/file") + " " + Quoted(directory / "real/project/file"))
                .output,
            "texttext");
}

TEST_F(ADeviceRoot, RefusesToKeepWhatItReplaces) {
  const Outcome outcome = Run({"--tmp-tmpfs", "--keep", "/tmp"}, "true");
  EXPECT_EQ(outcome.status, 125);
  EXPECT_EQ(outcome.errors, "device-root: can't keep /tmp itself: it is to be replaced\n");
}

TEST_F(ADeviceRoot, StaysInTheCurrentDirectory) {
  const auto run = [this](const std::vector<std::string>& options) {
    std::vector<std::string> command{DEVICE_ROOT_PROGRAM};
    command.insert(command.end(), options.begin(), options.end());
    command.insert(command.end(), {"--", "sh", "-c", "pwd; touch here"});
    return RunToEnd(command, [this] { EXPECT_EQ(chdir(directory.path().c_str()), 0); });
  };
  EXPECT_EQ(run({"--opt-tmpfs"}).output, directory.path().string() + "\n");
  EXPECT_TRUE(std::filesystem::remove(directory / "here"));
  EXPECT_EQ(run({"--tmp-tmpfs", "--keep", directory.path()}).output, directory.path().string() + "\n");
  EXPECT_TRUE(std::filesystem::remove(directory / "here"));
}

TEST_F(ADeviceRoot, GoesToTheRootFromACurrentDirectoryThatIsHidden) {
  const Outcome outcome =
      RunToEnd({DEVICE_ROOT_PROGRAM, "--tmp-tmpfs", "pwd"}, [this] { EXPECT_EQ(chdir(directory.path().c_str()), 0); });
  EXPECT_EQ(outcome.output, "/\n");
}

TEST_F(ADeviceRoot, CanStandInAnother) {
  std::ofstream(directory / "file") << "text";
  const Outcome outcome =
      RunToEnd({DEVICE_ROOT_PROGRAM, "--opt-tmpfs", "--tmp-tmpfs", "--keep", directory.path(), "--keep",
                std::filesystem::path(DEVICE_ROOT_PROGRAM).parent_path(), "--", DEVICE_ROOT_PROGRAM, "--opt-tmpfs",
                "--tmp-tmpfs", "--keep", directory.path(), "--", "cat", directory / "file"});
  EXPECT_EQ(outcome.output, "text") << outcome.errors;
}

TEST_F(ADeviceRoot, KeepsItsMountsToItselfWhereMountsAreShared) {
  std::ofstream(directory / "file") << "text";
  const Outcome outcome =
      RunToEnd({"unshare", "--mount", "sh", "-c", R"(mount --make-rshared / && "$0" --tmp-tmpfs true && cat "$1")",
                DEVICE_ROOT_PROGRAM, directory / "file"});
  EXPECT_EQ(outcome.output, "text") << outcome.errors;
}

TEST_F(ADeviceRoot, TellsTheCommandThatItIsPrivate) {
  EXPECT_EQ(Run({"--opt-tmpfs"}, "echo $DEVICE_ROOT").output, "private\n");
}

TEST_F(ADeviceRoot, PassesOnTheExitStatusAndTheSignal) {
  EXPECT_EQ(Run({"--opt-tmpfs"}, "exit 7").status, 7);
  EXPECT_EQ(Run({"--opt-tmpfs"}, "kill -TERM $$").status, 128 + SIGTERM);
}

TEST_F(ADeviceRoot, NamesACommandThatCannotBeRun) {
  const Outcome missing = RunToEnd({DEVICE_ROOT_PROGRAM, "--opt-tmpfs", directory / "missing"});
  EXPECT_EQ(missing.status, 127);
  EXPECT_THAT(missing.errors, StartsWith("device-root: can't run " + directory / "missing"));
  EXPECT_EQ(RunToEnd({DEVICE_ROOT_PROGRAM, "--opt-tmpfs", directory.path()}).status, 126);
}

TEST_F(ADeviceRoot, NamesADirectoryThatIsNotThere) {
  for (const char* option : {"--opt", "--tmp", "--keep"}) {
    const Outcome outcome = Run({option, directory / "missing"}, "true");
    EXPECT_EQ(outcome.status, 125);
    EXPECT_THAT(outcome.errors, HasSubstr("can't open the directory " + directory / "missing"));
  }
}

class ARefusedDeviceRoot : public ADeviceRoot {};

TEST_F(ARefusedDeviceRoot, IsToldByTheCheckAndByACommandInOneLine) {
  // Inside a user namespace its own limit forbids any more of them.
  const Outcome outcome = RunToEnd(
      {"unshare", "--user", "--map-root-user", "sh", "-c",
       R"(echo 0 > /proc/sys/user/max_mnt_namespaces && { "$0" --check; echo $?; "$0" --opt-tmpfs true; echo $?; })",
       DEVICE_ROOT_PROGRAM});
  EXPECT_EQ(outcome.output, "1\n125\n");
  EXPECT_THAT(outcome.errors, StartsWith("device-root: no private /opt and /tmp: the system refuses"));
  EXPECT_EQ(std::count(outcome.errors.begin(), outcome.errors.end(), '\n'), 2);
}

TEST(TheDeviceRootProgram, ShowsItsHelp) {
  const Outcome outcome = RunToEnd({DEVICE_ROOT_PROGRAM, "--help"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.output, HasSubstr("--keep DIR"));
}

TEST(TheDeviceRootProgram, EndsWithItsOwnStatusWhenItsCommandLineIsWrong) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{}, {"--opt-tmpfs"}, {"--what", "true"}, {"--opt"}, {"--keep", "", "true"}}) {
    std::vector<std::string> command{DEVICE_ROOT_PROGRAM};
    command.insert(command.end(), arguments.begin(), arguments.end());
    const Outcome outcome = RunToEnd(command);
    EXPECT_EQ(outcome.status, 125);
    EXPECT_THAT(outcome.errors, StartsWith("device-root: "));
    EXPECT_EQ(std::count(outcome.errors.begin(), outcome.errors.end(), '\n'), 1);
  }
}

}  // namespace
