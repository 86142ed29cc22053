#include <fcntl.h>

#include <filesystem>

#include "FakeService.h"
#include "doctor/DeviceFiles.h"
#include "support/Device.h"
#include "support/WaitUntil.h"

namespace zav::client::test {
namespace {

namespace fs = std::filesystem;
using zav::test::ReadFile;
using zav::test::Sql;
using zav::test::WriteFile;

/// A state of a device's files, and how it comes about.
struct State {
  const char* name;
  void (*bring)(const DeviceFiles&);
};

void LeaveAHotJournal(const DeviceFiles& device) {
  WriteFile(device.paths.Journal(), "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7" + std::string(600, 'x'));
}

void LeaveAnEmptyDatabaseWithAJournal(const DeviceFiles& device) {
  WriteFile(device.paths.Database(), "");
  LeaveAHotJournal(device);
}

void LeaveAnotherJournalMode(const DeviceFiles& device) {
  Sql("PRAGMA journal_mode = WAL", device.paths.Database());
}

void LeaveAWriteAheadLog(const DeviceFiles& device) {
  LeaveAnotherJournalMode(device);
  WriteFile(device.paths.WriteAheadLog(), std::string(64, 'x'));
}

void LeaveEveryNote(const DeviceFiles& device) {
  const pyxctl::doctor::Paths& paths = device.paths;
  for (const std::string& path : {paths.Restoring(), paths.Opening(), paths.StaleBackup(), paths.NewBackup(),
                                  paths.Damaged(), paths.DamagedJournal()}) {
    WriteFile(path, "");
  }
}

class TheDoctor : public testing::TestWithParam<State> {
 protected:
  DeviceFiles device;
};
INSTANTIATE_TEST_SUITE_P(
    Each, TheDoctor,
    testing::Values(
        State{"Sound", [](const DeviceFiles&) {}}, State{"AHotJournal", LeaveAHotJournal},
        State{"AnEmptyDatabaseWithAJournal", LeaveAnEmptyDatabaseWithAJournal},
        State{"AnotherJournalMode", LeaveAnotherJournalMode}, State{"AWriteAheadLog", LeaveAWriteAheadLog},
        State{"EveryNote", LeaveEveryNote},
        State{"NoDatabase", [](const DeviceFiles& device) { fs::remove(device.paths.Database()); }},
        State{"DamagedDatabase", [](const DeviceFiles& device) { WriteFile(device.paths.Database(), "damaged"); }},
        State{"NoPolicies", [](const DeviceFiles& device) { device.Store({}); }},
        State{"NoRunDirectory", [](const DeviceFiles& device) { fs::remove(device.paths.RunDirectory()); }}),
    [](const auto& each) { return each.param.name; });

TEST_P(TheDoctor, ChangesNothing) {
  GetParam().bring(device);
  ExpectNoChange({fs::path(device.paths.storageDirectory).parent_path()}, [&] { device.Examined(); });
}

TEST(WhatChanges, IsNoticedByTheseTests) {
  const DeviceFiles device;
  const auto names = NamesBelow({device.paths.storageDirectory});
  AgeAccess(names);
  const auto times = TimesOf(names);
  ReadFile(device.paths.Database());
  EXPECT_NE(TimesOf(names), times) << "the file system keeps no time of the last access";
}

TEST(APipeInPlaceOfAFile, IsNotWaitedFor) {
  const DeviceFiles device;
  for (const std::string& path : {device.paths.Database(), device.paths.Backup(), device.paths.DefaultPolicy(),
                                  device.paths.Journal(), device.paths.Restoring()}) {
    fs::remove(path);
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  }
  EXPECT_FALSE(IsSound(device.Examined()));
}

/// The first question may make a service load, and repair, what it stores.
TEST(AServiceThatRepairsWhenItIsAsked, IsAskedLast) {
  DeviceFiles device;
  const auto repair = [&](Peer& peer) {
    device.Store(SoundPolicies());
    Answering(Header(4), Words({0, 301, 1}))(peer);
  };
  const FakeService service{repair, Answering(Header(5), Words({0, 1301, 1}))};
  device.options.socket = service.path();
  device.Store({});
  EXPECT_THAT(device.Examined(pyxctl::doctor::ExamineStoredPolicies), testing::SizeIs(3));
  device.options.socket = device.paths.socket;
  EXPECT_THAT(device.Examined(pyxctl::doctor::ExamineStoredPolicies), testing::IsEmpty());
}

/// What the doctor says of a backup that the service brings up to date while it looks.
Findings ExaminedDuringABackup() {
  const DeviceFiles device;
  Sql("INSERT INTO PYXPlugin VALUES ('State', '{\"logging_state\":\"enabled\"}')", device.paths.Database());
  std::thread service([&] {
    // Long enough for the first look, and short beside the doctor's patience.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const std::string next = device.paths.Backup() + ".new";
    WriteFile(next, ReadFile(device.paths.Database()));
    fs::rename(next, device.paths.Backup());
  });
  Findings findings = device.Examined(pyxctl::doctor::ExamineBackup);
  service.join();
  return findings;
}

TEST(ABackupThatComesLater, IsWaitedFor) {
  // On a machine that is busy it may come later than the doctor waits; a doctor that does not wait never sees it.
  EXPECT_TRUE(zav::test::WaitUntil([] { return ExaminedDuringABackup().empty(); }));
}

}  // namespace
}  // namespace zav::client::test
