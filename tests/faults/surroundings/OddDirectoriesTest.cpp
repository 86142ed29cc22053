#include <json/value.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>

#include "Asking.h"
#include "OddThing.h"
#include "WatchedChild.h"
#include "integration/Library.h"
#include "support/Campaign.h"
#include "support/LogRecorder.h"
#include "support/RawClient.h"
#include "support/StoredState.h"
#include "support/Surroundings.h"
#include "support/SystemCalls.h"
#include "support/WaitUntil.h"

// Everything that the plug-in keeps or finds in its directories, in every odd state that a file can be in. Whatever
// stands there, the daemon goes on, each client gets its answer or the end of its connection, and when all is as it
// should be again, so is the log.
namespace zav::test {
namespace {

using ipc::Method;
using testing::AnyOf;
using testing::Contains;
using testing::Eq;

struct Place {
  const char* name;
  std::string path;
  /// Whether the database and its backup are both in it.
  bool holdsTheLog = false;
};

// An odd state of one of the first two takes more than the plug-in's own away.
const Place kPlaces[] = {
    {"DirectoryOfAllPlugins", kStorageParent, true},
    {"StorageDirectory", kStorageDirectory, true},
    {"RunDirectory", kRunDirectory},
    {"SocketFile", kSocketFile},
    {"Database", kDatabase},
    {"Backup", kBackup},
    {"NewBackup", kBackup + ".new"},
    {"Journal", kJournal},
    {"DefaultPolicy", kDefaultPolicy},
    {"MarkOfARestore", kDatabase + ".restoring"},
    {"MarkOfAnOpening", kDatabase + ".opening"},
    {"MarkOfAStaleBackup", kBackup + ".stale"},
    {"DamagedDatabase", kDatabase + ".damaged"},
};

std::ostream& operator<<(std::ostream& out, const Place& place) {
  return out << place.name;
}

/// When something odd comes into its place, and what else is wrong then.
enum class Moment { kFirstStart, kLaterStart, kStartWithDamage, kMiddle, kMiddleWithDamage };

struct NamedMoment {
  const char* name;
  Moment moment;
};

std::ostream& operator<<(std::ostream& out, const NamedMoment& moment) {
  return out << moment.name;
}

constexpr NamedMoment kMoments[] = {{"AtTheFirstStart", Moment::kFirstStart},
                                    {"AtALaterStart", Moment::kLaterStart},
                                    {"AtAStartWithADamagedDatabase", Moment::kStartWithDamage},
                                    {"InTheMiddle", Moment::kMiddle},
                                    {"InTheMiddleWithADamagedDatabase", Moment::kMiddleWithDamage}};

/// For a machine that is busy; no more is claimed than that it ends.
constexpr std::chrono::seconds kSwitchOffDeadline{20};

/// A second of a wait for the next attempt passes in a millisecond, so that the plug-in tries anew while a test looks.
std::optional<long> ShortSecond(const CallArguments&) {
  poll(nullptr, 0, 1);
  return 0;
}

/// Whether the service has come to a rest: it listens, or waits for its next attempt, or has given up.
bool HasSettled() {
  const auto lines = LogRecorder::Lines();
  return std::any_of(lines.begin(), lines.end(), [](const LogEntry& line) {
    return line.message.starts_with("listening socket") || line.message.starts_with("Something went wrong") ||
           line.message.starts_with("Could not make directory");
  });
}

bool IsInTheMiddle(Moment moment) {
  return moment == Moment::kMiddle || moment == Moment::kMiddleWithDamage;
}

/// Whether there is such a state: of what is not there at that moment, nothing can be missing.
bool IsPossible(const Place& place, Kind kind, Moment moment) {
  // Another damaged database instead of the damaged one is none of its own.
  if (place.path == kDatabase && moment == Moment::kStartWithDamage) return IsTheThingItself(kind);
  if (kind != Kind::kMissing && kind != Kind::kLinkToTheThing) return true;
  if (place.holdsTheLog || place.path == kDefaultPolicy) return true;
  if (place.path == kRunDirectory || place.path == kSocketFile) return IsInTheMiddle(moment);
  if (place.path == kDatabase || place.path == kBackup || place.path == kJournal) return moment != Moment::kFirstStart;
  return false;
}

/// One row of the table: a place, a kind, a moment.
class OddState {
 public:
  OddState(const Place& where, Kind what, Moment when) : place(where), kind(what), moment(when) {}

  void Run();

 private:
  void Prepare();
  void Load();
  void Unload();
  void Settle();
  void Report(const std::string& url);
  void AskWhatComes();
  void SwitchOff();
  void SwitchOffAndOn();
  void MakeOdd();
  void Mend();
  void ExpectAllIsWell();

  const Place& place;
  Kind kind;
  Moment moment;

  MemoryStorage storage;
  CallHook wait{Call::kNanosleep, ShortSecond};
  std::optional<WithoutPrivilege> unprivileged;
  std::unique_ptr<LoadedPlugin> plugin;
  std::optional<OddThing> odd;
  std::set<int> descriptors;
  /// The urls of the reports that were acknowledged.
  std::vector<std::string> acknowledged;
};

void OddState::Prepare() {
  MakeStorageDirectory();
  WriteDefaultPolicy(UsualPolicies());
  if (moment == Moment::kFirstStart) return;
  StoredLog log;
  log.records = {{"0", Record("http://before", "threat", Now())}};
  log.count = 1;
  log.lastIndex = 0;
  PrepareDevice(log);
  acknowledged = {"http://before"};
  // A database in use has one.
  WriteFile(kJournal, "");
}

void OddState::Settle() {
  if (!plugin->provider) return;
  EXPECT_TRUE(WaitUntil(HasSettled));
}

void OddState::Load() {
  LogRecorder::Clear();
  descriptors = Descriptors();
  plugin = std::make_unique<LoadedPlugin>();
  Settle();
}

void OddState::Unload() {
  plugin->Unload();
  plugin.reset();
  EXPECT_EQ(Descriptors(), descriptors);
}

void OddState::Report(const std::string& url) {
  const std::optional<int> answer = ReportOnce(url);
  EXPECT_THAT(answer.value_or(-1), AnyOf(0, -1));
  if (answer == 0) acknowledged.push_back(url);
}

/// Whatever comes, it is an answer of that method or the end.
void OddState::AskWhatComes() {
  Report("http://odd/" + std::to_string(acknowledged.size()));
  for (const Method method : kAllMethods) {
    if (method == Method::kLogThreatUrl || method == Method::kResetLog) continue;
    EXPECT_NE(AskOnce(method).outcome, Outcome::kMalformed) << static_cast<int>(method);
  }
  if (!plugin->provider) return;
  for (const char* const command : {"GetStatus", "Disable", "Enable"}) {
    EXPECT_THAT(Parsed(plugin->provider->executeCommand(command, ""))["operationStatus"].asString(),
                AnyOf(Eq("success"), Eq("failed")));
  }
}

void OddState::SwitchOff() {
  if (!plugin->provider) return;
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(plugin->provider->setStatus(0), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, kSwitchOffDeadline);
}

void OddState::SwitchOffAndOn() {
  SwitchOff();
  if (!plugin->provider) return;
  LogRecorder::Clear();
  EXPECT_EQ(plugin->provider->setStatus(1), 0);
  Settle();
}

void OddState::MakeOdd() {
  if (moment == Moment::kStartWithDamage || moment == Moment::kMiddleWithDamage) {
    WriteFile(kDatabase, std::string(ReadFile(kDatabase).size(), 'x'));
  }
  // Without it no socket or run directory of an odd kind stands there at a start.
  MakeRunDirectory();
  odd.emplace(place.path, kind);
}

/// What the plug-in has put in the place of an odd thing stays, but where it took the place of the whole log.
void OddState::Mend() {
  // A database that is not there at a start is made anew, and so is its backup.
  const bool startedAnew = place.path == kDatabase && moment == Moment::kLaterStart &&
                           (kind == Kind::kMissing || kind == Kind::kDanglingLink);
  bool tookTheLogAway = false;
  if (startedAnew || (place.holdsTheLog && !IsTheThingItself(kind))) {
    odd->MendAnyway();
    tookTheLogAway = true;
  } else {
    tookTheLogAway = odd->Mend() && place.path == kDatabase && !IsTheThingItself(kind);
  }
  const bool bothWereGone = place.path == kBackup && moment == Moment::kStartWithDamage;
  if (bothWereGone) std::erase(acknowledged, "http://before");
  if (tookTheLogAway) std::erase_if(acknowledged, [](const std::string& url) { return url.starts_with("http://odd"); });
}

void OddState::ExpectAllIsWell() {
  ASSERT_TRUE(plugin->provider);
  const Answer log = Ask(Method::kGetLog);
  EXPECT_EQ(log.outcome, Outcome::kAnswered);
  for (const std::string& url : acknowledged) EXPECT_THAT(UrlsOf(log.document), Contains(url));
  EXPECT_EQ(test::Report("http://after", "threat"), 0);
  EXPECT_THAT(Rows()["Storage"], testing::HasSubstr("http://after"));
  EXPECT_EQ(ReadFile(kBackup), ReadFile(kDatabase));
  for (const Method method : kAllMethods) {
    EXPECT_EQ(Ask(method).outcome, Outcome::kAnswered) << static_cast<int>(method);
  }
}

void OddState::Run() {
  Prepare();
  if (ConcernsRights(kind)) unprivileged.emplace();
  if (IsInTheMiddle(moment)) {
    NoteStep("the start before");
    Load();
    EXPECT_EQ(test::Report("http://middle", "threat"), 0);
    acknowledged.emplace_back("http://middle");
  }
  MakeOdd();
  NoteStep("the start");
  if (!IsInTheMiddle(moment)) Load();
  NoteStep("requests");
  AskWhatComes();
  NoteStep("off and on");
  SwitchOffAndOn();
  NoteStep("requests after off and on");
  AskWhatComes();
  NoteStep("off");
  SwitchOff();
  NoteStep("unload");
  Unload();
  Mend();
  NoteStep("the start after");
  Load();
  NoteStep("requests after all is mended");
  ExpectAllIsWell();
  NoteStep("the last end");
  SwitchOff();
  Unload();
}

using Row = std::tuple<Place, NamedMoment>;

class AnythingOdd : public testing::TestWithParam<Row> {
 protected:
  /// As a row before left it, or one that was ended in its middle.
  static void CleanUp(const std::string& path) {
    OddThing::CleanUp(path);
    std::filesystem::remove_all(kStorageDirectory);
    std::filesystem::remove_all(kRunDirectory);
    MakeStorageParent();
  }
};

/// @return whether it could be made here.
bool RunIfAllowed(const Place& place, Kind kind, Moment moment) {
  try {
    OddState(place, kind, moment).Run();
    return true;
  } catch (const std::system_error& error) {
    // A node and another owner need rights that an ordinary user's name space has not.
    if (kind != Kind::kDevice && kind != Kind::kOtherOwner) throw;
    std::printf("not possible here: %s\n", error.what());
    return false;
  }
}

/// Of fewer rows, those of each place and moment are others.
bool IsTaken(Moment moment, Kind kind) {
  return (static_cast<int>(moment) + static_cast<int>(kind)) % kOddCasesForOne == 0;
}

TEST_P(AnythingOdd, EndsNothingAndLosesNothing) {
  const auto& [place, moment] = GetParam();
  int tried = 0;
  for (const Kind kind : kAllKinds) {
    if (!IsPossible(place, kind, moment.moment) || !IsTaken(moment.moment, kind)) continue;
    ++tried;
    RunWatched(testing::PrintToString(kind), [&] { RunIfAllowed(place, kind, moment.moment); });
    CleanUp(place.path);
  }
  std::printf("figures: odd states, %s %s: %d tried\n", place.name, moment.name, tried);
}

INSTANTIATE_TEST_SUITE_P(Of, AnythingOdd, testing::Combine(testing::ValuesIn(kPlaces), testing::ValuesIn(kMoments)),
                         [](const auto& each) {
                           return std::string(std::get<0>(each.param).name) + std::get<1>(each.param).name;
                         });

}  // namespace
}  // namespace zav::test
