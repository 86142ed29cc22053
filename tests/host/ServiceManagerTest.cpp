// What the host tells the service manager that has started it.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "Child.h"
#include "support/TemporaryDirectory.h"
#include "support/WaitUntil.h"

namespace {

using zav::test::TemporaryDirectory;
using zav::test::WaitUntil;

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char* kReady = "READY=1";
constexpr const char* kAlive = "WATCHDOG=1";
constexpr const char* kStopping = "STOPPING=1";

/// The socket of a service manager.
class Manager {
 public:
  explicit Manager(const std::string& path) : file(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    if (bind(file, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
      throw std::system_error(errno, std::generic_category(), "bind");
    }
  }
  ~Manager() { close(file); }
  Manager(const Manager&) = delete;
  Manager& operator=(const Manager&) = delete;

  /// The next that is said before the deadline; empty when nothing is.
  std::string Next(int deadlineMs = 60'000) const {
    pollfd waiting{file, POLLIN, 0};
    if (poll(&waiting, 1, deadlineMs) <= 0) return {};
    std::array<char, 4096> bytes;
    const ssize_t count = recv(file, bytes.data(), bytes.size(), MSG_DONTWAIT);
    return {bytes.data(), static_cast<size_t>(std::max<ssize_t>(count, 0))};
  }

  /// All that was said and not yet read.
  std::vector<std::string> Rest() const {
    std::vector<std::string> all;
    for (std::string next = Next(0); !next.empty(); next = Next(0)) all.push_back(next);
    return all;
  }

 private:
  int file;
};

class TheHostAsAService : public testing::Test {
 protected:
  using Environment = std::map<std::string, std::string>;

  /// What starts it as a service manager does; it takes commands all the same.
  std::function<void()> With(Environment variables = {}) const {
    variables.insert({"NOTIFY_SOCKET", directory / "notify"});
    return [variables] {
      for (const auto& [name, value] : variables) setenv(name.c_str(), value.c_str(), 1);
    };
  }

  std::vector<std::string> Command() const {
    return {DPM_HOST,      "--library",         TEST_PLUGIN, "--serve",
            "--state-dir", directory / "state", "--log",     directory / "log"};
  }

  std::string Log() const {
    std::ifstream log(directory / "log");
    return {std::istreambuf_iterator<char>(log), {}};
  }

  TemporaryDirectory directory;
  Manager manager{directory / "notify"};
};

/// Where the test plug-in stands still until it is let through.
class Gate {
 public:
  explicit Gate(std::string fifo) : path(std::move(fifo)) { EXPECT_EQ(mkfifo(path.c_str(), 0600), 0); }

  /// Waits until somebody stands there.
  void Await() {
    EXPECT_TRUE(WaitUntil([&] { return (file = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) != -1; }));
  }
  void Open() const { close(file); }

  const std::string path;

 private:
  int file = -1;
};

TEST_F(TheHostAsAService, IsReadyAndThenAnswers) {
  Child host(Command(), Child::Stdio::kPipes, With());
  EXPECT_EQ(manager.Next(), kReady);
  host.Write("get\n");
  EXPECT_EQ(host.ReadLine(), "-1");
}

TEST_F(TheHostAsAService, IsNotReadyBeforeThePluginIsLoaded) {
  Gate entry(directory / "entry");
  Child host(Command(), Child::Stdio::kPipes, With({{"TEST_PLUGIN_ENTRY", entry.path}}));
  entry.Await();
  EXPECT_THAT(manager.Rest(), IsEmpty());
  entry.Open();
  EXPECT_EQ(manager.Next(), kReady);
}

TEST_F(TheHostAsAService, IsNeverReadyWhenThePluginDoesNotStart) {
  EXPECT_EQ(RunToEnd(Command(), With({{"TEST_PLUGIN_REFUSES", "1"}})).status, 1);
  EXPECT_THAT(manager.Rest(), IsEmpty());
}

TEST_F(TheHostAsAService, SaysThatItStopsBeforeThePluginGoes) {
  Gate exit(directory / "exit");
  Child host(Command(), Child::Stdio::kPipes, With({{"TEST_PLUGIN_EXIT", exit.path}}));
  EXPECT_EQ(manager.Next(), kReady);
  host.Signal(SIGTERM);
  exit.Await();
  EXPECT_THAT(manager.Rest(), ElementsAre(kStopping));
  exit.Open();
  EXPECT_EQ(host.Wait(), 0);
  EXPECT_THAT(manager.Rest(), IsEmpty());
}

TEST_F(TheHostAsAService, GivesSignsOfLifeAtRest) {
  Child host(Command(), Child::Stdio::kPipes, With({{"WATCHDOG_USEC", "100000"}}));
  host.CloseInput();
  EXPECT_EQ(manager.Next(), kReady);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(manager.Next(), kAlive);
}

TEST_F(TheHostAsAService, GivesASignOfLifeAtOnceAndTheNextWhenItIsDue) {
  Child host(Command(), Child::Stdio::kPipes, With({{"WATCHDOG_USEC", "3600000000"}}));
  for (int i = 0; i < 10; ++i) {
    host.Write("get\n");
    EXPECT_EQ(host.ReadLine(), "-1");
  }
  EXPECT_THAT(manager.Rest(), ElementsAre(kReady, kAlive));
}

TEST_F(TheHostAsAService, GivesNoSignOfLifeWhileItHangs) {
  Gate hang(directory / "hang");
  Child host(Command(), Child::Stdio::kPipes, With({{"WATCHDOG_USEC", "20000"}}));
  host.Write("exec Hang " + hang.path + "\n");
  hang.Await();
  manager.Rest();
  // Ten signs of life were due in this time.
  EXPECT_EQ(manager.Next(100), "");
  hang.Open();
  EXPECT_EQ(manager.Next(), kAlive);
}

TEST_F(TheHostAsAService, GivesNoSignOfLifeThatNobodyAsksFor) {
  Child host(Command(), Child::Stdio::kPipes, With());
  host.Write("get\nget\nquit\n");
  EXPECT_EQ(host.Wait(), 0);
  EXPECT_THAT(manager.Rest(), ElementsAre(kReady, kStopping));
}

TEST_F(TheHostAsAService, SaysNothingWhenNoServiceManagerHasStartedIt) {
  Child host(Command(), Child::Stdio::kPipes, [] { setenv("WATCHDOG_USEC", "20000", 1); });
  host.Write("get\nquit\n");
  EXPECT_EQ(host.Wait(), 0);
  EXPECT_THAT(manager.Rest(), IsEmpty());
  EXPECT_THAT(Log(), Not(HasSubstr("service manager")));
}

TEST_F(TheHostAsAService, GoesOnWhenTheServiceManagerIsGone) {
  Child host(Command(), Child::Stdio::kPipes, With({{"NOTIFY_SOCKET", directory / "nobody"}}));
  host.Write("get\nquit\n");
  EXPECT_EQ(host.ReadLine(), "-1");
  EXPECT_EQ(host.Wait(), 0);
  EXPECT_THAT(Log(), HasSubstr("can't say READY=1 to the service manager: No such file or directory"));
}

}  // namespace
