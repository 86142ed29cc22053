#include "ipc/socket/SocketService.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "support/Device.h"
#include "support/LogRecorder.h"
#include "support/OddClients.h"
#include "support/RawClient.h"
#include "support/Surroundings.h"
#include "support/SystemCalls.h"
#include "support/ThisProcess.h"

namespace zav::test {
namespace {

using ipc::SocketService;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string kType = "N3zav3ipc13SocketServiceE";

std::string Text(int error) {
  return std::strerror(error);
}

testing::Matcher<LogEntry> Listening(const SocketService& socket) {
  return PluginLine(kInfo, "SocketService.cpp", "listen", "listening socket : " + std::to_string(socket.descriptor()));
}

testing::Matcher<LogEntry> ListenError(const std::string& message) {
  return PluginLine(kError, "SocketService.cpp", "listen", message);
}

/// A listening socket that shows its address.
class Listener : public SocketService {
 public:
  const sockaddr_un& Address() const { return address; }
  void Overwrite(const std::string& path) { std::strcpy(address.sun_path, path.c_str()); }
  unsigned AddressLength() const { return addressLength; }
};

class AListener : public testing::Test {
 protected:
  AListener() { MakeRunDirectory(); }

  static unsigned Mode(const std::string& file) {
    struct stat info {};
    return stat(file.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
  }

  Listener socket;
};

std::string TypeOf(const Listener& socket) {
  const char* const name = typeid(socket).name();
  return *name == '*' ? name + 1 : name;
}

bool CanConnect() {
  const RawClient client;
  return client.descriptor() != -1;
}

TEST(AListenersAddress, IsFilledInAtOnce) {
  const Listener socket;
  EXPECT_EQ(socket.Address().sun_path, kSocketFile);
  EXPECT_EQ(socket.AddressLength(), 110U);
  EXPECT_EQ(socket.descriptor(), -1);
}

TEST(TheListener, RemovesTheSocketFileOfAnEarlierRun) {
  MakeRunDirectory();
  WriteFile(kSocketFile, "stale");
  const SocketService socket;
  EXPECT_FALSE(FileExists(kSocketFile));
}

TEST(TheListener, LeavesItsFileForEveryUserAndRemovesItAtItsEnd) {
  MakeRunDirectory();
  const Umask strict(077);
  {
    SocketService socket;
    ASSERT_TRUE(socket.listen());
    struct stat info {};
    ASSERT_EQ(stat(kSocketFile.c_str(), &info), 0);
    EXPECT_TRUE(S_ISSOCK(info.st_mode));
    EXPECT_EQ(info.st_mode & 07777U, 01777U);
  }
  EXPECT_FALSE(FileExists(kSocketFile));
}

TEST(TheListener, IsNamedByItsTypeWhileItLivesAndByItsBaseAtItsEnd) {
  {
    SocketService socket;
    socket.create();
    socket.create();
  }
  EXPECT_THAT(
      LogRecorder::Lines(),
      ElementsAre(PluginLine(kWarning, "Socket.cpp", "create", testing::StartsWith(kType + ".existed ? socket : ")),
                  PluginLine(kDebug, "Socket.cpp", "~Socket", testing::StartsWith("N3zav3ipc6SocketE : "))));
}

TEST_F(AListener, SaysThatItListensAndNothingElse) {
  EXPECT_TRUE(socket.listen());
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Listening(socket)));
  EXPECT_TRUE(CanConnect());
}

TEST_F(AListener, IsNonblockingAndClosedOnExec) {
  ASSERT_TRUE(socket.listen());
  EXPECT_EQ(fcntl(socket.descriptor(), F_GETFL), O_RDWR | O_NONBLOCK);
  EXPECT_TRUE(IsCloseOnExec(socket.descriptor()));
}

TEST_F(AListener, BindsItsWholeAddressAndKeepsABacklogOf16) {
  size_t length = 0;
  size_t backlog = 0;
  const auto keep = [](size_t& size) {
    return [&size](const CallArguments& call) -> std::optional<long> {
      size = call.size;
      return std::nullopt;
    };
  };
  const CallHook bind(Call::kBind, keep(length));
  const CallHook listen(Call::kListen, keep(backlog));
  ASSERT_TRUE(socket.listen());
  EXPECT_EQ(length, 110U);
  EXPECT_EQ(backlog, 16U);
}

TEST_F(AListener, AddsToTheModeThatItsFileHas) {
  // A bind cannot set these; a directory with an inherited group could.
  const CallHook hook(Call::kListen, [](const CallArguments&) -> std::optional<long> {
    chmod(kSocketFile.c_str(), 06000);
    return std::nullopt;
  });
  ASSERT_TRUE(socket.listen());
  EXPECT_EQ(Mode(kSocketFile), 07777U);
}

TEST_F(AListener, LetsEveryUserInWithTheLastDescriptorInUse) {
  // Once before: the first time that a sanitizer sees an object's type used, it needs descriptors of its own.
  ASSERT_TRUE(socket.listen());
  socket.retire();
  const DescriptorLimit one(1);
  ASSERT_TRUE(socket.listen());
  EXPECT_EQ(Mode(kSocketFile) & 01777U, 01777U);
}

/// A run directory that somebody else could put files into.
class AListenerInASharedDirectory : public AListener {
 protected:
  AListenerInASharedDirectory() { chmod(kRunDirectory.c_str(), 0777); }

  /// Puts something of that name in the socket's place as soon as that is bound.
  static CallHook::Action Replace(std::function<void()> put) {
    return [put = std::move(put)](const CallArguments&) -> std::optional<long> {
      unlink(kSocketFile.c_str());
      put();
      return std::nullopt;
    };
  }
};

/// Leaves the file of a socket there, mode 0600.
void SocketOfSomebodyElse(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  EXPECT_EQ(chmod(path.c_str(), 0600), 0);
  close(fd);
}

TEST_F(AListenerInASharedDirectory, LetsEveryUserIn) {
  ASSERT_TRUE(socket.listen());
  EXPECT_EQ(Mode(kSocketFile) & 01777U, 01777U);
}

TEST_F(AListenerInASharedDirectory, ChangesTheModeOfNoFileThatALinkInItsPlaceNames) {
  const std::string other = kRunDirectory + "/other";
  WriteFile(other, "of somebody else");
  chmod(other.c_str(), 0600);
  const CallHook hook(Call::kListen, Replace([&] { std::filesystem::create_symlink(other, kSocketFile); }));
  EXPECT_TRUE(socket.listen());
  EXPECT_EQ(Mode(other), 0600U);
}

TEST_F(AListenerInASharedDirectory, ChangesTheModeOfNoSocketThatALinkInItsPlaceNames) {
  const std::string other = kRunDirectory + "/other";
  SocketOfSomebodyElse(other);
  const CallHook hook(Call::kListen, Replace([&] { std::filesystem::create_symlink(other, kSocketFile); }));
  EXPECT_TRUE(socket.listen());
  EXPECT_EQ(Mode(other), 0600U);
}

TEST_F(AListenerInASharedDirectory, ChangesTheModeOfNoOtherFileInItsPlace) {
  const CallHook hook(Call::kListen, Replace([] {
                        WriteFile(kSocketFile, "of somebody else");
                        chmod(kSocketFile.c_str(), 0600);
                      }));
  EXPECT_TRUE(socket.listen());
  EXPECT_EQ(Mode(kSocketFile), 0600U);
}

TEST_F(AListenerInASharedDirectory, ListensAlthoughItsFileIsGone) {
  const CallHook hook(Call::kListen, Replace([] {}));
  EXPECT_TRUE(socket.listen());
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Listening(socket)));
}

TEST_F(AListener, ListensAlthoughItsFileIsGone) {
  const CallHook hook(Call::kListen, [](const CallArguments&) -> std::optional<long> {
    unlink(kSocketFile.c_str());
    return std::nullopt;
  });
  EXPECT_TRUE(socket.listen());
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Listening(socket)));
}

TEST_F(AListener, FailsWithoutADescriptor) {
  {
    const CallHook hook(Call::kSocket, Fail(EMFILE));
    EXPECT_FALSE(socket.listen());
  }
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(PluginLine(kError, "Socket.cpp", "create",
                                     TypeOf(socket) + " -1 socket descriptor error:" + Text(EMFILE)),
                          ListenError(Text(EMFILE))));
}

TEST_F(AListener, FailsWhenItsFlagsCannotBeSet) {
  const CallHook hook(Call::kFcntl, [](const CallArguments& call) -> std::optional<long> {
    if (call.flags != F_SETFL) return std::nullopt;
    errno = EPERM;
    return -1;
  });
  EXPECT_FALSE(socket.listen());
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(ListenError("fcntl ! " + Text(EPERM))));
  EXPECT_FALSE(FileExists(kSocketFile));
}

TEST_F(AListener, FailsWhenItsAddressCannotBeBound) {
  std::filesystem::remove(kRunDirectory);
  EXPECT_FALSE(socket.listen());
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(ListenError("bind failed! " + Text(ENOENT))));
}

TEST_F(AListener, FailsWhenTheSystemRefusesToListen) {
  const CallHook hook(Call::kListen, Fail(EOPNOTSUPP));
  EXPECT_FALSE(socket.listen());
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(ListenError("listen has failed! " + Text(EOPNOTSUPP))));
}

TEST_F(AListener, ListensWithTheDescriptorOfAFailedTry) {
  std::filesystem::remove(kRunDirectory);
  ASSERT_FALSE(socket.listen());
  const int descriptor = socket.descriptor();
  LogRecorder::Clear();
  MakeRunDirectory();
  EXPECT_TRUE(socket.listen());
  EXPECT_EQ(socket.descriptor(), descriptor);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(PluginLine(kWarning, "Socket.cpp", "create",
                                     TypeOf(socket) + ".existed ? socket : " + std::to_string(descriptor)),
                          Listening(socket)));
}

// retire

TEST_F(AListener, IsRetiredQuietlyWhenItWasBound) {
  ASSERT_TRUE(socket.listen());
  const std::set<int> open = Descriptors();
  LogRecorder::Clear();
  socket.retire();
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
  EXPECT_EQ(socket.descriptor(), -1);
  EXPECT_EQ(Descriptors().size(), open.size() - 1);
  EXPECT_FALSE(FileExists(kSocketFile));

  EXPECT_TRUE(socket.listen());
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Listening(socket)));
  EXPECT_TRUE(CanConnect());
}

TEST_F(AListener, HasItsOwnAddressAgainWhenItWasRetired) {
  ASSERT_TRUE(socket.listen());
  socket.Overwrite(kRunDirectory + "/other");
  socket.retire();
  EXPECT_EQ(socket.Address().sun_path, kSocketFile);
}

TEST_F(AListener, IsRetiredQuietlyWhenItWasShutBeforeItWasBound) {
  socket.create();
  socket.shutdown();
  socket.retire();
  EXPECT_EQ(socket.descriptor(), -1);
  EXPECT_TRUE(socket.listen());
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Listening(socket)));
  EXPECT_TRUE(CanConnect());
}

TEST_F(AListener, IsNotRetiredWhenItWasNeitherBoundNorShut) {
  socket.create();
  const int descriptor = socket.descriptor();
  socket.retire();
  EXPECT_EQ(socket.descriptor(), descriptor);
  EXPECT_TRUE(socket.good());
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(AListener, IsNotRetiredWhenItsDescriptorWasLostOrCannotBeLookedAt) {
  socket.create();
  socket.shutdown();
  const int descriptor = socket.descriptor();
  {
    const CallHook hook(Call::kPoll, Fail(ENOMEM));
    socket.retire();
    EXPECT_EQ(socket.descriptor(), descriptor);
  }
  close(descriptor);
  socket.retire();
  EXPECT_EQ(socket.descriptor(), descriptor);
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(AListener, HasNothingToRetireWithoutADescriptor) {
  socket.retire();
  EXPECT_EQ(socket.descriptor(), -1);
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(AListener, LeavesAFileThatIsNotItsOwnWhereItIs) {
  WriteFile(kSocketFile, "somebody else's");
  socket.retire();
  EXPECT_EQ(ReadFile(kSocketFile), "somebody else's");
  EXPECT_FALSE(socket.listen());
}

TEST_F(AListener, RemovesItsFileOnlyOnceWhenItIsRetiredTwice) {
  ASSERT_TRUE(socket.listen());
  // Nothing went wrong, whatever an earlier call has left.
  errno = EACCES;
  socket.retire();
  WriteFile(kSocketFile, "somebody else's");
  socket.retire();
  EXPECT_TRUE(FileExists(kSocketFile));
}

TEST_F(AListener, WhoseFileWasLeftBehindRemovesItWhenItIsRetired) {
  ASSERT_TRUE(socket.listen());
  chmod(kRunDirectory.c_str(), 0555);
  {
    const WithoutPrivilege plain;
    socket.retire();
  }
  chmod(kRunDirectory.c_str(), 0755);
  ASSERT_TRUE(FileExists(kSocketFile));
  socket.retire();
  EXPECT_FALSE(FileExists(kSocketFile));
  EXPECT_TRUE(socket.listen());
  EXPECT_TRUE(CanConnect());
}

// accept

TEST_F(AListener, AcceptsAClientClosedOnExec) {
  ASSERT_TRUE(socket.listen());
  RawClient client;
  const int accepted = socket.accept();
  ASSERT_GT(accepted, 0);
  EXPECT_TRUE(IsCloseOnExec(accepted));
  EXPECT_EQ(fcntl(accepted, F_GETFL), O_RDWR);
  close(accepted);
  EXPECT_TRUE(client.EndsWithoutAnswer());
}

TEST_F(AListener, TellsByErrnoThatNobodyIsThere) {
  ASSERT_TRUE(socket.listen());
  errno = 0;
  EXPECT_EQ(socket.accept(), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(AListener, NeitherLeaksNorKeepsDescriptor0) {
  ASSERT_TRUE(socket.listen());
  RawClient client;
  close(0);
  EXPECT_LE(socket.accept(), 0);
  EXPECT_EQ(fcntl(0, F_GETFD), -1);
  EXPECT_TRUE(client.EndsWithoutAnswer());
}

TEST_F(AListener, KeepsItsAddressWhenAClientHasAName) {
  ASSERT_TRUE(socket.listen());
  const ipc::Socket client(ConnectFrom("/tmp/client.socket"));
  const ipc::Socket accepted(socket.accept());
  ASSERT_GT(accepted.descriptor(), 0);
  EXPECT_EQ(socket.Address().sun_path, kSocketFile);
  EXPECT_EQ(socket.AddressLength(), 110U);
}

TEST(TheListener, RemovesItsOwnFileAndNotThatOfAClient) {
  MakeRunDirectory();
  {
    SocketService socket;
    ASSERT_TRUE(socket.listen());
    const ipc::Socket client(ConnectFrom("/tmp/client.socket"));
    const ipc::Socket accepted(socket.accept());
    ASSERT_GT(accepted.descriptor(), 0);
  }
  EXPECT_TRUE(FileExists("/tmp/client.socket"));
  EXPECT_FALSE(FileExists(kSocketFile));
}

}  // namespace
}  // namespace zav::test
