#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <functional>
#include <optional>
#include <set>
#include <thread>

#include "faults/disk/DiskLog.h"
#include "faults/disk/PluginProcess.h"
#include "faults/disk/SmallLog.h"
#include "support/Campaign.h"
#include "support/Device.h"
#include "support/Surroundings.h"

namespace zav::test {
namespace {

/// A run of the plug-in whose every event on the disk may be the last one before the power is lost.
struct Course {
  const char* name;
  /// The reports that the device has seen before.
  int reportsBefore;
  /// Whether there is a row for every policy: one that is missing is looked for in the backup at each start.
  bool withService;
  /// What the files have become meanwhile.
  std::function<Files(Files)> damage;
  /// The pages that the disk has left; none: enough.
  std::optional<unsigned> pagesLeft;
  int reports;
};

std::ostream& operator<<(std::ostream& out, const Course& course) {
  return out << course.name;
}

Files Untouched(Files files) {
  return files;
}

Files WithNoiseForADatabase(Files files) {
  std::mt19937 random(1);
  files[kDatabaseName] = Noise(random, files[kDatabaseName].size());
  return files;
}

const Course kCourses[] = {
    {"FirstStart", 0, true, Untouched, std::nullopt, 2},
    {"Reports", 6, true, Untouched, std::nullopt, 4},
    {"StartWithoutARow", 6, false, Untouched, std::nullopt, 2},
    {"RestoreAtTheStart", 6, true, WithNoiseForADatabase, std::nullopt, 2},
    {"BackupsOverwriteTheLastOne", 6, true, Untouched, 1, 3},
    {"BackupsFail", 1, true, Untouched, 8, 3},
    {"BackupsFailWithoutARow", 1, false, Untouched, 8, 3},
};

/// What comes after the power loss: a start that finds all it needs, or before that one with a report that finds no
/// room.
enum class Afterwards { kStart, kStartWithoutRoomFirst };

/// From here on no file of the process can be written to.
void LeaveNoRoom() {
  rlimit limit{};
  getrlimit(RLIMIT_FSIZE, &limit);
  limit.rlim_cur = 0;
  setrlimit(RLIMIT_FSIZE, &limit);
}

class APowerLoss : public testing::TestWithParam<std::tuple<Course, Afterwards>> {
 protected:
  void SetUp() override {
    const Course& course = std::get<Course>(GetParam());
    WriteDefaultPolicy(DefaultPolicies(course.withService));
    if (course.reportsBefore > 0) Use(course.reportsBefore);
    before = course.damage(StorageFiles());
    Record(course);
  }

  /// Brings one disk back, starts on it. @return whether all is there.
  bool Survives(const Files& image, const AllowedLogs& allowed) {
    PutStorageFiles(image);
    if (std::get<Afterwards>(GetParam()) == Afterwards::kStartWithoutRoomFirst) {
      problem = Try({[] { std::signal(SIGXFSZ, SIG_IGN); }, [] { LeaveNoRoom(); }, NumberedReport(1001)});
      if (problem != kNotSavedText) return false;
    }
    const ThreatReport report = NumberedReport(1002);
    problem = Try({.report = report});
    if (!problem.empty()) return false;
    problem = IntegrityOfDatabase();
    if (problem != "ok") return false;
    const auto stored = LogInDatabase();
    problem = Summary(stored);
    return std::any_of(allowed.begin(), allowed.end(),
                       [&](const auto& log) { return After(log, report).Content() == stored; });
  }

  /// All that the log may be with this much answered.
  AllowedLogs Allowed(int answered) const {
    AllowedLogs allowed;
    for (size_t next = static_cast<size_t>(answered); next < logs.size(); ++next) {
      allowed.push_back(logs[next]);
      if (next > static_cast<size_t>(answered) && isAnswered[next]) break;
    }
    return allowed;
  }

  Files before;
  std::vector<DiskEvent> events;
  std::string problem;

 private:
  void Use(int reports) {
    PluginProcess process;
    process.Start();
    for (int number = 0; number < reports; ++number) {
      ASSERT_EQ(process.Send(NumberedReport(number)), 0);
      logs[0] = After(logs[0], NumberedReport(number));
    }
    process.Leave();
  }

  void Record(const Course& course) {
    std::optional<SmallDisk> disk;
    if (course.pagesLeft) disk.emplace(kStorageDirectory, Pages(before) * kPageSize + *course.pagesLeft * kPageSize);
    PutStorageFiles(before);
    const PluginProcess process;
    SystemCallTracer tracer(process.id());
    DiskRecorder recorder(before);
    std::thread client([&] {
      process.Start();
      EXPECT_TRUE(process.Answers());
      for (int number = 0; number < course.reports; ++number) Send(process, NumberedReport(100 + number), recorder);
      process.Kill();
    });
    recorder.Run(tracer);
    client.join();
    ASSERT_EQ(recorder.Problem(), "");
    events = recorder.Events();
    EXPECT_EQ(Everything(), StorageFiles()) << "the record does not tell what happened";
  }

  void Send(const PluginProcess& process, const ThreatReport& report, DiskRecorder& recorder) {
    logs.push_back(After(logs.back(), report));
    isAnswered.push_back(process.Send(report) == 0);
    if (isAnswered.back()) recorder.Note(static_cast<int>(logs.size()) - 1);
  }

  Files Everything() const {
    Disk disk(before);
    for (const DiskEvent& event : events) disk.Apply(event);
    PlainFate kept(true, true);
    return disk.After(kept);
  }

  static unsigned Pages(const Files& files) {
    size_t pages = 0;
    for (const auto& [name, content] : files) pages += (content.size() + kPageSize - 1) / kPageSize;
    return static_cast<unsigned>(pages);
  }

  /// The log after each report, the first one before any.
  std::vector<LogModel> logs{EmptyLog()};
  std::vector<bool> isAnswered{true};
};

/// Every disk that a power loss may leave is tried once.
class Images {
 public:
  bool IsNew(const Files& files, int answered) {
    std::string all = std::to_string(answered);
    for (const auto& [name, content] : files) all += '\0' + name + '\0' + content;
    return seen.insert(std::hash<std::string>()(all)).second;
  }

 private:
  std::set<size_t> seen;
};

/// Tries all that each point of a recorded course may leave.
class Campaign {
 public:
  using Trial = std::function<bool(const Files&, int answered, const std::string& where)>;

  Campaign(const Files& before, const std::vector<DiskEvent>& recorded, Trial toTry)
      : files(before), events(recorded), trial(std::move(toTry)) {}

  /// From the first event to the last.
  /// @param randomImages  at each point.
  void Pass(std::mt19937& random, int randomImages) {
    Disk disk(files);
    int answered = 0;
    TryPoint(disk, answered, 0, random, randomImages);
    for (size_t point = 0; point < events.size(); ++point) {
      disk.Apply(events[point]);
      if (events[point].kind == DiskEvent::Kind::kNote) answered = events[point].file;
      if (point % kCasesForOne == 0) TryPoint(disk, answered, point + 1, random, randomImages);
    }
  }

  int tried = 0;
  int failures = 0;

 private:
  void TryPoint(const Disk& disk, int answered, size_t point, std::mt19937& random, int randomImages) {
    for (const bool names : {false, true}) {
      for (const bool data : {false, true}) {
        PlainFate fate(names, data);
        const std::string how = std::string(names ? ", names kept" : "") + (data ? ", data kept" : "");
        TryOne(disk.After(fate), answered, "at event " + std::to_string(point) + how);
      }
    }
    for (int image = 0; image < randomImages; ++image) {
      RandomFate fate(random);
      TryOne(disk.After(fate), answered, "at event " + std::to_string(point) + ", some kept");
    }
  }

  void TryOne(const Files& image, int answered, const std::string& where) {
    if (!images.IsNew(image, answered)) return;
    ++tried;
    failures += trial(image, answered, where) ? 0 : 1;
  }

  const Files& files;
  const std::vector<DiskEvent>& events;
  Trial trial;
  Images images;
};

TEST_P(APowerLoss, LosesNothingThatWasAnswered) {
  constexpr int kMostPasses = 50;
  std::mt19937 random = CampaignRandom();
  Campaign campaign(before, events, [&](const Files& image, int answered, const std::string& where) {
    const bool survives = Survives(image, Allowed(answered));
    if (!survives) std::printf("%s: %s\n", where.c_str(), problem.c_str());
    return survives;
  });
  const int wanted = CampaignLength(1);
  const int randomImages = 1 + wanted / static_cast<int>(events.size());
  for (int pass = 0; pass < kMostPasses && campaign.tried < wanted; ++pass) campaign.Pass(random, randomImages);
  std::printf("figures: %s%s: %zu events, %d images, %d failures\n", std::get<Course>(GetParam()).name,
              std::get<Afterwards>(GetParam()) == Afterwards::kStart ? "" : " and a start without room", events.size(),
              campaign.tried, campaign.failures);
  EXPECT_EQ(campaign.failures, 0);
  EXPECT_GT(campaign.tried, 50 / kCasesForOne);
}

INSTANTIATE_TEST_SUITE_P(Courses, APowerLoss,
                         testing::Combine(testing::ValuesIn(kCourses),
                                          testing::Values(Afterwards::kStart, Afterwards::kStartWithoutRoomFirst)),
                         [](const auto& each) {
                           const bool withRoom = std::get<Afterwards>(each.param) == Afterwards::kStart;
                           return std::get<Course>(each.param).name +
                                  std::string(withRoom ? "" : "AndAStartWithoutRoom");
                         });

}  // namespace
}  // namespace zav::test
