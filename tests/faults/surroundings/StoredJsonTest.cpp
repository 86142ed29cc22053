#include <json/value.h>

#include <cstdio>
#include <filesystem>
#include <memory>

#include "Asking.h"
#include "LogOfRows.h"
#include "OddJson.h"
#include "TestClock.h"
#include "WatchedChild.h"
#include "integration/Library.h"
#include "support/Campaign.h"
#include "support/LogText.h"
#include "support/RawClient.h"
#include "support/StoredState.h"

// Texts in the database that the plug-in did not write so. Whatever stands there, it loads or resets it by the rules,
// answers every client, takes the next report, and writes what it can read again.
namespace zav::test {
namespace {

using ipc::Method;

constexpr int kNow = 1'700'000'000;

Json::Value GoodStorage() {
  StoredLog log;
  log.maxLoggingPeriod = 3600;
  log.count = 7;
  log.lastIndex = 5;
  log.counters = {{"virus", 4}, {"worm", 3}};
  log.records = {{"3", Record("http://a", "virus", kNow - 20)},
                 {"4", Record("http://b", "worm", kNow - 10)},
                 {"5", Record("http://c", "virus", kNow)}};
  return log.Value();
}

Json::Value GoodState() {
  return Parsed(R"({"pyx_state":"enabled","logging_state":"enabled"})");
}

Json::Value GoodService() {
  return Parsed(R"({"restart_delay":60})");
}

void PrepareWith(const std::string& row, const std::string& text) {
  std::filesystem::remove_all(kStorageDirectory);
  MakeStorageDirectory();
  PrepareDevice(Text(GoodStorage()));
  SetRow(row, text);
  WriteFile(kBackup, ReadFile(kDatabase));
}

class RunningPlugin {
 public:
  RunningPlugin() : model(LogOfRows(kNow)) { EXPECT_TRUE(plugin.provider); }

  /// All the methods that only read.
  void ExpectAnswers() {
    for (const Method method : {Method::kGetPyxState, Method::kGetLoggingState, Method::kGetLogReverse}) {
      EXPECT_EQ(Ask(method).outcome, Outcome::kAnswered) << static_cast<int>(method);
    }
    ExpectStatus();
    ExpectRecords();
  }

  void ExpectStatus() { EXPECT_EQ(Ask(Method::kGetLogStatus).document, ToJson(Rewritten(model.Summarise(kNow)))); }

  void ExpectRecords() {
    EXPECT_EQ(Ask(Method::kCountRecords, {0, kNow}).number, model.CountBetween(0, kNow));
    EXPECT_EQ(Ask(Method::kGetLog).document, ToJson(Rewritten(model.FindForward({0, kNow})).records));
  }

  void ExpectToTake(const std::string& url, const std::string& threat) {
    EXPECT_EQ(Report(url, threat), 0);
    model.Report(url, threat, kNow);
    EXPECT_EQ(Row("Storage"), ToJson(Rewritten(model.Content())));
    EXPECT_EQ(ReadFile(kBackup), ReadFile(kDatabase));
  }

  void ExpectToObey() {
    const Json::Value success = Parsed(R"({"operationStatus":"success"})");
    EXPECT_EQ(Command("GetStatus")["operationStatus"], "success");
    EXPECT_EQ(Command("Disable"), success);
    EXPECT_EQ(Command("Enable"), success);
    EXPECT_EQ(Row("State")["pyx_state"], "enabled");
    EXPECT_EQ(Command("UpdateConfig", R"({"Service":{"restart_delay":40}})"), success);
    EXPECT_EQ(Row("Service"), Parsed(R"({"restart_delay":40})"));
  }

  void ExpectToForget() {
    EXPECT_EQ(Ask(Method::kResetLog).number, 0);
    EXPECT_EQ(Ask(Method::kCountRecords, {0, kNow}).number, 0);
  }

 private:
  Json::Value Command(const std::string& name, const std::string& payload = "") {
    return Parsed(plugin.provider->executeCommand(name, payload));
  }

  // From the rows before the plug-in sees them.
  LogModel model;
  LoadedPlugin plugin;
};

int SwitchBy(const Json::Value& text, int otherwise) {
  if (text == "enabled") return 1;
  return text == "disabled" ? 0 : otherwise;
}

void ExpectSwitches() {
  Json::Value state;
  try {
    state = Parsed(Rows()["State"]);
  } catch (const std::exception&) {
  }
  if (!state.isObject()) state = Json::Value(Json::objectValue);
  const RunningPlugin plugin;
  EXPECT_EQ(Ask(Method::kGetPyxState).number, SwitchBy(state["pyx_state"], 1));
  EXPECT_EQ(Ask(Method::kGetLoggingState).number, SwitchBy(state["logging_state"], 0));
}

void RunWith(const std::string& row, const OddText& odd) {
  const testing::ScopedTrace trace(__FILE__, __LINE__, odd.name);
  NoteStep(row + ": " + odd.name);
  PrepareWith(row, odd.text);
  if (row == "State") ExpectSwitches();
  {
    RunningPlugin plugin;
    plugin.ExpectAnswers();
    plugin.ExpectToTake("http://new", "virus");
    plugin.ExpectRecords();
    plugin.ExpectToObey();
  }
  RunningPlugin again;
  again.ExpectStatus();
  again.ExpectToTake("http://newer", "");
  again.ExpectToForget();
}

void RunWithAll(const std::string& row, const std::vector<OddText>& texts) {
  RunWatched(row, [&] {
    const MemoryStorage storage;
    const TestClock clock(kNow);
    for (size_t index = 0; index < texts.size(); index += kOddCasesForOne) RunWith(row, texts[index]);
  });
  std::printf("figures: odd texts, %s: %zu tried\n", row.c_str(),
              (texts.size() + kOddCasesForOne - 1) / kOddCasesForOne);
}

struct Member {
  const char* row;
  Json::Value (*good)();
  JsonPath path;
};

std::string NameOf(const Member& member) {
  std::string name = member.row;
  for (const std::string& key : member.path) {
    name += '_';
    for (const char letter : key) name += letter == '_' ? 'x' : letter;
  }
  return name;
}

std::ostream& operator<<(std::ostream& out, const Member& member) {
  return out << NameOf(member);
}

class AnOddMember : public testing::TestWithParam<Member> {};

TEST_P(AnOddMember, IsLoadedOrResetByTheRulesAndKeepsNobodyFromItsAnswer) {
  const auto& [row, good, path] = GetParam();
  RunWithAll(row, WithOddMember(good(), path));
}

const Member kMembers[] = {{"Storage", GoodStorage, {}},
                           {"Storage", GoodStorage, {"config"}},
                           {"Storage", GoodStorage, {"config", "max_index"}},
                           {"Storage", GoodStorage, {"config", "max_file_size"}},
                           {"Storage", GoodStorage, {"config", "max_logging_period"}},
                           {"Storage", GoodStorage, {"state"}},
                           {"Storage", GoodStorage, {"state", "count"}},
                           {"Storage", GoodStorage, {"state", "last_index"}},
                           {"Storage", GoodStorage, {"state", "virus"}},
                           {"Storage", GoodStorage, {"4"}},
                           {"Storage", GoodStorage, {"4", "url"}},
                           {"Storage", GoodStorage, {"4", "threat"}},
                           {"Storage", GoodStorage, {"4", "timestamp"}},
                           {"State", GoodState, {}},
                           {"State", GoodState, {"pyx_state"}},
                           {"State", GoodState, {"logging_state"}},
                           {"Service", GoodService, {}},
                           {"Service", GoodService, {"restart_delay"}}};

INSTANTIATE_TEST_SUITE_P(Of, AnOddMember, testing::ValuesIn(kMembers),
                         [](const auto& each) { return NameOf(each.param); });

TEST(AnOddName, OfARecordIsLoadedOrDroppedByTheRulesAndKeepsNobodyFromItsAnswer) {
  RunWithAll("Storage", WithOddName(GoodStorage(), "4"));
}

TEST(AnOddName, OfARecordOfAFullLogThatIsRenumbered) {
  Json::Value storage = GoodStorage();
  storage["config"]["max_file_size"] = 3;
  storage["config"]["max_index"] = 5;
  RunWithAll("Storage", WithOddName(storage, "4"));
}

TEST(ALog, ThatNoStringCanHoldIsAnsweredByTheEndAndCanBeReset) {
  Json::Value storage = GoodStorage();
  storage["4"]["url"] = std::string(17 << 20, 'x');
  PrepareWith("Storage", Text(storage));
  const MemoryStorage statuses;
  const TestClock clock(kNow);
  const LoadedPlugin plugin;
  ASSERT_TRUE(plugin.provider);
  ASSERT_EQ(Ask(Method::kCountRecords, {0, kNow}).number, 3);
  EXPECT_EQ(AskOnce(Method::kGetLog).outcome, Outcome::kEnded);
  EXPECT_EQ(Report("http://new", "virus"), 0);
  EXPECT_EQ(Ask(Method::kCountRecords, {0, kNow}).number, 4);
  EXPECT_EQ(Ask(Method::kResetLog).number, 0);
  EXPECT_EQ(Report("http://new", "virus"), 0);
  EXPECT_EQ(UrlsOf(Ask(Method::kGetLog).document), std::vector<std::string>{"http://new"});
}

}  // namespace
}  // namespace zav::test
