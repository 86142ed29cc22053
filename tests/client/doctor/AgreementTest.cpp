#include <gmock/gmock.h>

#include <stdexcept>

#include "PYXManager.h"
#include "doctor/Examination.h"
#include "support/Device.h"
#include "support/StateInMemory.h"
#include "support/StoredState.h"
#include "zav-pyx-plugin.h"

namespace zav::client::test {
namespace {

using plugin::PYXManager;
using pyx::State;
using pyxctl::doctor::JudgePolicy;
using zav::test::Parsed;
using zav::test::Row;

/// One policy file; the rest of it is sound.
struct PolicyFile {
  const char* name;
  const char* service = R"({"restart_delay":30})";
  const char* state = R"({"pyx_state":"enabled","logging_state":"enabled"})";
  const char* storage = R"({"config":{"max_index":2000,"max_file_size":10,"max_logging_period":3600},)"
                        R"("state":{"count":0,"last_index":-1}})";

  std::string Text() const {
    std::string members;
    const auto add = [&](const char* member, const char* value) {
      if (value == nullptr) return;
      members += (members.empty() ? "\"" : ",\"") + std::string(member) + "\":" + value;
    };
    add("Service", service);
    add("State", state);
    add("Storage", storage);
    return R"({"PYXPlugin":{)" + members + "}}";
  }
};

PolicyFile WithService(const char* name, const char* service) {
  return {.name = name, .service = service};
}

PolicyFile WithState(const char* name, const char* state) {
  return {.name = name, .state = state};
}

PolicyFile WithStorage(const char* name, const char* storage) {
  return {.name = name, .storage = storage};
}

#define CONFIG(text) R"({"config":)" text R"(,"state":{"count":0,"last_index":-1}})"
#define COUNTERS(text) R"({"config":{"max_index":2000,"max_file_size":10,"max_logging_period":3600},"state":)" text "}"

const std::vector<PolicyFile> kFiles = {
    {.name = "Sound"},
    WithService("NoService", nullptr),
    WithService("ServiceOfAnotherType", "30"),
    WithService("NoDelay", "{}"),
    WithService("ShortDelay", R"({"restart_delay":29})"),
    WithService("LongestDelay", R"({"restart_delay":3600})"),
    WithService("LongDelay", R"({"restart_delay":3601})"),
    WithService("DelayAsText", R"({"restart_delay":"60"})"),
    WithService("DelayAsWholeReal", R"({"restart_delay":60.0})"),
    WithService("DelayAsReal", R"({"restart_delay":60.5})"),
    WithService("DelayAsNull", R"({"restart_delay":null})"),
    WithService("DelayBeyond32Bits", R"({"restart_delay":4294967356})"),
    WithState("NoState", nullptr),
    WithState("StateOfAnotherType", R"("enabled")"),
    WithState("FeatureOff", R"({"pyx_state":"disabled","logging_state":"enabled"})"),
    WithState("NoFeatureSwitch", R"({"logging_state":"enabled"})"),
    WithState("FeatureInOtherCase", R"({"pyx_state":"DISABLED","logging_state":"enabled"})"),
    WithState("FeatureAsBoolean", R"({"pyx_state":false,"logging_state":"enabled"})"),
    WithState("LoggingOff", R"({"pyx_state":"enabled","logging_state":"disabled"})"),
    WithState("NoLoggingSwitch", R"({"pyx_state":"enabled"})"),
    WithState("LoggingInOtherCase", R"({"pyx_state":"enabled","logging_state":"Enabled"})"),
    WithStorage("NoStorage", nullptr),
    WithStorage("StorageOfAnotherType", "[]"),
    WithStorage("EmptyStorage", "{}"),
    WithStorage("NoConfig", R"({"state":{"count":0,"last_index":-1}})"),
    WithStorage("ConfigOfAnotherType", CONFIG("7")),
    WithStorage("NoMaxIndex", CONFIG(R"({"max_file_size":10,"max_logging_period":3600})")),
    WithStorage("NoMaxFileSize", CONFIG(R"({"max_index":2000,"max_logging_period":3600})")),
    WithStorage("NoMaxLoggingPeriod", CONFIG(R"({"max_index":2000,"max_file_size":10})")),
    WithStorage("ZeroMaxIndex", CONFIG(R"({"max_index":0,"max_file_size":10,"max_logging_period":3600})")),
    WithStorage("SmallestMaxIndex", CONFIG(R"({"max_index":10,"max_file_size":10,"max_logging_period":3600})")),
    WithStorage("SmallMaxIndex", CONFIG(R"({"max_index":9,"max_file_size":10,"max_logging_period":3600})")),
    WithStorage("LargeMaxIndex", CONFIG(R"({"max_index":2001,"max_file_size":10,"max_logging_period":3600})")),
    WithStorage("MaxIndexBelowSize", CONFIG(R"({"max_index":499,"max_file_size":500,"max_logging_period":3600})")),
    WithStorage("MaxIndexOfSize", CONFIG(R"({"max_index":500,"max_file_size":500,"max_logging_period":3600})")),
    WithStorage("NegativeMaxIndex", CONFIG(R"({"max_index":-5,"max_file_size":10,"max_logging_period":3600})")),
    WithStorage("SmallMaxFileSize", CONFIG(R"({"max_index":2000,"max_file_size":9,"max_logging_period":3600})")),
    WithStorage("LargestMaxFileSize", CONFIG(R"({"max_index":2000,"max_file_size":1000,"max_logging_period":3600})")),
    WithStorage("LargeMaxFileSize", CONFIG(R"({"max_index":2000,"max_file_size":1001,"max_logging_period":3600})")),
    WithStorage("MaxFileSizeAsText", CONFIG(R"({"max_index":2000,"max_file_size":"10","max_logging_period":3600})")),
    WithStorage("ShortPeriod", CONFIG(R"({"max_index":2000,"max_file_size":10,"max_logging_period":3599})")),
    WithStorage("LongestPeriod", CONFIG(R"({"max_index":2000,"max_file_size":10,"max_logging_period":31622400})")),
    WithStorage("LongPeriod", CONFIG(R"({"max_index":2000,"max_file_size":10,"max_logging_period":31622401})")),
    WithStorage("PeriodBeyond32Bits",
                CONFIG(R"({"max_index":2000,"max_file_size":10,"max_logging_period":4294970896})")),
    WithStorage("AnotherNameInConfig",
                CONFIG(R"({"max_index":2000,"max_file_size":10,"max_logging_period":3600,"max_files":3})")),
    WithStorage("NoCounters", R"({"config":{"max_index":2000,"max_file_size":10,"max_logging_period":3600}})"),
    WithStorage("CountersOfAnotherType", COUNTERS("0")),
    WithStorage("EmptyCounters", COUNTERS("{}")),
    WithStorage("ACount", COUNTERS(R"({"count":7,"last_index":-1})")),
    WithStorage("NegativeCount", COUNTERS(R"({"count":-1,"last_index":-1})")),
    WithStorage("CountAsText", COUNTERS(R"({"count":"7","last_index":-1})")),
    WithStorage("LargestLastIndex", COUNTERS(R"({"count":0,"last_index":2000})")),
    WithStorage("LargeLastIndex", COUNTERS(R"({"count":0,"last_index":2001})")),
    WithStorage("SmallLastIndex", COUNTERS(R"({"count":0,"last_index":-2})")),
    WithStorage("ARecordThatIsNone", R"({"config":{"max_index":2000,"max_file_size":10,"max_logging_period":3600},)"
                                     R"("state":{"count":0,"last_index":-1},"5":"text"})"),
};

/// Whether a value that the plug-in has is what the file says, where the file says anything.
bool Agrees(const Json::Value& policy, const char* member, const Json::Value& taken) {
  if (!policy.isObject() || !policy.isMember(member)) return true;
  const Json::Value& said = policy[member];
  return taken.isInt() ? said.isNumeric() && said.asDouble() == taken.asDouble() : said == taken;
}

/// What is stored is what the file says, policy by policy.
bool StoresAll(const Json::Value& policies) {
  for (const char* name : {"Service", "State", "Storage"}) {
    if (!policies.isMember(name) || Row(name) != policies[name]) return false;
  }
  return true;
}

/// What is in force is what the file says.
bool ObeysAll(const Json::Value& policies) {
  State& state = State::Instance();
  const auto word = [](State::Enum value) { return value == State::Enabled ? "enabled" : "disabled"; };
  bool obeys = Agrees(policies["Service"], "restart_delay", PYXManager::Instance().RestartDelay()) &&
               Agrees(policies["State"], "pyx_state", word(state.PyxState())) &&
               Agrees(policies["State"], "logging_state", word(state.LoggingState()));
  const zav::policy::Policy counters(zav::test::InMemory(state)["state"]);
  for (const char* name : {"count", "last_index"}) {
    obeys = obeys && Agrees(policies["Storage"]["state"], name, counters.GetIntValue(name));
  }
  for (const char* name : {"max_index", "max_file_size", "max_logging_period"}) {
    obeys = obeys && Agrees(policies["Storage"]["config"], name, state.Config().GetIntValue(name));
  }
  return obeys;
}

/// Whether the plug-in, on a new database, takes a file as it stands, and goes on doing so when it is configured
/// without being told to change anything.
bool IsTakenAsItStands(const std::string& text) {
  zav::test::MakeStorageDirectory();
  zav::test::WriteFile(zav::test::kDefaultPolicy, text);
  const Json::Value policies = Parsed(text)["PYXPlugin"];
  PYXManager::Instance();
  State::Instance();
  if (!StoresAll(policies) || !ObeysAll(policies)) return false;
  dpm_zav_pyx_plugin().executeCommand("UpdateConfig", R"({"Storage":{"config":{}}})");
  return StoresAll(policies) && ObeysAll(policies);
}

class ThePluginAndTheDoctor : public testing::TestWithParam<PolicyFile> {};
INSTANTIATE_TEST_SUITE_P(Of, ThePluginAndTheDoctor, testing::ValuesIn(kFiles),
                         [](const auto& each) { return each.param.name; });

TEST_P(ThePluginAndTheDoctor, AreOfOneMind) {
  const std::string text = GetParam().Text();
  const auto findings = JudgePolicy(text);
  std::string said;
  for (const auto& each : findings) said += each.message + "\n";
  EXPECT_EQ(IsSound(findings), IsTakenAsItStands(text)) << text << '\n' << said;
}

TEST(ANameThatTheDoctorDoesNotKnow, HasNoEffect) {
  const std::string text = WithState("", R"({"pyx_state":"enabled","logging_sate":"enabled"})").Text();
  EXPECT_FALSE(IsSound(JudgePolicy(text)));
  zav::test::MakeStorageDirectory();
  zav::test::WriteFile(zav::test::kDefaultPolicy, text);
  EXPECT_EQ(State::Instance().LoggingState(), State::Disabled);
}

class AFileThatTheDoctorCannotRead : public testing::TestWithParam<const char*> {};
INSTANTIATE_TEST_SUITE_P(Each, AFileThatTheDoctorCannotRead, testing::Values("", "{", "[]", "7", "{\"PYXPlugin\":"));

TEST_P(AFileThatTheDoctorCannotRead, KeepsThePluginFromStarting) {
  EXPECT_FALSE(IsSound(JudgePolicy(GetParam())));
  zav::test::MakeStorageDirectory();
  zav::test::WriteFile(zav::test::kDefaultPolicy, GetParam());
  EXPECT_THROW(State::Instance(), std::runtime_error);
}

}  // namespace
}  // namespace zav::client::test
