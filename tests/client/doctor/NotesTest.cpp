#include <fcntl.h>
#include <sys/stat.h>

#include "FakeService.h"
#include "doctor/DeviceFiles.h"
#include "support/Device.h"
#include "support/Surroundings.h"

namespace zav::client::test {
namespace {

using pyxctl::doctor::ExamineNotes;
using pyxctl::doctor::Paths;
using testing::ElementsAre;
using testing::IsEmpty;

struct ANote {
  const char* name;
  std::string (Paths::*path)() const;
  Severity severity;
  bool isUsualWhileRunning;
};

class NotesBesideTheDatabase : public testing::TestWithParam<ANote> {
 protected:
  DeviceFiles device;
};
INSTANTIATE_TEST_SUITE_P(Each, NotesBesideTheDatabase,
                         testing::Values(ANote{"Restoring", &Paths::Restoring, Severity::kWarning, false},
                                         ANote{"Opening", &Paths::Opening, Severity::kNote, true},
                                         ANote{"StaleBackup", &Paths::StaleBackup, Severity::kNote, true},
                                         ANote{"NewBackup", &Paths::NewBackup, Severity::kNote, true},
                                         ANote{"NewDatabase", &Paths::NewDatabase, Severity::kNote, true},
                                         ANote{"Damaged", &Paths::Damaged, Severity::kWarning, false},
                                         ANote{"DamagedJournal", &Paths::DamagedJournal, Severity::kNote, false}),
                         [](const auto& each) { return each.param.name; });

TEST_P(NotesBesideTheDatabase, AreNamedWithTheirTime) {
  EXPECT_THAT(device.Examined(ExamineNotes), IsEmpty());
  const std::string path = (device.paths.*GetParam().path)();
  zav::test::WriteFile(path, "");
  const timespec times[] = {{1'700'000'000, 0}, {1'700'000'000, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  EXPECT_THAT(device.Examined(ExamineNotes), ElementsAre(Finds(GetParam().severity, path + ", of 2023-11-1")));
}

TEST_P(NotesBesideTheDatabase, AreNotWorthAWordWhereARunningServiceHasThem) {
  const FakeService service{Answering(Header(4), Words({0, 301, 1})), Answering(Header(5), Words({0, 1301, 1}))};
  device.options.socket = service.path();
  zav::test::WriteFile((device.paths.*GetParam().path)(), "");
  EXPECT_EQ(device.Examined(ExamineNotes).empty(), GetParam().isUsualWhileRunning);
}

TEST(NotesInALockedDirectory, AreNotExamined) {
  const DeviceFiles device;
  ::chmod(device.paths.storageDirectory.c_str(), 0);
  const zav::test::WithoutPrivilege ordinary;
  EXPECT_THAT(device.Examined(ExamineNotes), ElementsAre(IsWarning("not examined")));
}

}  // namespace
}  // namespace zav::client::test
