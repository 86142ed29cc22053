#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <thread>

#include "faults/disk/PluginProcess.h"
#include "faults/disk/SmallLog.h"
#include "faults/disk/StorageFiles.h"
#include "faults/disk/SystemCallTracer.h"
#include "support/Campaign.h"
#include "support/Device.h"

namespace zav::test {
namespace {

/// A device with a log that has been in use, and all that may happen to it.
class AKill : public testing::Test {
 protected:
  /// @param withService  whether there is a row for every policy: one that is missing is looked for in the backup.
  void UseDevice(bool withService) {
    WriteDefaultPolicy(DefaultPolicies(withService));
    PluginProcess process;
    process.Start();
    for (int number = 0; number < kReportsBefore; ++number) {
      EXPECT_EQ(process.Send(NumberedReport(number)), 0);
      log = After(log, NumberedReport(number));
    }
    process.Leave();
    used = StorageFiles();
  }

  /// Starts again on what the killed process left. @return whether all is as it may be.
  static bool IsSound(const AllowedLogs& allowed, const std::string& when) {
    PluginProcess process;
    process.Start();
    const bool answers = process.Answers();
    process.End();
    EXPECT_TRUE(answers) << when;
    const std::string integrity = IntegrityOfDatabase();
    EXPECT_EQ(integrity, "ok") << when;
    const auto stored = LogInDatabase();
    const bool isAllowed =
        std::any_of(allowed.begin(), allowed.end(), [&](const auto& each) { return each.Content() == stored; });
    EXPECT_TRUE(isAllowed) << when << ": " << Summary(stored);
    return answers && isAllowed && integrity == "ok";
  }

  static constexpr int kReportsBefore = 6;

  LogModel log = EmptyLog();
  Files used;
};

/// A moment of the plug-in's life that is cut short before each of its system calls.
struct Moment {
  const char* name;
  /// The files that it begins with.
  std::function<Files(Files)> damage;
  bool withService;
  /// Whether it begins with the start, else when the plug-in is at rest.
  bool isStart;
  /// Whether it begins with files that are put there only now.
  bool isDamagedMeanwhile;
  /// Whether a report is sent, else a question that changes nothing.
  bool isReport;
};

Files Untouched(Files files) {
  return files;
}

Files WithNoiseForADatabase(Files files) {
  std::mt19937 random(1);
  std::string& database = files[kDatabaseName];
  database = Noise(random, database.size());
  return files;
}

std::ostream& operator<<(std::ostream& out, const Moment& moment) {
  return out << moment.name;
}

const Moment kMoments[] = {
    {"Report", Untouched, true, false, false, true},
    {"Start", Untouched, true, true, false, false},
    {"StartWithAReport", Untouched, true, true, false, true},
    {"StartWithoutARow", Untouched, false, true, false, true},
    {"RestoreAtTheStart", WithNoiseForADatabase, true, true, false, true},
    {"RestoreAtAReport", WithNoiseForADatabase, true, false, true, true},
};

class AKillBeforeEachSystemCallOfA : public AKill, public testing::WithParamInterface<Moment> {
 protected:
  /// @param last  the number of the system call that is not reached, 1 the first.
  /// @return whether it was killed there; else the moment passed.
  bool RunUntil(int last, AllowedLogs& allowed) {
    const Moment& moment = GetParam();
    PutStorageFiles(moment.isDamagedMeanwhile ? used : moment.damage(used));
    const PluginProcess process;
    if (!moment.isStart) {
      process.Start();
      EXPECT_TRUE(process.Answers());
    }
    if (moment.isDamagedMeanwhile) PutInPlace(moment.damage(used)[kDatabaseName]);
    SystemCallTracer tracer(process.id());
    bool isAnswered = false;
    std::thread client([&] {
      if (moment.isStart) process.Start();
      isAnswered = moment.isReport ? process.Send(report) == 0 : process.Answers();
      process.Kill();
    });
    int calls = 0;
    const auto countAndKill = [&](const SystemCall&) {
      if (++calls >= last) process.Kill();
    };
    tracer.Run(countAndKill, [](const SystemCall&) {});
    client.join();
    allowed = {log};
    if (moment.isReport) allowed.push_back(After(log, report));
    if (moment.isReport && isAnswered) allowed.erase(allowed.begin());
    return calls >= last;
  }

  const ThreatReport report = NumberedReport(1000);

 private:
  /// The plug-in has the file open.
  static void PutInPlace(const std::string& content) {
    std::FILE* const file = std::fopen(kDatabase.c_str(), "r+");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(std::fwrite(content.data(), 1, content.size(), file), content.size());
    std::fclose(file);
  }
};

TEST_P(AKillBeforeEachSystemCallOfA, LosesNothingThatWasAnswered) {
  UseDevice(GetParam().withService);
  int kills = 0;
  int failures = 0;
  AllowedLogs allowed;
  for (int call = 1; RunUntil(call, allowed); call += kCasesForOne) {
    ++kills;
    if (!IsSound(allowed, "killed before call " + std::to_string(call))) ++failures;
  }
  IsSound(allowed, "not killed");
  std::printf("figures: %s: %d kills, %d failures\n", GetParam().name, kills, failures);
  EXPECT_GT(kills, 50 / kCasesForOne);
}

INSTANTIATE_TEST_SUITE_P(Moments, AKillBeforeEachSystemCallOfA, testing::ValuesIn(kMoments),
                         [](const auto& each) { return std::string(each.param.name); });

/// A client that reports until the plug-in is killed under it, and keeps account of what the log may be.
class AKillAtARandomInstant : public AKill {
 protected:
  /// Starts on what is there, and kills when the time has come.
  void RunFor(std::chrono::microseconds time) {
    PluginProcess process;
    std::thread killer([&] {
      process.Start();
      std::this_thread::sleep_for(time);
      process.Kill();
    });
    if (process.Answers() && Observe()) {
      while (Ask(process)) {
      }
    }
    killer.join();
  }

  std::mt19937 random = CampaignRandom();
  AllowedLogs allowed;
  int answers = 0;

 private:
  /// What is in the log now is what the next report is added to. The backup may still hold another log that is allowed.
  bool Observe() {
    const auto stored = LogInDatabase();
    const auto found =
        std::find_if(allowed.begin(), allowed.end(), [&](const auto& each) { return each.Content() == stored; });
    EXPECT_NE(found, allowed.end()) << Summary(stored);
    if (found != allowed.end()) log = *found;
    return found != allowed.end();
  }

  /// @return whether there was an answer.
  bool Ask(const PluginProcess& process) {
    const bool isReset = Below(random, kAsksForAReset) == 0;
    const ThreatReport report = NumberedReport(++reports);
    const LogModel after = isReset ? AfterReset(log) : After(log, report);
    const auto answer = isReset ? process.SendReset() : process.Send(report);
    if (!answer) {
      allowed.push_back(after);
      return false;
    }
    EXPECT_EQ(answer, 0);
    allowed = {log = after};
    ++answers;
    return true;
  }

  static constexpr unsigned kAsksForAReset = 20;
  int reports = kReportsBefore;
};

TEST_F(AKillAtARandomInstant, LosesNothingThatWasAnswered) {
  constexpr int kShortKills = 300 / kCasesForOne;
  constexpr unsigned kKillsForADamage = 8;
  constexpr unsigned kShortestOfThemUs = 12000;
  unsigned longestRunUs = kShortestOfThemUs;
  const int kills = CampaignLength(kShortKills);
  UseDevice(true);
  allowed = {log};
  int failures = 0;
  int damages = 0;
  for (int kill = 0; kill < kills && !HasFailure(); ++kill) {
    const int before = answers;
    RunFor(std::chrono::microseconds(Below(random, longestRunUs)));
    // How long a start and a few reports take depends on the machine, the build and what else runs.
    longestRunUs = answers > before ? std::max(kShortestOfThemUs, longestRunUs / 3 * 2) : longestRunUs * 2;
    const bool isDamaged = Below(random, kKillsForADamage) == 0 && FileExists(kDatabase);
    if (isDamaged) WriteFile(kDatabase, Noise(random, ReadFile(kDatabase).size()));
    damages += isDamaged ? 1 : 0;
    // What is killed next is the restore.
    if (isDamaged) continue;
    if (!IsSound(allowed, "kill " + std::to_string(kill))) ++failures;
  }
  std::printf("figures: random instants: %d kills, %d answers, %d databases damaged, %d failures\n", kills, answers,
              damages, failures);
  EXPECT_GT(answers, kills / 10);
}

}  // namespace
}  // namespace zav::test
