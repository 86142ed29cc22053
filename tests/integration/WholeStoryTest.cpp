#include <json/json.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <sstream>
#include <thread>

#include "Library.h"
#include "support/Device.h"
#include "support/LogRecorder.h"
#include "support/OddClients.h"
#include "support/RawClient.h"
#include "support/WaitUntil.h"

namespace zav::test {
namespace {

using ipc::Method;
using testing::ElementsAre;

Json::Value Parse(const std::string& text) {
  Json::Value value;
  std::istringstream stream(text);
  EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), stream, &value, nullptr)) << text;
  return value;
}

/// A whole request, again where the one before is still at its end on a machine that is busy.
RawClient& Ask(std::optional<RawClient>& client, const auto& send) {
  EXPECT_TRUE(WaitUntil([&] {
    client.emplace();
    return send(*client) && client->IsAnswered();
  }));
  return *client;
}

RawClient& Ask(std::optional<RawClient>& client, Method method) {
  return Ask(client, [&](RawClient& each) { return each.SendHeader(method); });
}

RawClient& Ask(std::optional<RawClient>& client, Method method, const auto& package) {
  return Ask(client, [&](RawClient& each) { return each.SendHeader(method) && each.SendPackage(package); });
}

struct SwitchState {
  int code = 0;
  int state = 0;
  bool operator==(const SwitchState&) const = default;
};

SwitchState AskSwitch(Method method) {
  std::optional<RawClient> client;
  const auto bytes = Ask(client, method).Receive(ipc::StatePackage::kSize);
  if (!bytes) return {};
  ipc::PackageBytes<ipc::StatePackage> raw;
  std::memcpy(raw.data(), bytes->data(), raw.size());
  const auto package = ipc::Decode<ipc::StatePackage>(raw);
  return {package.code, package.state};
}

struct Log {
  int result = -2;
  int lastIndex = -2;
  Json::Value records;
};

Log AskLog(Method method, const ipc::LogPackage& package = {}) {
  std::optional<RawClient> client;
  Ask(client, method, package);
  Log log;
  log.result = client->ReceiveInt().value_or(-2);
  if (log.result != 0) return log;
  log.lastIndex = client->ReceiveInt().value_or(-2);
  log.records = Parse(client->ReceiveString().value_or(""));
  return log;
}

int AskCount(int from, int to) {
  ipc::FramePackage package;
  package.from = from;
  package.to = to;
  std::optional<RawClient> client;
  Ask(client, Method::kCountRecords, package);
  return client->ReceiveInt().value_or(-2);
}

Json::Value AskStatus() {
  std::optional<RawClient> client;
  return Parse(Ask(client, Method::kGetLogStatus).ReceiveString().value_or(""));
}

std::vector<std::string> Urls(const Log& log) {
  std::vector<std::string> urls;
  for (const auto& record : log.records) urls.push_back(record["url"].asString());
  return urls;
}

class ThePlugin : public testing::Test {
 protected:
  ThePlugin() { WriteDefaultPolicy(UsualPolicies()); }

  Json::Value Command(const std::string& name, const std::string& payload = "") {
    return Parse(plugin->provider->executeCommand(name, payload));
  }
  void Load() {
    plugin.emplace();
    ASSERT_TRUE(plugin->provider);
  }

  MemoryStorage storage;
  std::optional<LoadedPlugin> plugin;
};

const Json::Value kSuccess = [] {
  Json::Value value;
  value["operationStatus"] = "success";
  return value;
}();

TEST_F(ThePlugin, IsReadyToServeSoonAfterItsFactoryReturned) {
  Load();
  EXPECT_EQ(storage.statuses, (std::map<std::string, int>{{"zav-pyx-plugin", 1}}));
  ASSERT_TRUE(LogRecorder::WaitFor("PYXPlugin service started"));
  std::vector<std::string> functions;
  for (const LogEntry& line : LogRecorder::Lines()) {
    // What opening the database says stands between them.
    if (line.tag == "DPM" || line.unit == "Service.cpp" || line.function == "makeDir" || line.function == "listen" ||
        line.function == "DefaultPolicy") {
      functions.push_back(line.function);
    }
  }
  EXPECT_THAT(functions, ElementsAre("DPluginFactory", "ZavPYXPluginEnable", "dpm_zav_pyx_plugin", "dpm_zav_pyx_plugin",
                                     "setStatus", "apply", "DefaultPolicy", "apply", "makeDir", "listen", "start"));
  EXPECT_EQ(plugin->provider->getStatus(), 1);
  EXPECT_EQ(Rows().size(), 3U);
  EXPECT_EQ(ReadFile(kBackup), ReadFile(kDatabase));
}

TEST_F(ThePlugin, TellsTheWholeStory) {
  const int begin = static_cast<int>(time(nullptr));
  Load();

  // Reports.
  EXPECT_EQ(AskSwitch(Method::kGetPyxState), (SwitchState{301, 1}));
  EXPECT_EQ(AskSwitch(Method::kGetLoggingState), (SwitchState{1301, 1}));
  EXPECT_EQ(Report("http://a", "virus"), 0);
  EXPECT_EQ(Report("http://b", "virus"), 0);
  EXPECT_EQ(Report("http://c", ""), 0);
  EXPECT_EQ(Report("", "virus"), -1);

  // The log, either way, in part and counted.
  const Log forward = AskLog(Method::kGetLog);
  EXPECT_EQ(forward.lastIndex, 2);
  EXPECT_THAT(forward.records.getMemberNames(), ElementsAre("0", "1", "2"));
  EXPECT_THAT(Urls(forward), ElementsAre("http://a", "http://b", "http://c"));
  EXPECT_EQ(forward.records["2"]["threat"].asString(), "undefined");
  EXPECT_GE(forward.records["2"]["timestamp"].asInt(), begin);
  ipc::LogPackage two;
  two.maxCount = 2;
  const Log backward = AskLog(Method::kGetLogReverse, two);
  EXPECT_EQ(backward.lastIndex, 1);
  EXPECT_THAT(Urls(backward), ElementsAre("http://b", "http://c"));
  ipc::LogPackage past;
  past.to = begin - 100;
  EXPECT_EQ(AskLog(Method::kGetLog, past).result, -1);
  EXPECT_EQ(AskCount(begin, begin + 10000), 3);
  EXPECT_EQ(AskCount(0, begin - 1), 0);

  // The status, from either side.
  const Json::Value status = AskStatus();
  EXPECT_EQ(status["in_storage"]["virus"].asInt(), 2);
  EXPECT_EQ(status["in_storage"]["undefined"].asInt(), 1);
  EXPECT_EQ(status["in_storage"]["count"].asInt(), 3);
  EXPECT_EQ(status["state"]["count"].asInt(), 3);
  Json::Value forDaemon = status;
  forDaemon["operationStatus"] = "success";
  EXPECT_EQ(Command("GetStatus"), forDaemon);

  // Commands.
  EXPECT_EQ(Command("Disable"), kSuccess);
  EXPECT_EQ(AskSwitch(Method::kGetPyxState), (SwitchState{301, 0}));
  EXPECT_EQ(Command("Enable"), kSuccess);
  EXPECT_EQ(Command("UpdateConfig", R"({"Service":{"restart_delay":60},"Storage":{"config":{"max_file_size":20}}})"),
            kSuccess);
  EXPECT_EQ(Parse(Rows()["Service"])["restart_delay"].asInt(), 60);
  EXPECT_EQ(Parse(Rows()["Storage"])["config"]["max_file_size"].asInt(), 20);
  EXPECT_EQ(plugin->provider->executeCommand("enable", ""), "fail");
  EXPECT_EQ(Parse(Rows()["State"])["pyx_state"].asString(), "enabled");

  // Off and on: the log is there.
  EXPECT_EQ(plugin->provider->setStatus(0), 0);
  EXPECT_EQ(plugin->provider->getStatus(), 0);
  EXPECT_THROW(ConnectFrom("/tmp/client.socket"), std::runtime_error);
  EXPECT_EQ(plugin->provider->setStatus(1), 0);
  EXPECT_EQ(AskLog(Method::kGetLog).records, forward.records);

  // Unloaded and loaded again: it still is, and goes on.
  plugin->Unload();
  EXPECT_FALSE(Library::IsMapped());
  EXPECT_FALSE(FileExists(kSocketFile));
  EXPECT_EQ(Parse(Rows()["Storage"])["0"], forward.records["0"]);
  EXPECT_EQ(ReadFile(kBackup), ReadFile(kDatabase));
  Load();
  EXPECT_EQ(AskLog(Method::kGetLog).records, forward.records);
  EXPECT_EQ(Report("http://d", "worm"), 0);
  EXPECT_THAT(AskLog(Method::kGetLog).records.getMemberNames(), ElementsAre("0", "1", "2", "3"));
  EXPECT_EQ(AskStatus()["state"]["count"].asInt(), 4);

  // And is emptied.
  std::optional<RawClient> client;
  EXPECT_EQ(Ask(client, Method::kResetLog).ReceiveInt(), 0);
  EXPECT_EQ(AskCount(0, begin + 10000), 0);
  EXPECT_EQ(AskStatus()["state"]["count"].asInt(), 4);
  EXPECT_EQ(Command("ResetLogStat"), kSuccess);
  EXPECT_EQ(AskStatus()["state"]["count"].asInt(), 0);
  EXPECT_FALSE(storage.calledWithoutLock);
}

TEST_F(ThePlugin, StartsWithAnEmptyLogAfterLoggingWasSwitchedOff) {
  Load();
  EXPECT_EQ(Report("http://a", "virus"), 0);
  EXPECT_EQ(Command("DisableLogging"), kSuccess);
  EXPECT_EQ(AskSwitch(Method::kGetLoggingState), (SwitchState{1301, 0}));
  EXPECT_EQ(AskLog(Method::kGetLog).records.size(), 1U);
  plugin->Unload();
  Load();
  EXPECT_EQ(AskLog(Method::kGetLog).result, -1);
}

TEST_F(ThePlugin, TakesTheDaemonsCommandsWhileClientsReport) {
  Load();
  std::atomic<bool> done{false};
  std::atomic<int> reported{0};
  std::thread client([&] {
    while (!done) {
      if (Report("http://a", "virus") == 0) ++reported;
      AskStatus();
    }
  });
  const std::vector<std::pair<std::string, std::string>> commands{
      {"GetStatus", ""},
      {"UpdateConfig", R"({"Service":{"restart_delay":45},"Storage":{"config":{"max_file_size":12}}})"},
      {"Disable", ""},
      {"Enable", ""},
      {"DisableLogging", ""},
      {"EnableLogging", ""},
      {"ResetLogStat", ""},
      {"ResetLog", ""}};
  int failed = 0;
  for (int turn = 0; turn < 20 || reported < 20; ++turn) {
    for (const auto& [name, payload] : commands) {
      if (Command(name, payload)["operationStatus"] != "success") ++failed;
    }
  }
  done = true;
  client.join();
  EXPECT_EQ(failed, 0);
  // Nothing of one got lost in the other.
  EXPECT_EQ(Command("ResetLogStat"), kSuccess);
  EXPECT_EQ(Report("http://b", "worm"), 0);
  const Json::Value stored = Parse(Rows()["Storage"]);
  EXPECT_THAT(stored.getMemberNames(), ElementsAre("0", "config", "state"));
  EXPECT_EQ(stored["config"]["max_file_size"].asInt(), 12);
  EXPECT_EQ(stored["state"]["count"].asInt(), 1);
  EXPECT_EQ(ReadFile(kBackup), ReadFile(kDatabase));
}

TEST_F(ThePlugin, CanBeSwitchedByTheDaemonWhileClientsReport) {
  Load();
  std::atomic<bool> done{false};
  std::atomic<int> reported{0};
  std::thread client([&] {
    while (!done) reported += Report("http://a", "virus") == 0 ? 1 : 0;
  });
  for (int turn = 0; turn < 30 || reported < 5; ++turn) {
    EXPECT_EQ(plugin->provider->setStatus(0), 0);
    EXPECT_EQ(plugin->provider->setStatus(1), 0);
  }
  done = true;
  client.join();
  EXPECT_EQ(Report("http://b", "worm"), 0);
}

}  // namespace
}  // namespace zav::test
