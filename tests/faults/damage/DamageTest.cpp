#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "faults/disk/PluginProcess.h"
#include "faults/disk/SmallLog.h"
#include "faults/disk/StorageFiles.h"
#include "faults/disk/SystemCallTracer.h"
#include "support/Campaign.h"
#include "support/Device.h"

namespace zav::test {
namespace {

constexpr size_t kSector = 512;

/// Which of the two files that hold the log is damaged; of both, each in the same way.
enum class Target { kDatabase, kBackup, kBoth };

bool Has(Target target, Target part) {
  return target == part || target == Target::kBoth;
}

std::string NameOf(Target target) {
  const char* const names[] = {"Database", "Backup", "Pair"};
  return names[static_cast<int>(target)];
}

std::ostream& operator<<(std::ostream& out, Target target) {
  return out << NameOf(target);
}

/// What the plug-in made of damaged files.
struct Tally {
  int tried = 0;
  /// The log is whole.
  int kept = 0;
  /// Both files were past saving: the defaults took their place.
  int defaults = 0;
  /// The damage cannot be told from a sound file, and the log is not what it was.
  int untold = 0;
  /// Of those, both files in the same way: every report is answered with a failure until somebody removes them.
  int refused = 0;
  /// Something that must not happen.
  int failures = 0;
};

/// What has to come of files.
struct Must {
  bool keepLog = false;
  bool beDefault = false;
  /// Both files, and alike.
  bool beSound = false;
  /// Whether the report need not be saved.
  bool mayRefuse = false;
};

/// Whether the engine's own check of a database finds this file damaged.
bool IsTold(const std::string& database) {
  const std::string path = kRunDirectory + "/looked-at.db";
  WriteFile(path, database);
  std::string finding;
  try {
    finding = Sql("PRAGMA quick_check(1)", path);
  } catch (const std::runtime_error& error) {
    finding = error.what();
  }
  std::filesystem::remove(path);
  return finding != "ok";
}

/// A device whose log was in use, and its files as they were some reports ago and are now.
class ADevice : public testing::Test {
 protected:
  /// @param areLong  whether some reports are so long that the log takes several pages.
  void UseDevice(bool areLong) {
    MakeRunDirectory();
    WriteDefaultPolicy(DefaultPolicies());
    older = UseUntil(kReportsBefore - 2, areLong);
    used = UseUntil(kReportsBefore, areLong);
    EXPECT_EQ(used[kDatabaseName], used[kBackupName]);
    EXPECT_NE(used[kDatabaseName], older[kDatabaseName]);
  }

  /// Starts on these files, reports, and looks at what there is then.
  void TryFiles(const Files& files, const Must& must, const std::string& what) {
    ++tally.tried;
    PutStorageFiles(files);
    const std::string problem = Try({.report = NumberedReport(kAfterwards)});
    const auto stored = LogInDatabase();
    const bool isKept = stored == After(log, NumberedReport(kAfterwards)).Content();
    const bool isDefault = stored == After(EmptyLog(), NumberedReport(kAfterwards)).Content();
    tally.kept += isKept ? 1 : 0;
    tally.defaults += isDefault ? 1 : 0;
    tally.untold += !isKept && !isDefault ? 1 : 0;
    const std::string integrity = IntegrityOfDatabase();
    const bool isSound = integrity == "ok" && ReadFile(kDatabase) == ReadFile(kBackup);
    const bool isRefused = must.mayRefuse && problem == kNotSavedText;
    tally.refused += isRefused ? 1 : 0;
    const bool isFine = (problem.empty() || isRefused) && (!must.keepLog || isKept) && (!must.beDefault || isDefault) &&
                        (!must.beSound || isSound);
    if (isFine) return;
    ++tally.failures;
    std::printf("%s: %s; %s; %s\n", what.c_str(), problem.c_str(), Summary(stored).c_str(), integrity.c_str());
  }

  /// Tries one damaged content in the place of what it is to damage.
  void TryDamage(Target target, const std::string& damaged, const std::string& what) {
    Files files = used;
    if (Has(target, Target::kDatabase)) files[kDatabaseName] = damaged;
    if (Has(target, Target::kBackup)) files[kBackupName] = damaged;
    const bool isTold = IsTold(damaged);
    const bool isWhole = target == Target::kBackup;
    const Must must{isWhole || (isTold && target == Target::kDatabase), isTold && target == Target::kBoth,
                    isWhole || isTold, !isTold && target == Target::kBoth};
    TryFiles(files, must, what);
  }

  void Report(const char* what, Target target) const {
    std::printf("figures: %s, %s: %d tried, %d kept, %d defaults, %d untold, %d refused, %d failures\n", what,
                NameOf(target).c_str(), tally.tried, tally.kept, tally.defaults, tally.untold, tally.refused,
                tally.failures);
    EXPECT_EQ(tally.failures, 0);
  }

  /// The file with each of its pages overwritten, in each way, and what that is.
  std::vector<std::pair<std::string, std::string>> WithAPageOverwritten(const std::string& whole,
                                                                        const std::string& old) {
    std::vector<std::pair<std::string, std::string>> files;
    for (size_t at = 0; at < whole.size(); at += kPageSize) {
      const size_t size = std::min(kPageSize, whole.size() - at);
      const size_t other = (at + kPageSize) % whole.size();
      const std::pair<const char*, std::string> pages[] = {
          {"zeros", std::string(size, '\0')},
          {"ones", std::string(size, '\xff')},
          {"noise", Noise(random, size)},
          {"an older version", at < old.size() ? old.substr(at, size) : std::string(size, '\0')},
          {"another page", whole.substr(other, size)}};
      for (const auto& [kind, page] : pages) {
        files.emplace_back(std::string(whole).replace(at, size, page),
                           "page " + std::to_string(at / kPageSize) + ", " + kind);
      }
    }
    return files;
  }

  /// Calls what is given with the file with each of its bits flipped, one at a time, and what that is: in the short
  /// form one bit of every so many bytes.
  void ForEachFlippedBit(const std::string& whole, size_t shortStride,
                         const std::function<void(const std::string&, const std::string&)>& use) {
    const size_t stride = IsLongCampaign() ? static_cast<size_t>(CampaignLength(1)) : shortStride;
    for (size_t at = 0; at < whole.size(); at += stride) {
      // Each of a byte in the long form.
      const unsigned chosen = Below(random, CHAR_BIT);
      for (unsigned bit = 0; bit < CHAR_BIT; ++bit) {
        if (!IsLongCampaign() && bit != chosen) continue;
        std::string damaged = whole;
        damaged[at] = static_cast<char>(damaged[at] ^ (1 << bit));
        use(damaged, "byte " + std::to_string(at) + ", bit " + std::to_string(bit));
      }
    }
  }

  static constexpr int kReportsBefore = 6;
  static constexpr int kAfterwards = 1000;

  std::mt19937 random = CampaignRandom();
  LogModel log = EmptyLog();
  Files older;
  Files used;
  Tally tally;

 private:
  Files UseUntil(int reports, bool areLong) {
    PluginProcess process;
    process.Start();
    for (; sent < reports; ++sent) {
      const ThreatReport report = areLong ? NumberedReport(sent) : ThreatReport{std::to_string(sent), "threat"};
      EXPECT_EQ(process.Send(report), 0);
      log = After(log, report);
    }
    process.Leave();
    return StorageFiles();
  }

  int sent = 0;
};

class Damage : public ADevice, public testing::WithParamInterface<Target> {};
INSTANTIATE_TEST_SUITE_P(Of, Damage, testing::Values(Target::kDatabase, Target::kBackup, Target::kBoth),
                         [](const auto& each) { return "The" + NameOf(each.param); });

TEST_P(Damage, OfAWholePageEndsWithSoundFiles) {
  UseDevice(true);
  for (const auto& [damaged, what] : WithAPageOverwritten(used[kDatabaseName], older[kDatabaseName])) {
    TryDamage(GetParam(), damaged, what);
  }
  Report("pages", GetParam());
}

TEST_P(Damage, OfItsLengthEndsWithSoundFiles) {
  constexpr size_t kShortStride = size_t{397} * kCasesForOne;
  UseDevice(true);
  const std::string& whole = used[kDatabaseName];
  const size_t stride = IsLongCampaign() ? static_cast<size_t>(CampaignLength(1)) : kShortStride;
  for (size_t size = 0; size < whole.size(); size += stride) {
    TryDamage(GetParam(), whole.substr(0, size), "length " + std::to_string(size));
  }
  Report("lengths", GetParam());
}

TEST_P(Damage, OfABitEndsWithAServiceThatWorks) {
  constexpr size_t kShortStride = size_t{251} * kCasesForOne;
  UseDevice(false);
  ForEachFlippedBit(used[kDatabaseName], kShortStride,
                    [&](const std::string& damaged, const std::string& what) { TryDamage(GetParam(), damaged, what); });
  Report("bits", GetParam());
}

/// A journal that has nothing to do with the database beside it.
class AJournalFromAnotherTime : public ADevice {
 protected:
  /// The files of a process that was killed when its database was half written, so that the journal is needed.
  Files HalfWritten(const Files& files) {
    PutStorageFiles(files);
    const PluginProcess process;
    process.Start();
    EXPECT_TRUE(process.Answers());
    SystemCallTracer tracer(process.id());
    std::thread client([&] {
      process.Send(NumberedReport(kAfterwards));
      process.Kill();
    });
    tracer.Run(
        [&](const SystemCall& call) {
          const bool isSync = call.number == SYS_fdatasync || call.number == SYS_fsync;
          if (isSync && IsDatabase(process.id(), call.arguments[0])) process.Kill();
        },
        [](const SystemCall&) {});
    client.join();
    return StorageFiles();
  }

  void TryJournal(const std::string& journal, const Must& must, const std::string& what) {
    Files files = used;
    files[kJournalName] = journal;
    TryFiles(files, must, what);
  }

 private:
  static bool IsDatabase(pid_t process, std::uint64_t descriptor) {
    std::error_code ignored;
    const std::string link = "/proc/" + std::to_string(process) + "/fd/" + std::to_string(descriptor);
    return std::filesystem::read_symlink(link, ignored) == kDatabase;
  }
};

TEST_F(AJournalFromAnotherTime, ThatIsNotWholeDoesNothing) {
  constexpr size_t kShortStride = size_t{17} * kCasesForOne;
  UseDevice(true);
  const std::string hot = HalfWritten(older).at(kJournalName);
  ASSERT_NE(hot, older[kJournalName]);
  const Must must{true, false, true};
  TryJournal(Noise(random, hot.size()), must, "noise");
  TryJournal(std::string(hot.size(), '\0'), must, "zeros");
  TryJournal(std::string(hot.size(), '\xff'), must, "ones");
  TryJournal(older[kJournalName], must, "one that is done");
  TryJournal(hot.substr(0, kSector) + Noise(random, hot.size() - kSector), must, "a header with noise");
  const size_t stride = IsLongCampaign() ? 1 : kShortStride;
  for (size_t size = 0; size < kSector; size += stride) TryJournal(hot.substr(0, size), must, "a part of a header");
  Report("journals", Target::kDatabase);
}

TEST_F(AJournalFromAnotherTime, ThatIsWholeLeavesAServiceThatWorks) {
  constexpr size_t kShortStride = size_t{397} * kCasesForOne;
  UseDevice(true);
  const std::string hot = HalfWritten(older).at(kJournalName);
  const size_t stride = IsLongCampaign() ? static_cast<size_t>(CampaignLength(1)) : kShortStride;
  for (size_t size = kSector; size < hot.size(); size += stride) TryJournal(hot.substr(0, size), {}, "a part");
  TryJournal(hot, {}, "whole");
  Report("whole journals and parts of one", Target::kDatabase);
}

TEST_F(AJournalFromAnotherTime, WithAPageOverwrittenLeavesAServiceThatWorks) {
  UseDevice(true);
  const std::string hot = HalfWritten(older).at(kJournalName);
  const std::string newer = HalfWritten(used).at(kJournalName);
  for (const auto& [damaged, what] : WithAPageOverwritten(hot, newer)) TryJournal(damaged, {}, what);
  Report("journals with a page overwritten", Target::kDatabase);
}

// It tells how long the database was: a little more, or more than any disk has room for.
TEST_F(AJournalFromAnotherTime, WithADamagedLengthOfTheDatabaseLeavesFilesOfTheirSize) {
  constexpr size_t kPagesOfTheDatabase = 16;
  UseDevice(true);
  const std::string hot = HalfWritten(older).at(kJournalName);
  for (unsigned bit = 0; bit < 32; ++bit) {
    std::string damaged = hot;
    char& byte = damaged[kPagesOfTheDatabase + bit / CHAR_BIT];
    byte = static_cast<char>(byte ^ (1 << bit % CHAR_BIT));
    TryJournal(damaged, {true, false, true}, "bit " + std::to_string(bit));
  }
  Report("journals with a damaged length", Target::kDatabase);
}

TEST_F(AJournalFromAnotherTime, WithABitFlippedLeavesAServiceThatWorks) {
  constexpr size_t kShortStride = size_t{251} * kCasesForOne;
  UseDevice(false);
  const std::string hot = HalfWritten(older).at(kJournalName);
  ForEachFlippedBit(hot, kShortStride,
                    [&](const std::string& damaged, const std::string& what) { TryJournal(damaged, {}, what); });
  Report("journals with a bit flipped", Target::kDatabase);
}

TEST_F(AJournalFromAnotherTime, IsNotTheOneThatBelongsToTheDatabase) {
  UseDevice(true);
  const Files files = HalfWritten(used);
  ASSERT_NE(files.at(kDatabaseName), used[kDatabaseName]);
  TryFiles(files, {true, false, true}, "its own journal");
  Report("its own journal", Target::kDatabase);
}

}  // namespace
}  // namespace zav::test
