#include "common/FileHelper.h"

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/Device.h"
#include "support/LogRecorder.h"
#include "support/Surroundings.h"
#include "support/SystemCalls.h"
#include "support/ThisProcess.h"
#include "support/VirtualSlots.h"

namespace zav::test {
namespace {

namespace fs = std::filesystem;
using common::DirectoryContent;
using common::FileHelper;
using common::getDirectoryContent;
using testing::_;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

class AFileHelper : public testing::Test {
 protected:
  static auto Debug(const std::string& function, const testing::Matcher<std::string>& message) {
    return PluginLine(kDebug, "FileHelper.cpp", function, message);
  }
  static auto Warning(const std::string& function, const testing::Matcher<std::string>& message) {
    return PluginLine(kWarning, "FileHelper.cpp", function, message);
  }
  static std::vector<LogEntry> Lines() { return LogRecorder::Lines(); }

  /// The lines of a copy that succeeds.
  static std::vector<testing::Matcher<LogEntry>> CopyLines(const std::string& from, const std::string& to, size_t size,
                                                           unsigned mode) {
    return {Debug("copyFile", "file: " + from + " size is " + std::to_string(size) + " bytes"),
            Debug("copyFile", "copy from file: " + from + "\n       to file: " + to + "\nsuccess"),
            Debug("copyFile", "chmod " + std::to_string(mode) + " success")};
  }

  ScratchDirectory scratch;
  const std::string src = scratch + "/src";
  const std::string dst = scratch + "/dst";
  FileHelper helper;
};

class CopyingAFile : public AFileHelper {};
class ReplacingAFile : public AFileHelper {};
class SyncingAFile : public AFileHelper {};
class ComparingFiles : public AFileHelper {};
class MakingADirectory : public AFileHelper {};
class AskingForADirectory : public AFileHelper {};
class AnEmptyDirectory : public AFileHelper {};
class DeletingAFile : public AFileHelper {};
class DeletingADirectory : public AFileHelper {};
class ListingADirectory : public AFileHelper {};
class EmptyingADirectory : public AFileHelper {};

/// Makes a call fail, the first one or a later one, of those about a path where one is given.
CallHook::Action FailAt(int turn, const std::string& path = "", int error = EIO) {
  return [path, turn, error](const CallArguments& call) mutable -> std::optional<long> {
    if ((!path.empty() && path != static_cast<const char*>(call.data)) || --turn != 0) return std::nullopt;
    errno = error;
    return -1;
  };
}

/// A directory that needs a privilege to be opened.
void MakeClosed(const std::string& path) {
  fs::create_directory(path);
  fs::permissions(path, fs::perms::none);
}

/// A directory whose path is so long that the path of what is in it cannot be used.
void MakeTooDeep(const std::string& root) {
  const fs::path back = fs::current_path();
  fs::current_path(root);
  const std::string name(250, 'd');
  for (size_t length = root.size(); length <= 4096; length += name.size() + 1) {
    fs::create_directory(name);
    fs::current_path(name);
  }
  fs::current_path(back);
}

// ---- copyFile

TEST_F(CopyingAFile, ToANewOneTakesContentAndPermissionsAndLogsThreeLines) {
  const std::string content("some\0thing\n", 11);
  WriteFile(src, content);
  fs::permissions(src, fs::perms(0640));
  EXPECT_EQ(helper.copyFile(src, dst), 0);
  EXPECT_EQ(ReadFile(dst), content);
  EXPECT_EQ(PermissionsOf(dst), 0640u);
  EXPECT_THAT(Lines(), testing::ElementsAreArray(CopyLines(src, dst, 11, 416)));
}

TEST_F(CopyingAFile, PrintsThePermissionsInDecimal) {
  WriteFile(src, "x");
  fs::permissions(src, fs::perms(0644));
  helper.copyFile(src, dst);
  EXPECT_EQ(LogRecorder::Count("chmod 420 success"), 1);
}

TEST_F(CopyingAFile, OntoAnExistingOneReplacesItsContentAndSetsTheSourcesPermissions) {
  WriteFile(src, "new");
  fs::permissions(src, fs::perms(0604));
  WriteFile(dst, "longer than what comes");
  fs::permissions(dst, fs::perms(0777));
  EXPECT_EQ(helper.copyFile(src, dst), 0);
  EXPECT_EQ(ReadFile(dst), "new");
  EXPECT_EQ(PermissionsOf(dst), 0604u);
}

TEST_F(CopyingAFile, LeavesOutTheBitsAboveThePermissions) {
  WriteFile(src, "x");
  ASSERT_EQ(chmod(src.c_str(), 07755), 0);
  EXPECT_EQ(helper.copyFile(src, dst), 0);
  EXPECT_EQ(PermissionsOf(dst), 0755u);
  EXPECT_EQ(LogRecorder::Count("chmod 493 success"), 1);
}

TEST_F(CopyingAFile, OfManyMegabytesIsWhole) {
  std::string content(5'000'000, '\0');
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 31);
  WriteFile(src, content);
  EXPECT_EQ(helper.copyFile(src, dst), 0);
  EXPECT_EQ(ReadFile(dst), content);
}

TEST_F(CopyingAFile, ThatIsEmptyIsASuccess) {
  WriteFile(src, "");
  fs::permissions(src, fs::perms(0600));
  WriteFile(dst, "old");
  EXPECT_EQ(helper.copyFile(src, dst), 0);
  EXPECT_TRUE(FileExists(dst));
  EXPECT_EQ(ReadFile(dst), "");
  EXPECT_THAT(Lines(), testing::ElementsAreArray(CopyLines(src, dst, 0, 384)));
}

TEST_F(CopyingAFile, ThatIsALinkMakesAFileWithItsTargetsContentAndTheLinksPermissions) {
  WriteFile(src, "content of the target");
  fs::permissions(src, fs::perms(0600));
  fs::create_symlink(src, scratch + "/link");
  EXPECT_EQ(helper.copyFile(scratch + "/link", dst), 0);
  EXPECT_FALSE(fs::is_symlink(dst));
  EXPECT_EQ(ReadFile(dst), "content of the target");
  EXPECT_EQ(PermissionsOf(dst), 0777u);
  EXPECT_THAT(Lines(), testing::ElementsAreArray(CopyLines(scratch + "/link", dst, src.size(), 511)));
}

TEST_F(CopyingAFile, ThatIsADirectoryOrADeviceFailsAndLeavesTheDestination) {
  WriteFile(dst, "old");
  fs::create_directory(src);
  ASSERT_EQ(mkfifo((scratch + "/pipe").c_str(), 0600), 0);
  for (const std::string& path : {src, std::string("/dev/null"), scratch + "/pipe"}) {
    LogRecorder::Clear();
    EXPECT_EQ(helper.copyFile(path, dst), -1) << path;
    EXPECT_THAT(Lines(), ElementsAre(Warning("copyFile", "src: " + path + " is not a file or link")));
    EXPECT_EQ(ReadFile(dst), "old") << path;
  }
}

TEST_F(CopyingAFile, ThatIsMissingFailsAndLeavesTheDestination) {
  WriteFile(dst, "old");
  EXPECT_EQ(helper.copyFile(src, dst), -1);
  EXPECT_THAT(Lines(), ElementsAre(Warning("copyFile", "could not take info (lstat) about src: " + src)));
  EXPECT_EQ(ReadFile(dst), "old");
}

TEST_F(CopyingAFile, ThatCannotBeOpenedFailsWithTheDestinationTruncated) {
  fs::create_symlink(scratch + "/nowhere", src);
  WriteFile(dst, "old");
  EXPECT_EQ(helper.copyFile(src, dst), -1);
  EXPECT_THAT(Lines(), ElementsAre(Debug("copyFile", StartsWith("file: " + src + " size is ")),
                                   Warning("copyFile", "could not open src: " + src)));
  EXPECT_TRUE(FileExists(dst));
  EXPECT_EQ(ReadFile(dst), "");
}

TEST_F(CopyingAFile, ThatCannotBeOpenedMakesTheDestination) {
  fs::create_symlink(scratch + "/nowhere", src);
  EXPECT_EQ(helper.copyFile(src, dst), -1);
  EXPECT_TRUE(FileExists(dst));
}

TEST_F(CopyingAFile, WithoutTheRightToReadItFailsWithTheDestinationTruncated) {
  WriteFile(src, "secret");
  fs::permissions(src, fs::perms::none);
  WriteFile(dst, "old");
  const WithoutPrivilege plain;
  EXPECT_EQ(helper.copyFile(src, dst), -1);
  EXPECT_THAT(Lines(), ElementsAre(Debug("copyFile", "file: " + src + " size is 6 bytes"),
                                   Warning("copyFile", "could not open src: " + src)));
  EXPECT_EQ(ReadFile(dst), "");
}

TEST_F(CopyingAFile, ToAPlaceThatCannotBeOpenedFails) {
  WriteFile(src, "12345");
  fs::create_directory(dst);
  for (const std::string& path : {dst, scratch + "/missing/dst"}) {
    LogRecorder::Clear();
    EXPECT_EQ(helper.copyFile(src, path), -1) << path;
    EXPECT_THAT(Lines(), ElementsAre(Debug("copyFile", "file: " + src + " size is 5 bytes"),
                                     Warning("copyFile", "could not open or create dst: " + path)));
  }
}

TEST_F(CopyingAFile, WhosePermissionsCannotBeSetIsASuccessAllTheSame) {
  WriteFile(src, "");
  fs::permissions(src, fs::perms(0644));
  const std::string process = "/proc/self/comm";
  EXPECT_EQ(helper.copyFile(src, process), 0);
  EXPECT_THAT(Lines(),
              ElementsAre(Debug("copyFile", "file: " + src + " size is 0 bytes"),
                          Debug("copyFile", StartsWith("copy from file: ")), Warning("copyFile", "chmod 420  failed")));
}

/// What every short write shows: the result, a warning after the size, and no line of success.
void ExpectShortWrite(FileHelper& helper, const std::string& from, const std::string& to) {
  LogRecorder::Clear();
  EXPECT_EQ(helper.copyFile(from, to), -1);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(PluginLine(kDebug, "FileHelper.cpp", "copyFile", StartsWith("file: " + from + " size is ")),
                          PluginLine(kWarning, "FileHelper.cpp", "copyFile", _)));
}

TEST_F(CopyingAFile, ToADeviceThatIsAlwaysFullFails) {
  fs::create_symlink("/dev/full", dst);
  // A few bytes are refused at the close, many while they are written.
  for (const size_t size : {size_t{1}, size_t{1'000'000}}) {
    WriteFile(src, std::string(size, 'x'));
    // What the device has; it is not to be changed.
    fs::permissions(src, fs::perms(0666));
    ExpectShortWrite(helper, src, dst);
  }
}

TEST_F(CopyingAFile, ToADiskThatGetsFullFails) {
  fs::create_directory(scratch + "/disk");
  const SmallDisk disk(scratch + "/disk", 64 * 1024);
  if (!disk.IsMounted()) GTEST_SKIP() << "no right to mount a disk here";
  WriteFile(src, std::string(200'000, 'x'));
  ExpectShortWrite(helper, src, scratch + "/disk/dst");
  EXPECT_LT(ReadFile(scratch + "/disk/dst").size(), 200'000u);
}

TEST_F(CopyingAFile, ToADiskThatWasFullBeforeFails) {
  fs::create_directory(scratch + "/disk");
  const SmallDisk disk(scratch + "/disk", 64 * 1024);
  if (!disk.IsMounted()) GTEST_SKIP() << "no right to mount a disk here";
  WriteFile(src, "x");
  ASSERT_ANY_THROW(WriteFile(scratch + "/disk/large", std::string(100'000, 'x')));
  ExpectShortWrite(helper, src, scratch + "/disk/dst");
}

TEST_F(CopyingAFile, BeyondTheLargestSizeThatIsAllowedFails) {
  WriteFile(src, std::string(100'000, 'x'));
  signal(SIGXFSZ, SIG_IGN);
  rlimit previous{};
  getrlimit(RLIMIT_FSIZE, &previous);
  const rlimit limit{10'000, previous.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  ExpectShortWrite(helper, src, dst);
  setrlimit(RLIMIT_FSIZE, &previous);
}

TEST_F(CopyingAFile, WhoseSizeOrWhoseCopysCannotBeHadFails) {
  WriteFile(src, "new");
  for (const std::string& path : {src, dst}) {
    SCOPED_TRACE(path);
    LogRecorder::Clear();
    const CallHook hook(Call::kStat, FailAt(1, path));
    EXPECT_EQ(helper.copyFile(src, dst), -1);
    EXPECT_EQ(LogRecorder::Count("could not copy the whole of src: " + src + " to dst: " + dst), 1);
  }
}

TEST_F(CopyingAFile, LeavesWhatStandsBesideTheDestination) {
  WriteFile(src, "x");
  WriteFile(dst + ".new", "another one's");
  EXPECT_EQ(helper.copyFile(src, dst), 0);
  EXPECT_EQ(ReadFile(dst + ".new"), "another one's");
}

TEST_F(CopyingAFile, ThroughALinkToADirectoryFails) {
  fs::create_directory(scratch + "/directory");
  WriteFile(scratch + "/directory/file", "x");
  fs::create_symlink(scratch + "/directory", src);
  EXPECT_EQ(helper.copyFile(src, dst), -1);
}

TEST_F(CopyingAFile, ClosesBothFiles) {
  WriteFile(src, "x");
  const auto before = Descriptors();
  helper.copyFile(src, dst);
  helper.copyFile(src, scratch + "/missing/dst");
  fs::remove(src);
  fs::create_symlink(scratch + "/nowhere", src);
  helper.copyFile(src, dst);
  EXPECT_EQ(Descriptors(), before);
}

TEST_F(CopyingAFile, LogsPlainNumbersUnderALocaleThatGroupsDigits) {
  WriteFile(src, std::string(12'345, 'x'));
  const GroupingLocale locale;
  EXPECT_EQ(helper.copyFile(src, dst), 0);
  EXPECT_EQ(LogRecorder::Count("file: " + src + " size is 12345 bytes"), 1);
}

// ---- replaceFile

TEST_F(ReplacingAFile, LogsWhatACopyLogs) {
  WriteFile(src, "12345");
  fs::permissions(src, fs::perms(0640));
  WriteFile(dst, "old");
  EXPECT_EQ(helper.replaceFile(src, dst), 0);
  EXPECT_THAT(Lines(), testing::ElementsAreArray(CopyLines(src, dst, 5, 416)));
  EXPECT_EQ(ReadFile(dst), "12345");
  EXPECT_EQ(PermissionsOf(dst), 0640u);
  EXPECT_FALSE(FileExists(dst + ".new"));
}

TEST_F(ReplacingAFile, ShowsTheOldContentOrTheNewToWhoHasItOpen) {
  WriteFile(src, std::string(200'000, 'n'));
  WriteFile(dst, "old");
  std::ifstream reader(dst);
  EXPECT_EQ(helper.replaceFile(src, dst), 0);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(reader), {}), "old");
}

TEST_F(ReplacingAFile, ThatIsMissingMakesIt) {
  WriteFile(src, "new");
  EXPECT_EQ(helper.replaceFile(src, dst), 0);
  EXPECT_EQ(ReadFile(dst), "new");
}

TEST_F(ReplacingAFile, WithoutRoomForASecondOneOverwritesIt) {
  fs::create_directory(scratch + "/disk");
  const SmallDisk disk(scratch + "/disk", 256 * 1024);
  if (!disk.IsMounted()) GTEST_SKIP() << "no right to mount a disk here";
  const std::string inside = scratch + "/disk/dst";
  WriteFile(src, std::string(200'000, 'n'));
  WriteFile(inside, std::string(190'000, 'o'));
  EXPECT_EQ(helper.replaceFile(src, inside), 0);
  EXPECT_TRUE(ReadFile(inside) == ReadFile(src));
}

TEST_F(ReplacingAFile, WithoutRoomForItEvenInItsPlaceLeavesItAsItWas) {
  fs::create_directory(scratch + "/disk");
  const SmallDisk disk(scratch + "/disk", 256 * 1024);
  if (!disk.IsMounted()) GTEST_SKIP() << "no right to mount a disk here";
  const std::string inside = scratch + "/disk/dst";
  WriteFile(src, std::string(300'000, 'n'));
  WriteFile(inside, std::string(190'000, 'o'));
  EXPECT_EQ(helper.replaceFile(src, inside), -1);
  EXPECT_EQ(ReadFile(inside), std::string(190'000, 'o'));
  EXPECT_FALSE(FileExists(inside + ".new"));
}

TEST_F(ReplacingAFile, ThatFailsLeavesItAsItWas) {
  WriteFile(src, std::string(100'000, 'x'));
  WriteFile(dst, "old");
  fs::permissions(dst, fs::perms(0640));
  signal(SIGXFSZ, SIG_IGN);
  rlimit previous{};
  getrlimit(RLIMIT_FSIZE, &previous);
  const rlimit limit{10'000, previous.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  EXPECT_EQ(helper.replaceFile(src, dst), -1);
  setrlimit(RLIMIT_FSIZE, &previous);
  EXPECT_EQ(ReadFile(dst), "old");
  EXPECT_EQ(PermissionsOf(dst), 0640u);
  EXPECT_FALSE(FileExists(dst + ".new"));
}

/// A call that moves the content, and is cut short before anything was moved.
class AnInterruptedCall : public ReplacingAFile, public testing::WithParamInterface<Call> {};
INSTANTIATE_TEST_SUITE_P(That, AnInterruptedCall, testing::Values(Call::kRead, Call::kWrite),
                         [](const auto& each) { return each.param == Call::kRead ? "Reads" : "Writes"; });

TEST_P(AnInterruptedCall, IsMadeAgain) {
  WriteFile(src, std::string(200'000, 'n'));
  WriteFile(dst, "old");
  {
    const CallHook hook(GetParam(), Fail(EINTR, 2));
    EXPECT_EQ(helper.replaceFile(src, dst), 0);
  }
  EXPECT_TRUE(ReadFile(dst) == ReadFile(src));
}

TEST_F(ReplacingAFile, WritesOnWhereAWriteTookAPartOnly) {
  std::string content;
  while (content.size() < 200'000) content += std::to_string(content.size());
  WriteFile(src, content);
  WriteFile(dst, "old");
  {
    const CallHook hook(Call::kWrite, [](const CallArguments& call) -> std::optional<long> {
      return syscall(SYS_write, call.fd, call.data, (call.size + 1) / 2);
    });
    EXPECT_EQ(helper.replaceFile(src, dst), 0);
  }
  EXPECT_TRUE(ReadFile(dst) == content);
}

/// A fault in a call that moves the content, or in what ends that.
struct FaultOfACopy {
  const char* name;
  Call call;
  CallHook::Action action;
};

void PrintTo(const FaultOfACopy& fault, std::ostream* out) {
  *out << fault.name;
}

class ACopyThatFails : public ReplacingAFile, public testing::WithParamInterface<FaultOfACopy> {};
INSTANTIATE_TEST_SUITE_P(By, ACopyThatFails,
                         testing::Values(FaultOfACopy{"TheFirstRead", Call::kRead, FailAt(1)},
                                         FaultOfACopy{"ALaterRead", Call::kRead, FailAt(3)},
                                         FaultOfACopy{"TheFirstWrite", Call::kWrite, FailAt(1, "", ENOSPC)},
                                         FaultOfACopy{"ALaterWrite", Call::kWrite, FailAt(3, "", ENOSPC)},
                                         FaultOfACopy{"AWriteOfNothing", Call::kWrite,
                                                      [](const CallArguments&) { return 0; }},
                                         FaultOfACopy{"TheClose", Call::kClose,
                                                      [](const CallArguments& call) {
                                                        syscall(SYS_close, call.fd);
                                                        errno = EIO;
                                                        return -1;
                                                      }}),
                         [](const auto& each) { return each.param.name; });

TEST_P(ACopyThatFails, LeavesTheDestinationAsItWas) {
  WriteFile(src, std::string(200'000, 'n'));
  WriteFile(dst, "old");
  {
    const CallHook hook(GetParam().call, GetParam().action);
    EXPECT_EQ(helper.replaceFile(src, dst), -1);
  }
  EXPECT_EQ(LogRecorder::Count("could not replace dst: " + dst + " by src: " + src), 1);
  EXPECT_EQ(ReadFile(dst), "old");
  EXPECT_FALSE(FileExists(dst + ".new"));
}

TEST_F(ReplacingAFile, ThatCannotBeReplacedInOneStepOverwritesIt) {
  WriteFile(src, "new");
  WriteFile(dst, "longer than what comes");
  const CallHook hook(Call::kRename, FailAt(1, dst + ".new"));
  EXPECT_EQ(helper.replaceFile(src, dst), 0);
  EXPECT_EQ(ReadFile(dst), "new");
  EXPECT_FALSE(FileExists(dst + ".new"));
}

TEST_F(ReplacingAFile, WithoutADescriptorForASecondOneOverwritesItFromTheOneThatIsOpen) {
  WriteFile(src, "new");
  WriteFile(dst, "longer than what comes");
  std::vector<std::string> opened;
  const CallHook hook(Call::kOpen, [&](const CallArguments& call) -> std::optional<long> {
    opened.emplace_back(static_cast<const char*>(call.data));
    if (opened.back() != dst + ".new") return std::nullopt;
    errno = EMFILE;
    return -1;
  });
  EXPECT_EQ(helper.replaceFile(src, dst), 0);
  EXPECT_THAT(opened, testing::ElementsAre(src, dst + ".new", dst));
  EXPECT_EQ(ReadFile(dst), "new");
}

/// What may go wrong where the destination has to be overwritten, and it is told.
class AnOverwritingThatFails : public ReplacingAFile, public testing::WithParamInterface<Call> {};
INSTANTIATE_TEST_SUITE_P(By, AnOverwritingThatFails, testing::Values(Call::kRead, Call::kWrite, Call::kClose),
                         [](const auto& each) {
                           if (each.param == Call::kRead) return "ARead";
                           return each.param == Call::kWrite ? "AWrite" : "TheClose";
                         });

TEST_P(AnOverwritingThatFails, IsNoSuccess) {
  WriteFile(src, "new");
  WriteFile(dst, "old");
  {
    // The first copy, beside it, takes two reads, a write and a close.
    const CallHook renaming(Call::kRename, FailAt(1));
    const CallHook hook(GetParam(), FailAt(GetParam() == Call::kRead ? 3 : 2));
    EXPECT_EQ(helper.replaceFile(src, dst), -1);
  }
  EXPECT_EQ(LogRecorder::Count("could not copy the whole of src: " + src + " to dst: " + dst), 1);
  EXPECT_FALSE(FileExists(dst + ".new"));
}

TEST_F(ReplacingAFile, ThatCannotBeReplacedInOneStepIsLeftWhereTheRoomForItIsNotKnown) {
  WriteFile(src, "new");
  WriteFile(dst, "old");
  // Before that the source is looked at for its kind.
  const std::pair<Call, CallHook::Action> unknown[] = {{Call::kStat, FailAt(2, src)}, {Call::kStatvfs, FailAt(1)}};
  for (const auto& [call, failure] : unknown) {
    LogRecorder::Clear();
    const CallHook renaming(Call::kRename, FailAt(1));
    const CallHook looking(call, failure);
    EXPECT_EQ(helper.replaceFile(src, dst), -1);
    EXPECT_EQ(LogRecorder::Count("could not replace dst: " + dst + " by src: " + src), 1);
    EXPECT_EQ(ReadFile(dst), "old");
    EXPECT_FALSE(FileExists(dst + ".new"));
  }
}

TEST_F(ReplacingAFile, GivesItThePermissionsOfItsSuccessorWhateverTheProcessMasks) {
  WriteFile(src, "new");
  WriteFile(dst, "old");
  fs::permissions(src, fs::perms::owner_read | fs::perms::others_read);
  const Umask everything(0777);
  const WithoutPrivilege plain;
  EXPECT_EQ(helper.replaceFile(src, dst), 0);
  EXPECT_EQ(ReadFile(dst), "new");
  EXPECT_EQ(fs::status(dst).permissions(), fs::status(src).permissions());
}

TEST_F(ReplacingAFile, ByOneThatCannotBeOpenedFailsAndLeavesIt) {
  WriteFile(src, "new");
  WriteFile(dst, "old");
  fs::permissions(src, fs::perms::none);
  const WithoutPrivilege plain;
  EXPECT_EQ(helper.replaceFile(src, dst), -1);
  EXPECT_EQ(LogRecorder::Count("could not open src: " + src), 1);
  EXPECT_EQ(ReadFile(dst), "old");
}

TEST_F(ReplacingAFile, OverTheRemainsOfATryThatWasCutShortIsWhole) {
  WriteFile(src, "new");
  WriteFile(scratch + "/elsewhere", "untouched");
  fs::create_symlink(scratch + "/elsewhere", dst + ".new");
  EXPECT_EQ(helper.replaceFile(src, dst), 0);
  EXPECT_EQ(ReadFile(dst), "new");
  EXPECT_FALSE(fs::is_symlink(dst));
  EXPECT_EQ(ReadFile(scratch + "/elsewhere"), "untouched");
}

TEST_F(ReplacingAFile, WhereADirectoryIsInTheWayOfTheNewOneWritesTheOneThatIsThere) {
  WriteFile(src, "new");
  WriteFile(dst, "longer than what comes");
  fs::create_directory(dst + ".new");
  EXPECT_EQ(helper.replaceFile(src, dst), 0);
  EXPECT_EQ(ReadFile(dst), "new");
  EXPECT_TRUE(fs::is_directory(dst + ".new"));
}

TEST_F(ReplacingAFile, BelowOneThatIsNoDirectoryFails) {
  WriteFile(src, "new");
  WriteFile(dst, "old");
  EXPECT_EQ(helper.replaceFile(src, dst + "/below"), -1);
  EXPECT_EQ(LogRecorder::Count("could not open or create dst: " + dst + "/below"), 1);
  EXPECT_EQ(ReadFile(dst), "old");
}

TEST_F(ReplacingAFile, ThatIsALinkWritesToItsTarget) {
  WriteFile(src, "new");
  WriteFile(scratch + "/target", "longer than what comes");
  fs::create_symlink(scratch + "/target", dst);
  EXPECT_EQ(helper.replaceFile(src, dst), 0);
  EXPECT_TRUE(fs::is_symlink(dst));
  EXPECT_EQ(ReadFile(scratch + "/target"), "new");
}

TEST_F(ReplacingAFile, ThatMayNotBeWrittenFailsAndLeavesIt) {
  WriteFile(src, "new");
  WriteFile(dst, "old");
  fs::permissions(dst, fs::perms(0444));
  const WithoutPrivilege plain;
  EXPECT_EQ(helper.replaceFile(src, dst), -1);
  EXPECT_EQ(LogRecorder::Count("could not open or create dst: " + dst), 1);
  EXPECT_EQ(ReadFile(dst), "old");
}

TEST_F(ReplacingAFile, WhereNoOtherCanBeMadeWritesTheOneThatIsThere) {
  fs::create_directory(scratch + "/closed");
  const std::string inside = scratch + "/closed/dst";
  WriteFile(src, "new");
  WriteFile(inside, "longer than what comes");
  fs::permissions(inside, fs::perms(0666));
  fs::permissions(scratch + "/closed", fs::perms(0555));
  {
    const WithoutPrivilege plain;
    EXPECT_EQ(helper.replaceFile(src, inside), 0);
  }
  fs::permissions(scratch + "/closed", fs::perms(0755));
  EXPECT_EQ(ReadFile(inside), "new");
}

TEST_F(ReplacingAFile, ThatIsAPipeOrADeviceFailsWithoutWaiting) {
  WriteFile(src, "new");
  ASSERT_EQ(mkfifo(dst.c_str(), 0600), 0);
  EXPECT_EQ(helper.replaceFile(src, dst), -1);
  const std::string device = scratch + "/device";
  fs::create_symlink("/dev/null", device);
  EXPECT_EQ(helper.replaceFile(src, device), -1);
  EXPECT_THAT(Lines(), ElementsAre(_, Warning("copyFile", "could not replace dst: " + dst + " by src: " + src), _,
                                   Warning("copyFile", "could not replace dst: " + device + " by src: " + src)));
  EXPECT_TRUE(fs::is_fifo(dst));
}

TEST_F(ReplacingAFile, ByALinkToAPipeFailsWithoutWaiting) {
  ASSERT_EQ(mkfifo((scratch + "/pipe").c_str(), 0600), 0);
  fs::create_symlink(scratch + "/pipe", src);
  WriteFile(dst, "old");
  EXPECT_EQ(helper.replaceFile(src, dst), -1);
  EXPECT_EQ(ReadFile(dst), "old");
}

// ---- pipes and devices in a file's place

TEST_F(AFileHelper, ReadsAndSyncsNoPipeAndNoDevice) {
  const std::string file = scratch + "/file";
  WriteFile(file, "");
  ASSERT_EQ(mkfifo(src.c_str(), 0600), 0);
  fs::create_symlink("/dev/null", dst);
  for (const std::string& path : {src, dst}) {
    EXPECT_TRUE(helper.isPipeOrDevice(path));
    EXPECT_FALSE(helper.fileReadable(path));
    EXPECT_FALSE(helper.sameContent(path, path));
    EXPECT_FALSE(helper.sameContent(file, path));
    EXPECT_FALSE(helper.syncFile(path));
  }
}

TEST_F(AFileHelper, TellsAnEmptyFileFromAllElse) {
  WriteFile(src, "");
  EXPECT_TRUE(helper.fileEmpty(src));
  fs::create_symlink(src, dst);
  EXPECT_TRUE(helper.fileEmpty(dst));
  WriteFile(src, "x");
  EXPECT_FALSE(helper.fileEmpty(src));
  EXPECT_FALSE(helper.fileEmpty(dst));
  EXPECT_FALSE(helper.fileEmpty(scratch + "/missing"));
  EXPECT_FALSE(helper.fileEmpty("/dev/null"));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(AFileHelper, TakesNeitherFilesNorDirectoriesForPipes) {
  WriteFile(src, "");
  fs::create_directory(dst);
  for (const std::string& path : {src, dst, scratch + "/missing"}) {
    EXPECT_FALSE(helper.isPipeOrDevice(path));
    helper.discardPipeOrDevice(path);
  }
  EXPECT_TRUE(FileExists(src));
  EXPECT_TRUE(FileExists(dst));
}

TEST_F(AFileHelper, DiscardsAPipeAndALinkToADevice) {
  ASSERT_EQ(mkfifo(src.c_str(), 0600), 0);
  fs::create_symlink("/dev/null", dst);
  helper.discardPipeOrDevice(src);
  helper.discardPipeOrDevice(dst);
  EXPECT_FALSE(FileExists(src));
  EXPECT_FALSE(fs::is_symlink(dst));
  EXPECT_TRUE(FileExists("/dev/null"));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(AFileHelper, TakesAPipeInItsPlaceForAMark) {
  ASSERT_EQ(mkfifo(dst.c_str(), 0600), 0);
  EXPECT_TRUE(helper.makeMark(dst));
  EXPECT_TRUE(helper.removeMark(dst));
  EXPECT_FALSE(FileExists(dst));
}

// ---- deleteFile, discardFile

TEST_F(DeletingAFile, RemovesItAndSaysSo) {
  WriteFile(src, "x");
  EXPECT_EQ(helper.deleteFile(src), 0);
  EXPECT_FALSE(FileExists(src));
  EXPECT_THAT(Lines(), ElementsAre(Debug("deleteFile", "delete file: " + src + " success")));
}

TEST_F(DeletingAFile, ThatIsMissingIsAWarning) {
  helper.deleteFile(src);
  EXPECT_THAT(Lines(), ElementsAre(Warning("deleteFile", "delete file: " + src + " failed")));
}

TEST_F(DeletingAFile, SilentlyLogsNothingWhetherItIsThereOrNot) {
  WriteFile(src, "x");
  helper.discardFile(src);
  EXPECT_FALSE(FileExists(src));
  helper.discardFile(src);
  EXPECT_THAT(Lines(), IsEmpty());
}

// ---- sameContent

TEST_F(ComparingFiles, FindsThemAlikeByTheirBytesAlone) {
  for (const size_t size : {0U, 1U, 4095U, 4096U, 4097U, 12'288U}) {
    SCOPED_TRACE(size);
    const std::string content(size, 'x');
    WriteFile(src, content);
    WriteFile(dst, content);
    EXPECT_TRUE(helper.sameContent(src, dst));
    WriteFile(dst, content + "x");
    EXPECT_FALSE(helper.sameContent(src, dst));
    EXPECT_FALSE(helper.sameContent(dst, src));
    if (size == 0) continue;
    WriteFile(dst, content.substr(1) + "y");
    EXPECT_FALSE(helper.sameContent(src, dst));
    WriteFile(dst, "y" + content.substr(1));
    EXPECT_FALSE(helper.sameContent(src, dst));
  }
}

TEST_F(ComparingFiles, FindsNothingAlikeThatCannotBeRead) {
  const std::string missing = scratch + "/missing";
  WriteFile(src, "");
  fs::create_directory(dst);
  for (const std::string& path : {dst, missing}) {
    EXPECT_FALSE(helper.sameContent(src, path));
    EXPECT_FALSE(helper.sameContent(path, src));
    EXPECT_FALSE(helper.sameContent(path, path));
  }
}

// ---- syncFile

TEST_F(SyncingAFile, SucceedsWithItAndItsDirectory) {
  WriteFile(src, "content");
  int synced = 0;
  const CallHook hook(Call::kFsync, [&](const CallArguments&) -> std::optional<long> {
    ++synced;
    return std::nullopt;
  });
  EXPECT_TRUE(helper.syncFile(src));
  EXPECT_EQ(synced, 2);
}

TEST_F(SyncingAFile, SucceedsOnAFileSystemThatCannotSync) {
  WriteFile(src, "content");
  for (const int error : {EINVAL, EROFS}) {
    const CallHook hook(Call::kFsync, Fail(error));
    EXPECT_TRUE(helper.syncFile(src)) << error;
  }
}

TEST_F(SyncingAFile, FailsWithItAndWithItsDirectory) {
  EXPECT_FALSE(helper.syncFile(src));
  WriteFile(src, "content");
  for (const int turn : {1, 2}) {
    const CallHook hook(Call::kFsync, FailAt(turn));
    EXPECT_FALSE(helper.syncFile(src)) << turn;
  }
}

// ---- createDirectory

TEST_F(MakingADirectory, WhereThereIsNoneSucceeds) {
  const Umask all(0);
  EXPECT_EQ(helper.createDirectory(dst), 0);
  EXPECT_TRUE(fs::is_directory(dst));
  EXPECT_EQ(PermissionsOf(dst), 0775u);
  EXPECT_THAT(Lines(), ElementsAre(Debug("createDirectory", "directory: " + dst + " created successfully")));
}

TEST_F(MakingADirectory, ThatExistsSucceedsAndOneOverAFileFails) {
  EXPECT_EQ(helper.createDirectory(scratch + ""), 0);
  EXPECT_THAT(Lines(), ElementsAre(Debug("createDirectory", "directory: " + (scratch + "") + " exist")));
  WriteFile(dst, "file");
  LogRecorder::Clear();
  EXPECT_EQ(helper.createDirectory(dst), -1);
  EXPECT_THAT(Lines(), ElementsAre(Warning("createDirectory", dst + " is not a directory")));
  EXPECT_EQ(ReadFile(dst), "file");
}

TEST_F(MakingADirectory, OverALinkToADirectoryFails) {
  fs::create_symlink(scratch + "", dst);
  EXPECT_EQ(helper.createDirectory(dst), -1);
  EXPECT_THAT(Lines(), ElementsAre(Warning("createDirectory", dst + " is not a directory")));
}

TEST_F(MakingADirectory, WithoutItsParentFailsAndMakesNone) {
  EXPECT_EQ(helper.createDirectory(dst + "/deeper"), -1);
  EXPECT_THAT(Lines(), ElementsAre(Warning("createDirectory", "could not create a directory: " + dst + "/deeper")));
  EXPECT_FALSE(FileExists(dst));
}

// ---- directoryExist

TEST_F(AskingForADirectory, FindsOne) {
  EXPECT_EQ(helper.directoryExist(scratch + ""), 0);
  EXPECT_THAT(Lines(), ElementsAre(Debug("directoryExist", "directory: " + (scratch + "") + " exist")));
}

TEST_F(AskingForADirectory, DoesNotFindWhatIsNotThere) {
  EXPECT_EQ(helper.directoryExist(dst), -1);
  EXPECT_THAT(Lines(), ElementsAre(Warning("directoryExist", "could not take info (lstat) about directory: " + dst)));
}

TEST_F(AskingForADirectory, TakesNeitherAFileNorALinkForOne) {
  WriteFile(src, "file");
  fs::create_symlink(scratch + "", dst);
  for (const std::string& path : {src, dst}) {
    LogRecorder::Clear();
    EXPECT_EQ(helper.directoryExist(path), -1) << path;
    EXPECT_THAT(Lines(), ElementsAre(Warning("directoryExist", path + " is not a directory")));
  }
}

// ---- directoryEmpty

TEST_F(AnEmptyDirectory, IsOneThatHoldsOnlyItselfAndItsParentUntilOneMoreEntryExists) {
  const std::string path = scratch + "";
  EXPECT_EQ(helper.directoryEmpty(path), 0);
  WriteFile(src, "");
  EXPECT_EQ(helper.directoryEmpty(path), -1);
  WriteFile(dst, "");
  EXPECT_EQ(helper.directoryEmpty(path), -1);
  EXPECT_EQ(helper.directoryEmpty(path + "/missing"), -1);
  EXPECT_THAT(Lines(), ElementsAre(Debug("directoryEmpty", "directory: " + path + " is empty"),
                                   Debug("directoryEmpty", "directory: " + path + " is not empty"),
                                   Debug("directoryEmpty", "directory: " + path + " is not empty"),
                                   Warning("directoryEmpty", path + "/missing is not a directory or doesn't exist")));
}

TEST_F(AnEmptyDirectory, HoldsNoHiddenFileAndNoDirectory) {
  WriteFile(scratch + "/.hidden", "");
  EXPECT_EQ(helper.directoryEmpty(scratch + ""), -1);
  fs::remove(scratch + "/.hidden");
  fs::create_directory(src);
  EXPECT_EQ(helper.directoryEmpty(scratch + ""), -1);
}

TEST_F(AnEmptyDirectory, IsNotAFile) {
  WriteFile(src, "");
  EXPECT_EQ(helper.directoryEmpty(src), -1);
  EXPECT_THAT(Lines(), ElementsAre(Warning("directoryEmpty", src + " is not a directory or doesn't exist")));
}

TEST_F(AnEmptyDirectory, IsNotOneThatCannotBeOpened) {
  MakeClosed(dst);
  const WithoutPrivilege plain;
  EXPECT_EQ(helper.directoryEmpty(dst), -1);
  EXPECT_THAT(Lines(), ElementsAre(Warning("directoryEmpty", dst + " is not a directory or doesn't exist")));
}

TEST_F(AnEmptyDirectory, IsWhatAReadErrorMakesOfOne) {
  const UnreadableDirectory unreadable;
  EXPECT_EQ(helper.directoryEmpty(unreadable.path()), 0);
  EXPECT_THAT(Lines(), ElementsAre(Debug("directoryEmpty", "directory: " + unreadable.path() + " is empty")));
}

TEST_F(AnEmptyDirectory, IsClosedAfterTheLook) {
  const auto before = Descriptors();
  helper.directoryEmpty(scratch + "");
  WriteFile(src, "");
  helper.directoryEmpty(scratch + "");
  EXPECT_EQ(Descriptors(), before);
}

// ---- deleteDirectory

TEST_F(DeletingADirectory, RemovesAnEmptyOne) {
  fs::create_directory(dst);
  EXPECT_EQ(helper.deleteDirectory(dst), 0);
  EXPECT_FALSE(FileExists(dst));
  EXPECT_THAT(Lines(), ElementsAre(Debug("deleteDirectory", "delete director: " + dst + " success")));
}

TEST_F(DeletingADirectory, FailsForOneWithContentForAFileAndForNothing) {
  fs::create_directory(dst);
  WriteFile(dst + "/file", "");
  for (const std::string& path : {dst, dst + "/file", src}) {
    LogRecorder::Clear();
    EXPECT_EQ(helper.deleteDirectory(path), -1) << path;
    EXPECT_THAT(Lines(), ElementsAre(Warning("deleteDirectory", "could not delete director: " + path)));
  }
  EXPECT_TRUE(FileExists(dst + "/file"));
}

// ---- getDirectoryContent

TEST_F(ListingADirectory, SortsTheTreeByKindWithPathsRelativeToTheRoot) {
  const std::string root = scratch + "";
  fs::create_directories(root + "/sub/deep");
  WriteFile(root + "/a.txt", "");
  WriteFile(root + "/sub/b.txt", "");
  WriteFile(root + "/sub/deep/.hidden", "");
  WriteFile(root + "/...", "");
  fs::create_symlink("sub", root + "/link");
  fs::create_symlink("nowhere", root + "/sub/dangling");
  ASSERT_EQ(mkfifo((root + "/sub/pipe").c_str(), 0600), 0);
  DirectoryContent content;
  EXPECT_EQ(getDirectoryContent(root, "", content), 0);
  EXPECT_THAT(content.directories, ElementsAre("/sub", "/sub/deep"));
  EXPECT_THAT(content.files, UnorderedElementsAre("/a.txt", "/sub/b.txt", "/sub/deep/.hidden", "/..."));
  EXPECT_THAT(content.links, UnorderedElementsAre("/link", "/sub/dangling"));
  EXPECT_THAT(content.others, ElementsAre("/sub/pipe"));
  EXPECT_THAT(Lines(), ElementsAre(Debug("getDirectoryContent", "get directory: " + root + " content success")));
}

TEST_F(ListingADirectory, HasEveryDirectoryBeforeItsOwnContent) {
  for (const std::string name : {"/c/b/a", "/a/b/c", "/b/a/c/d", "/b/c"}) fs::create_directories((scratch + "") + name);
  DirectoryContent content;
  ASSERT_EQ(getDirectoryContent(scratch + "", "", content), 0);
  EXPECT_EQ(content.directories.size(), 11u);
  const auto position = [&](const std::string& name) {
    return std::find(content.directories.begin(), content.directories.end(), name);
  };
  for (const std::string& name : content.directories) {
    const std::string parent = fs::path(name).parent_path();
    if (parent == "/") continue;
    EXPECT_LT(position(parent), position(name)) << name;
  }
}

TEST_F(ListingADirectory, AddsToWhatWasListedBefore) {
  WriteFile(src, "");
  DirectoryContent content;
  content.files = {"/earlier"};
  ASSERT_EQ(getDirectoryContent(scratch + "", "", content), 0);
  EXPECT_THAT(content.files, ElementsAre("/earlier", "/src"));
}

TEST_F(ListingADirectory, OfAPartBelowTheRootKeepsThePathsRelativeToTheRootAndLogsNoSuccess) {
  fs::create_directory(dst);
  WriteFile(dst + "/file", "");
  DirectoryContent content;
  EXPECT_EQ(getDirectoryContent(scratch + "", "/dst", content), 0);
  EXPECT_THAT(content.files, ElementsAre("/dst/file"));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(ListingADirectory, ThatIsMissingFails) {
  DirectoryContent content;
  EXPECT_EQ(getDirectoryContent(dst, "", content), -1);
  EXPECT_THAT(Lines(),
              ElementsAre(Warning("getDirectoryContent", "could not take info (lstat) about directory: " + dst)));
}

TEST_F(ListingADirectory, ThatIsAFileOrALinkFails) {
  WriteFile(src, "");
  fs::create_symlink(scratch + "", dst);
  for (const std::string& path : {src, dst}) {
    LogRecorder::Clear();
    DirectoryContent content;
    EXPECT_EQ(getDirectoryContent(path, "", content), -1) << path;
    EXPECT_THAT(Lines(), ElementsAre(Warning("getDirectoryContent", "directory: " + path + " is not a directory")));
  }
}

TEST_F(ListingADirectory, ThatCannotBeOpenedFails) {
  MakeClosed(dst);
  const WithoutPrivilege plain;
  DirectoryContent content;
  EXPECT_EQ(getDirectoryContent(dst, "", content), -1);
  EXPECT_THAT(Lines(), ElementsAre(Warning("getDirectoryContent", "opendir could not open directory: " + dst)));
}

TEST_F(ListingADirectory, WithADirectoryThatCannotBeOpenedFailsAsAWholeAndClosesEverything) {
  MakeClosed(dst);
  const auto before = Descriptors();
  const WithoutPrivilege plain;
  DirectoryContent content;
  EXPECT_EQ(getDirectoryContent(scratch + "", "", content), -1);
  EXPECT_THAT(Lines(), ElementsAre(Warning("getDirectoryContent", "opendir could not open directory: " + dst)));
  EXPECT_EQ(Descriptors(), before);
}

TEST_F(ListingADirectory, WithAnEntryThatCannotBeLookedAtFailsAndClosesEverything) {
  MakeTooDeep(scratch + "");
  const auto before = Descriptors();
  DirectoryContent content;
  EXPECT_EQ(getDirectoryContent(scratch + "", "", content), -1);
  EXPECT_THAT(Lines(), ElementsAre(Warning("getDirectoryContent", StartsWith("error lstat for " + (scratch + "/d")))));
  EXPECT_EQ(Descriptors(), before);
}

TEST_F(ListingADirectory, ThatGivesAnErrorWhenItIsReadIsNotTakenForAnEmptyOne) {
  const UnreadableDirectory unreadable;
  DirectoryContent content;
  EXPECT_EQ(getDirectoryContent(unreadable.path(), "", content), -1);
  EXPECT_THAT(Lines(), ElementsAre(Warning("getDirectoryContent", _)));
}

TEST_F(ListingADirectory, LeavesNoDirectoryOpen) {
  fs::create_directories(dst + "/deep");
  const auto before = Descriptors();
  DirectoryContent content;
  ASSERT_EQ(getDirectoryContent(scratch + "", "", content), 0);
  EXPECT_EQ(Descriptors(), before);
}

// ---- deleteDirectoryContent

TEST_F(EmptyingADirectory, RemovesFilesLinksAndDirectoriesAndKeepsIt) {
  fs::create_directories(dst + "/sub/deep/deeper");
  WriteFile(dst + "/sub/deep/file", "");
  WriteFile(src, "kept");
  fs::create_symlink(src, dst + "/sub/link");
  fs::create_symlink(scratch + "", dst + "/link");
  EXPECT_EQ(helper.deleteDirectoryContent(dst), 0);
  EXPECT_TRUE(fs::is_empty(dst));
  EXPECT_EQ(ReadFile(src), "kept");
  EXPECT_THAT(Lines(), ElementsAre(Debug("getDirectoryContent", "get directory: " + dst + " content success")));
}

TEST_F(EmptyingADirectory, WithANamedPipeInItsTreeDeletesNothingAndFails) {
  fs::create_directories(dst + "/sub");
  WriteFile(dst + "/file", "");
  ASSERT_EQ(mkfifo((dst + "/sub/pipe").c_str(), 0600), 0);
  EXPECT_EQ(helper.deleteDirectoryContent(dst), -1);
  EXPECT_TRUE(FileExists(dst + "/file"));
  EXPECT_TRUE(FileExists(dst + "/sub/pipe"));
  EXPECT_THAT(Lines(), ElementsAre(Debug("getDirectoryContent", "get directory: " + dst + " content success"),
                                   Warning("deleteDirectoryContent",
                                           "directory: " + dst +
                                               " contains other content except directories, files and links")));
}

TEST_F(EmptyingADirectory, ThatIsMissingFails) {
  EXPECT_EQ(helper.deleteDirectoryContent(dst), -1);
  EXPECT_THAT(Lines(),
              ElementsAre(Warning("deleteDirectoryContent", "could not take info (lstat) about directory: " + dst)));
}

TEST_F(EmptyingADirectory, ThatIsAFileFails) {
  WriteFile(dst, "kept");
  EXPECT_EQ(helper.deleteDirectoryContent(dst), -1);
  EXPECT_THAT(Lines(), ElementsAre(Warning("deleteDirectoryContent", dst + " is not a directory")));
  EXPECT_EQ(ReadFile(dst), "kept");
}

TEST_F(EmptyingADirectory, ThatCannotBeListedFailsAndDeletesNothing) {
  WriteFile(src, "");
  MakeClosed(dst);
  const WithoutPrivilege plain;
  EXPECT_EQ(helper.deleteDirectoryContent(scratch + ""), -1);
  EXPECT_TRUE(FileExists(src));
  EXPECT_TRUE(FileExists(dst));
  EXPECT_THAT(Lines(), ElementsAre(Warning("getDirectoryContent", "opendir could not open directory: " + dst)));
}

TEST_F(EmptyingADirectory, GoesOnAfterWhatItCannotDeleteAndFailsAtTheEnd) {
  const std::string disk = dst + "/disk";
  fs::create_directories(disk);
  SmallDisk readOnly(disk, 64 * 1024);
  if (!readOnly.IsMounted()) GTEST_SKIP() << "no right to mount a disk here";
  WriteFile(disk + "/file", "");
  fs::create_symlink("file", disk + "/link");
  readOnly.MakeReadOnly();
  WriteFile(dst + "/file", "");
  fs::create_symlink("file", dst + "/link");
  fs::create_directory(dst + "/sub");
  EXPECT_EQ(helper.deleteDirectoryContent(dst), -1);
  EXPECT_THAT(Lines(), ElementsAre(Debug("getDirectoryContent", _),
                                   Warning("deleteDirectoryContent", "could not delete file: " + disk + "/file"),
                                   Warning("deleteDirectoryContent", "could not delete link: " + disk + "/link"),
                                   Warning("deleteDirectoryContent", "could not delete directory: " + disk)));
  for (const std::string name : {"/file", "/link", "/sub"}) EXPECT_FALSE(FileExists(dst + name)) << name;
}

// ---- copyDirectoryContent

class CopyingADirectoryTree : public AFileHelper {
 protected:
  void SetUp() override {
    fs::create_directory(src);
    fs::create_directory(dst);
  }
  static auto Listed(const std::string& path) {
    return Debug("getDirectoryContent", "get directory: " + path + " content success");
  }
  static auto Copy(const std::string& message) { return Debug("copyDirectoryContent", message); }
  static auto Failure(const std::string& message) { return Warning("copyDirectoryContent", message); }
};

TEST_F(CopyingADirectoryTree, CopiesDirectoriesWithTheirModeThenFilesThenLinksAsFiles) {
  const Umask all(0);
  fs::create_directory(src + "/sub");
  fs::permissions(src + "/sub", fs::perms(0751));
  WriteFile(src + "/sub/file", "content");
  fs::permissions(src + "/sub/file", fs::perms(0640));
  fs::create_symlink("sub/file", src + "/link");
  EXPECT_EQ(helper.copyDirectoryContent(src, dst), 0);
  EXPECT_EQ(PermissionsOf(dst + "/sub"), 0751u);
  EXPECT_EQ(ReadFile(dst + "/sub/file"), "content");
  EXPECT_EQ(PermissionsOf(dst + "/sub/file"), 0640u);
  EXPECT_FALSE(fs::is_symlink(dst + "/link"));
  EXPECT_EQ(ReadFile(dst + "/link"), "content");
  std::vector<testing::Matcher<LogEntry>> expected{Listed(src), Copy("directory: " + dst + "/sub created")};
  for (auto& line : CopyLines(src + "/sub/file", dst + "/sub/file", 7, 416)) expected.push_back(line);
  for (auto& line : CopyLines(src + "/link", dst + "/link", 8, 511)) expected.push_back(line);
  expected.push_back(Copy("copy directory: " + src + " content\n  to directory: " + dst + " success"));
  EXPECT_THAT(Lines(), testing::ElementsAreArray(expected));
}

TEST_F(CopyingADirectoryTree, KeepsTheDirectoriesThatExist) {
  fs::create_directories(src + "/sub");
  fs::create_directories(dst + "/sub");
  WriteFile(dst + "/sub/old", "old");
  EXPECT_EQ(helper.copyDirectoryContent(src, dst), 0);
  EXPECT_EQ(ReadFile(dst + "/sub/old"), "old");
  EXPECT_THAT(Lines(), ElementsAre(Listed(src), Copy("directory: " + dst + "/sub exist"),
                                   Copy("copy directory: " + src + " content\n  to directory: " + dst + " success")));
}

TEST_F(CopyingADirectoryTree, LeavesOutWhatIsNoDirectoryFileOrLink) {
  ASSERT_EQ(mkfifo((src + "/pipe").c_str(), 0600), 0);
  EXPECT_EQ(helper.copyDirectoryContent(src, dst), 0);
  EXPECT_TRUE(fs::is_empty(dst));
}

TEST_F(CopyingADirectoryTree, FromNowhereFails) {
  EXPECT_EQ(helper.copyDirectoryContent(src + "/missing", dst), -1);
  EXPECT_THAT(Lines(), ElementsAre(Failure("could not take info (lstat) about src directory: " + src + "/missing")));
}

TEST_F(CopyingADirectoryTree, FromAFileFails) {
  WriteFile(src + "/file", "");
  EXPECT_EQ(helper.copyDirectoryContent(src + "/file", dst), -1);
  EXPECT_THAT(Lines(), ElementsAre(Failure("src: " + src + "/fileis not a directory")));
}

TEST_F(CopyingADirectoryTree, ToNowhereFails) {
  EXPECT_EQ(helper.copyDirectoryContent(src, dst + "/missing"), -1);
  EXPECT_THAT(Lines(), ElementsAre(Failure("could not take info (lstat) about dst directory: " + dst + "/missing")));
}

TEST_F(CopyingADirectoryTree, ToAFileFails) {
  WriteFile(dst + "/file", "");
  EXPECT_EQ(helper.copyDirectoryContent(src, dst + "/file"), -1);
  EXPECT_THAT(Lines(), ElementsAre(Failure("dst: " + dst + "/fileis not a directory")));
}

TEST_F(CopyingADirectoryTree, ThatCannotBeListedFails) {
  fs::permissions(src, fs::perms::none);
  const WithoutPrivilege plain;
  EXPECT_EQ(helper.copyDirectoryContent(src, dst), -1);
  EXPECT_THAT(Lines(), ElementsAre(Warning("getDirectoryContent", "opendir could not open directory: " + src),
                                   Failure("could not get directory: " + src + " contents info")));
}

TEST_F(CopyingADirectoryTree, EndsAtADirectoryThatCannotBeMade) {
  fs::create_directories(src + "/sub/deep");
  WriteFile(src + "/file", "");
  WriteFile(dst + "/sub", "a file where the directory should be");
  EXPECT_EQ(helper.copyDirectoryContent(src, dst), -1);
  EXPECT_THAT(Lines(), ElementsAre(Listed(src), Copy("directory: " + dst + "/sub exist"),
                                   Failure("could not create dst directory: " + dst + "/sub/deep")));
  EXPECT_FALSE(FileExists(dst + "/file"));
}

/// Removes something as soon as a directory is made.
CallHook::Action RemoveMeanwhile(const std::string& path) {
  return [path](const CallArguments&) -> std::optional<long> {
    fs::remove(path);
    return std::nullopt;
  };
}

TEST_F(CopyingADirectoryTree, EndsAtADirectoryThatIsGoneMeanwhile) {
  fs::create_directories(src + "/sub/deep");
  const CallHook hook(Call::kMkdir, RemoveMeanwhile(src + "/sub/deep"));
  EXPECT_EQ(helper.copyDirectoryContent(src, dst), -1);
  EXPECT_THAT(Lines(), ElementsAre(Listed(src), Copy("directory: " + dst + "/sub created"),
                                   Failure("error lstat for src directory: " + src + "/sub/deep")));
}

TEST_F(CopyingADirectoryTree, EndsAtAFileThatIsGoneMeanwhile) {
  fs::create_directories(src + "/sub");
  WriteFile(src + "/file", "");
  const CallHook hook(Call::kMkdir, RemoveMeanwhile(src + "/file"));
  EXPECT_EQ(helper.copyDirectoryContent(src, dst), -1);
  EXPECT_THAT(Lines(), ElementsAre(Listed(src), Copy("directory: " + dst + "/sub created"),
                                   Failure("error lstat for src file: " + src + "/file")));
  EXPECT_FALSE(FileExists(dst + "/file"));
}

TEST_F(CopyingADirectoryTree, EndsAtAFileThatCannotBeCopiedAndLeavesWhatWasDone) {
  fs::create_directories(src + "/sub");
  WriteFile(src + "/file", "");
  fs::create_symlink("file", src + "/link");
  fs::create_directories(dst + "/file");
  EXPECT_EQ(helper.copyDirectoryContent(src, dst), -1);
  EXPECT_THAT(Lines(), ElementsAre(Listed(src), Copy("directory: " + dst + "/sub created"), Debug("copyFile", _),
                                   Warning("copyFile", "could not open or create dst: " + dst + "/file"),
                                   Failure("copy file: " + src + "/file to: " + dst + "/file failed")));
  EXPECT_TRUE(FileExists(dst + "/sub"));
  EXPECT_FALSE(FileExists(dst + "/link"));
}

TEST_F(CopyingADirectoryTree, EndsAtALinkToNowhere) {
  WriteFile(src + "/file", "content");
  fs::create_symlink("nowhere", src + "/link");
  EXPECT_EQ(helper.copyDirectoryContent(src, dst), -1);
  std::vector<testing::Matcher<LogEntry>> expected{Listed(src)};
  for (auto& line : CopyLines(src + "/file", dst + "/file", 7, PermissionsOf(src + "/file"))) expected.push_back(line);
  expected.push_back(Debug("copyFile", _));
  expected.push_back(Warning("copyFile", "could not open src: " + src + "/link"));
  expected.push_back(Failure("copy link: " + src + "/link to: " + dst + "/link failed"));
  EXPECT_THAT(Lines(), testing::ElementsAreArray(expected));
  EXPECT_EQ(ReadFile(dst + "/file"), "content");
}

// ---- the interface

/// Each operation returns the number of its slot.
struct Numbered : common::IFileHelper {
  int directoryExist(const std::string&) override { return 2; }
  int directoryEmpty(const std::string&) override { return 3; }
  int createDirectory(const std::string&) override { return 4; }
  int deleteDirectory(const std::string&) override { return 5; }
  int copyDirectoryContent(const std::string&, const std::string&) override { return 6; }
  int deleteDirectoryContent(const std::string&) override { return 7; }
};

TEST(TheFileHelpersInterface, HasItsOperationsInTheirOrderAfterTheTwoDestructors) {
  Numbered numbered;
  common::IFileHelper* helper = &numbered;
  const std::string path;
  using OnePath = int (*)(common::IFileHelper*, const std::string&);
  using TwoPaths = int (*)(common::IFileHelper*, const std::string&, const std::string&);
  for (const int slot : {2, 3, 4, 5, 7}) {
    EXPECT_EQ(Slot<OnePath>(helper, static_cast<size_t>(slot))(helper, path), slot);
  }
  EXPECT_EQ(Slot<TwoPaths>(helper, 6)(helper, path, path), 6);
  EXPECT_EQ(sizeof(FileHelper), sizeof(void*));
}

TEST(AListing, HasItsFourListsInTheirOrder) {
  const DirectoryContent content{{"/directory"}, {"/file"}, {"/link"}, {"/pipe"}};
  EXPECT_THAT(content.directories, ElementsAre("/directory"));
  EXPECT_THAT(content.files, ElementsAre("/file"));
  EXPECT_THAT(content.links, ElementsAre("/link"));
  EXPECT_THAT(content.others, ElementsAre("/pipe"));
}

}  // namespace
}  // namespace zav::test
