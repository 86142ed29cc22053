// The daemon's commands with their payloads: every reply to a known one is a JSON object with "operationStatus", and
// the switches, the log, its configuration and the restart delay are afterwards what a plain reading of the payload
// makes of them.
//
// Input: commands, ended by zero bytes: the name, a newline, the payload.

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

#include "Agreement.h"
#include "Check.h"
#include "Clock.h"
#include "Input.h"
#include "MemoryDatabase.h"
#include "PYXManager.h"
#include "Target.h"
#include "support/LogModel.h"
#include "support/LogText.h"
#include "zav-pyx-plugin.h"

namespace zav::fuzz {
namespace {

using test::IntOf;
using test::ObjectOf;
using test::ParseObject;
using test::ReadContent;
using test::ReadSummary;
using test::TextOf;

constexpr int kLeastDelay = 30;
constexpr int kMostCommands = 32;

const char* const kStored = R"({"config":{"max_index":500,"max_file_size":20,"max_logging_period":7200},)"
                            R"("state":{"count":7,"last_index":6,"phishing":7},)"
                            R"("5":{"url":"http://a.example","threat":"phishing","timestamp":99990},)"
                            R"("6":{"url":"http://b.example","threat":"","timestamp":95000}})";

class Session {
 public:
  Session() : state(Start(kStored, "enabled")), model(ReadContent(ParseObject(kStored)), true, Clock::kStart) {
    plugin::PYXManager::Instance().ApplyPolicy(policy::Policy());
  }

  void Run(Input& input);

 private:
  /// @return whether a command succeeds; what it changes is changed in the model.
  bool Expect(std::string_view command, const std::string& payload);
  bool ExpectUpdate(const Json::Value& payload);
  void CheckStatus(const Json::Value& reply);
  void CheckSettings() const;

  dpm_zav_pyx_plugin provider;
  pyx::State& state;
  LogModel model;
  bool pyxIsOn = true;
  bool loggingIsOn = true;
  int restartDelay = kLeastDelay;
  int storedDelay = kLeastDelay;
};

bool IsKnown(std::string_view command) {
  for (const char* known : {"Enable", "Disable", "EnableLogging", "DisableLogging", "GetStatus", "UpdateConfig",
                            "ResetLog", "ResetLogStat"}) {
    if (command == known) return true;
  }
  return false;
}

void Session::Run(Input& input) {
  for (int number = 0; number < kMostCommands && !input.IsAtEnd(); ++number) {
    const std::string bytes = input.UpTo('\0');
    Input message(bytes);
    const std::string command = message.UpTo('\n');
    const std::string payload = message.Rest();
    const std::string text = provider.executeCommand(command, payload);
    if (!IsKnown(command)) {
      CheckEqual<std::string>(text, "fail", "an unknown command is answered with fail");
      continue;
    }
    const Json::Value reply = ParseObject(text);
    const bool expected = Expect(command, payload);
    CheckEqual<std::string>(TextOf(reply, "operationStatus"), expected ? "success" : "failed",
                            "the reply to a command is a JSON object that tells its status");
    if (command == "GetStatus") {
      CheckStatus(reply);
    } else {
      Check(reply.size() == 1, "the reply tells nothing but the status");
    }
    CheckSettings();
  }
  CheckAgreement(state, model);
}

bool Session::Expect(std::string_view command, const std::string& payload) {
  if (command == "UpdateConfig") return ExpectUpdate(ParseObject(payload));
  if (command == "Enable" || command == "Disable") pyxIsOn = command == "Enable";
  if (command == "EnableLogging" || command == "DisableLogging") loggingIsOn = command == "EnableLogging";
  if (command == "ResetLog") model.DropRecords();
  if (command == "ResetLogStat") model.Reset();
  return true;
}

bool Session::ExpectUpdate(const Json::Value& payload) {
  const Json::Value& service = ObjectOf(payload, "Service");
  const Json::Value& config = ObjectOf(ObjectOf(payload, "Storage"), "config");
  const int delay = IntOf(service, "restart_delay");
  if (delay == 0 && config.isNull()) return false;
  if (delay != 0) storedDelay = std::clamp(delay, kLeastDelay, 3600);
  if (!config.isNull()) {
    model.Configure({IntOf(config, "max_index"), IntOf(config, "max_file_size"), IntOf(config, "max_logging_period")});
  }
  if (!service.isNull()) restartDelay = std::clamp(delay, kLeastDelay, 3600);
  return true;
}

void Session::CheckStatus(const Json::Value& reply) {
  CheckEqual(ReadSummary(reply), Rewritten(model.Summarise(Clock::Now())), "the status is the model's");
}

void Session::CheckSettings() const {
  auto& rows = MemoryDatabase::Instance().rows;
  Check(state.PyxState() == (pyxIsOn ? pyx::State::Enabled : pyx::State::Disabled), "the feature is switched as told");
  Check(state.LoggingState() == (loggingIsOn ? pyx::State::Enabled : pyx::State::Disabled),
        "logging is switched as told");
  CheckEqual(rows["State"],
             std::string(R"({"logging_state":")") + (loggingIsOn ? "enabled" : "disabled") + R"(","pyx_state":")" +
                 (pyxIsOn ? "enabled" : "disabled") + "\"}\n",
             "the switches are stored as told");
  CheckEqual(plugin::PYXManager::Instance().RestartDelay(), restartDelay, "the restart delay is in its limits");
  CheckEqual(rows["Service"], "{\"restart_delay\":" + std::to_string(storedDelay) + "}\n", "the delay is stored");
  CheckContent(ReadContent(ParseObject(rows["Storage"])), model);
}

}  // namespace
}  // namespace zav::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace zav::fuzz;
  Input input(data, size);
  Session().Run(input);
  return 0;
}
