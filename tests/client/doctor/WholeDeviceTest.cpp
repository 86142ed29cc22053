#include <atomic>
#include <filesystem>
#include <optional>

#include "Process.h"
#include "doctor/DeviceFiles.h"
#include "integration/Library.h"
#include "support/Device.h"
#include "support/Surroundings.h"

namespace zav::client::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;
using zav::test::kDatabase;
using zav::test::kRunDirectory;
using zav::test::kStorageDirectory;
using zav::test::ReadFile;
using zav::test::WriteFile;

/// The doctor as a program, on the device's real paths.
Outcome Examine() {
  return RunPyxctl({"doctor", "--timeout", "20"});
}

bool IsUsed() {
  return RunPyxctl({"ping", "--wait", "--timeout", "20"}).status == 0 &&
         RunPyxctl({"report", "http://a.example", "--timeout", "20"}).status == 0;
}

/// A device whose plug-in is loaded as the daemon loads it, and was in use.
class AWholeDevice : public testing::Test {
 protected:
  AWholeDevice() {
    zav::test::MakeStorageDirectory();
    fs::permissions(kStorageDirectory, fs::perms(0700));
    WriteFile(zav::test::kDefaultPolicy, ReadFile(DEFAULT_POLICY));
    Start();
  }

  void Start() {
    plugin.emplace();
    EXPECT_TRUE(IsUsed());
  }
  void Stop() { plugin.reset(); }

  static void ExpectFinding(const std::string& finding, int status = 1) {
    const Outcome outcome = Examine();
    EXPECT_EQ(outcome.status, status);
    EXPECT_THAT(outcome.out, HasSubstr(finding));
  }

  const zav::test::Umask umask{022};
  zav::test::MemoryStorage storage;
  std::optional<zav::test::LoadedPlugin> plugin;
};

TEST_F(AWholeDevice, IsSoundWhileItsServiceRuns) {
  const Outcome outcome = Examine();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "");
  for (const char* severity : {"note ", "warning ", "problem "}) EXPECT_THAT(outcome.out, Not(HasSubstr(severity)));
  for (const auto& examination : pyxctl::doctor::Examinations()) {
    EXPECT_THAT(outcome.out, HasSubstr("ok       " + std::string(examination.subject) + ": "));
  }
}

TEST_F(AWholeDevice, IsNotChangedByTheDoctor) {
  // To ask a service sets the time of the last access of its socket.
  const auto names = NamesBelow({kRunDirectory});
  ExpectNoChange({"/opt"}, [] { EXPECT_EQ(Examine().status, 0); });
  EXPECT_EQ(NamesBelow({kRunDirectory}), names);
}

TEST_F(AWholeDevice, IsSoundWhileReportsCome) {
  std::atomic<bool> enough = false;
  std::thread reporter([&] {
    pyxclient::Client client({.timeout = std::chrono::seconds(60), .atLeastOnce = true});
    while (!enough) client.Report("http://b.example", "malware");
  });
  for (int round = 0; round < 10; ++round) {
    const Outcome outcome = Examine();
    EXPECT_EQ(outcome.status, 0) << outcome.out;
    EXPECT_THAT(outcome.out, Not(HasSubstr("warning ")));
  }
  enough = true;
  reporter.join();
}

TEST_F(AWholeDevice, HasNoServiceWhenItIsOff) {
  Stop();
  ExpectNoChange({"/opt", kRunDirectory}, [] { ExpectFinding("problem  service: it does not answer: no service"); });
  EXPECT_THAT(Examine().out, HasSubstr("ok       backup: it is whole, and holds what the database holds"));
}

TEST_F(AWholeDevice, HasItsLogOff) {
  plugin->provider->executeCommand("DisableLogging", "");
  ExpectFinding("note     service: it answers; logging is off", 0);
}

TEST_F(AWholeDevice, LostItsSocket) {
  fs::remove(zav::test::kSocketFile);
  ExpectFinding("problem  socket: there is no ");
}

TEST_F(AWholeDevice, HasARunDirectoryThatIsOpenToAll) {
  fs::permissions(kRunDirectory, fs::perms(0777));
  ExpectFinding("problem  run directory: its mode, 0777");
}

TEST_F(AWholeDevice, LostItsDatabase) {
  fs::remove(kDatabase);
  ExpectFinding("problem  database: there is no " + kDatabase + ": the service works on a file that was removed");
}

TEST_F(AWholeDevice, WasDamagedAndRepairsItself) {
  Stop();
  WriteFile(kDatabase, std::string(8192, 'x'));
  ExpectFinding("problem  database: it is damaged: file is not a database");
  Start();
  ExpectFinding("warning  notes: a database was found damaged and set aside: " + kDatabase + ".damaged, of ", 0);
}

TEST_F(AWholeDevice, HasASettingThatIsOutOfRange) {
  Stop();
  zav::test::SetRow("Service", R"({"restart_delay":1})");
  ExpectFinding("warning  stored policies: restart_delay is 1, and should be a whole number from 30 to 3600");
}

TEST_F(AWholeDevice, LostItsDefaultPolicy) {
  fs::remove(zav::test::kDefaultPolicy);
  ExpectFinding("problem  policy.json: there is no " + zav::test::kDefaultPolicy);
}

TEST_F(AWholeDevice, HasADiskThatBecameReadOnly) {
  Stop();
  zav::test::SmallDisk disk(kStorageDirectory, 1 << 20);
  if (!disk.IsMounted()) GTEST_SKIP() << "no right to mount";
  disk.MakeReadOnly();
  ExpectFinding("problem  disk: the file system of " + kStorageDirectory + " is read-only");
}

}  // namespace
}  // namespace zav::client::test
