#include <json/json.h>

#include <filesystem>

#include "doctor/DeviceFiles.h"
#include "doctor/PolicyRules.h"
#include "support/Device.h"
#include "support/Surroundings.h"

namespace zav::client::test {
namespace {

namespace fs = std::filesystem;
using pyxctl::doctor::ExamineDefaultPolicy;
using pyxctl::doctor::ExaminePolicyFile;
using pyxctl::doctor::ExamineStoredPolicies;
using pyxctl::doctor::JudgePolicy;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using zav::test::ReadFile;
using zav::test::WriteFile;

std::string File(const std::string& service, const std::string& state, const std::string& config,
                 const std::string& counters = "{}") {
  return R"({"PYXPlugin":{"Service":)" + service + R"(,"State":)" + state + R"(,"Storage":{"config":)" + config +
         R"(,"state":)" + counters + "}}}";
}

constexpr const char* kState = R"({"logging_state":"enabled"})";
constexpr const char* kConfig = R"({"max_index":2000,"max_file_size":10,"max_logging_period":3600})";

TEST(TheSchema, AcceptsThePolicyThatIsShipped) {
  EXPECT_THAT(JudgePolicy(ReadFile(DEFAULT_POLICY)), IsEmpty());
}

/// Every member says what it does and, if it is a number or a text, its default.
void ExpectDescribed(const Json::Value& rule, const std::string& where) {
  if (rule.isMember("$ref")) return;
  EXPECT_FALSE(rule["description"].asString().empty()) << where;
  for (const std::string& name : rule["properties"].getMemberNames()) {
    ExpectDescribed(rule["properties"][name], where + "." + name);
  }
}

TEST(TheSchema, DescribesEveryMember) {
  std::string error;
  const auto schema = pyxctl::doctor::ReadJson(pyxctl::doctor::PolicySchema(), error);
  ASSERT_TRUE(schema) << error;
  ExpectDescribed(*schema, "");
  for (const std::string& name : (*schema)["definitions"].getMemberNames()) {
    ExpectDescribed((*schema)["definitions"][name], name);
  }
}

TEST(ThePageOnPolicies, NamesEveryMemberAndItsLimits) {
  const std::string page = ReadFile(POLICY_PAGE);
  std::string error;
  const Json::Value rules = pyxctl::doctor::ReadJson(pyxctl::doctor::PolicySchema(), error).value()["definitions"];
  for (const char* policy : {"Service", "State", "config"}) {
    for (const std::string& name : rules[policy]["properties"].getMemberNames()) {
      EXPECT_THAT(page, HasSubstr(name + "**")) << policy;
      const Json::Value& rule = rules[policy]["properties"][name];
      for (const char* limit : {"minimum", "maximum"}) EXPECT_THAT(page, HasSubstr(rule[limit].asString()));
    }
  }
}

TEST(ThePageOnPolicies, HasAnExampleThatKeepsTheRules) {
  const std::string page = ReadFile(POLICY_PAGE);
  const std::string fence = "```json\n";
  const auto begin = page.find(fence + "{");
  ASSERT_NE(begin, std::string::npos);
  const auto end = page.find("```", begin + fence.size());
  EXPECT_THAT(JudgePolicy(page.substr(begin + fence.size(), end - begin - fence.size())), IsEmpty());
}

TEST(ADefaultPolicy, IsNoJson) {
  EXPECT_THAT(JudgePolicy(""), ElementsAre(IsProblem("it is empty")));
  EXPECT_THAT(JudgePolicy("{"), ElementsAre(IsProblem("it is no JSON object: Line 1, Column 2")));
  EXPECT_THAT(JudgePolicy("[]"), ElementsAre(IsProblem("it is no JSON object")));
  EXPECT_THAT(JudgePolicy(std::string(2000, '[')), ElementsAre(IsProblem("it is no JSON object: Exceeded stackLimit")));
}

TEST(ADefaultPolicy, LacksPolicies) {
  EXPECT_THAT(JudgePolicy("{}"), ElementsAre(IsProblem("PYXPlugin is missing")));
  EXPECT_THAT(JudgePolicy(R"({"PYXPlugin":{}})"),
              ElementsAre(IsProblem("PYXPlugin.Service is missing"), IsProblem("PYXPlugin.State is missing"),
                          IsProblem("PYXPlugin.Storage is missing")));
  EXPECT_THAT(JudgePolicy(R"({"PYXPlugin":[]})"), ElementsAre(IsProblem("PYXPlugin is [], and should be an object")));
}

TEST(ADefaultPolicy, HoldsUnknownNames) {
  EXPECT_THAT(JudgePolicy(File(R"({"restart_dely":30})", kState, kConfig)),
              ElementsAre(IsProblem("PYXPlugin.Service.restart_dely is not known; the names here are restart_delay")));
  EXPECT_THAT(
      JudgePolicy(File("{}", R"({"logging_state":"enabled","":1})", kConfig)),
      ElementsAre(IsProblem("PYXPlugin.State.\"\" is not known; the names here are logging_state and pyx_state")));
}

TEST(ADefaultPolicy, HoldsValuesThatWouldBeReset) {
  EXPECT_THAT(JudgePolicy(File("{}", kState, R"({"max_index":0,"max_file_size":"10"})")),
              ElementsAre(IsProblem("PYXPlugin.Storage.config.max_logging_period is missing"),
                          IsProblem("config.max_file_size is \"10\", and should be a whole number from 10 to 1000"),
                          IsProblem("config.max_index is 0, and should be a whole number from 10 to 2000")));
  EXPECT_THAT(JudgePolicy(File("{}", kState, kConfig, R"({"count":-1,"last_index":2001})")),
              ElementsAre(IsProblem("count is -1, and should be"), IsProblem("last_index is 2001, and should be")));
}

TEST(ADefaultPolicy, SaysOfEachWhatItMeans) {
  const Findings findings = JudgePolicy(File(R"({"restart_delay":5})", kState, kConfig));
  ASSERT_THAT(findings, SizeIs(1));
  EXPECT_THAT(findings.front().advice, HasSubstr("A smaller number counts as 30"));
}

TEST(ADefaultPolicy, HoldsASwitchThatIsNeitherOnNorOff) {
  EXPECT_THAT(JudgePolicy(File("{}", R"({"pyx_state":"Enabled","logging_state":true})", kConfig)),
              ElementsAre(IsProblem("logging_state is true, and should be \"enabled\" or \"disabled\""),
                          IsProblem("pyx_state is \"Enabled\", and should be \"enabled\" or \"disabled\"")));
}

TEST(ADefaultPolicy, HasMoreRecordsThanIndexes) {
  EXPECT_THAT(JudgePolicy(File("{}", kState, R"({"max_index":99,"max_file_size":100,"max_logging_period":3600})")),
              ElementsAre(IsProblem("max_index is 99, and should not be less than max_file_size, which is 100")));
  EXPECT_THAT(JudgePolicy(File("{}", kState, R"({"max_index":100,"max_file_size":100,"max_logging_period":3600})")),
              IsEmpty());
}

TEST(ADefaultPolicy, HoldsANameTwice) {
  EXPECT_THAT(JudgePolicy(File("{}", R"({"logging_state":"enabled","logging_state":"enabled"})", kConfig)),
              ElementsAre(IsProblem("a name stands twice (Line 1, Column 63: Duplicate key: 'logging_state')")));
}

TEST(ADefaultPolicy, IsNoStrictJson) {
  const std::string file = File("{}", kState, kConfig);
  EXPECT_THAT(JudgePolicy(file + " }"), ElementsAre(IsProblem("something stands behind the end")));
  EXPECT_THAT(JudgePolicy(file + " x"), ElementsAre(IsProblem("something stands behind the end")));
  EXPECT_THAT(JudgePolicy(File("{\"restart_delay\":30,}", kState, kConfig)), ElementsAre(IsWarning("a comma stands")));
  EXPECT_THAT(JudgePolicy(file + " \n"), IsEmpty());
}

TEST(ADefaultPolicy, HoldsCommentsWhereverTheyStand) {
  const std::string file = File("{}", kState, kConfig);
  const std::string inside = File("{ /* a comment */ \"restart_delay\": 30 // another\n}", kState, kConfig);
  for (const std::string& text : {"// a comment\n" + file, file + "\n// a comment", file + "/* a comment */", inside,
                                  File("{\"restart_delay\":\n//\n30}", kState, kConfig)}) {
    EXPECT_THAT(JudgePolicy(text), ElementsAre(IsWarning("it holds comments"))) << text;
  }
  const std::string words = File("{}", kState, kConfig) + " ";
  EXPECT_THAT(JudgePolicy(words), IsEmpty());
  EXPECT_THAT(JudgePolicy(inside + " x"),
              ElementsAre(IsProblem("something stands behind the end"), IsWarning("it holds comments")));
}

TEST(ADefaultPolicy, LeavesLoggingOff) {
  EXPECT_THAT(JudgePolicy(File("{}", "{}", kConfig)), ElementsAre(IsNote("logging_state leaves logging off")));
  EXPECT_THAT(JudgePolicy(File("{}", R"({"logging_state":"disabled"})", kConfig)),
              ElementsAre(IsNote("leaves logging off")));
}

TEST(ADefaultPolicy, IsNotListedWithoutEnd) {
  std::string names;
  for (int at = 0; at < 100; ++at) names += ",\"" + std::to_string(at) + "\":0";
  const Findings findings = JudgePolicy(File("{}", R"({"logging_state":"enabled")" + names + "}", kConfig));
  ASSERT_THAT(findings, SizeIs(21));
  EXPECT_THAT(findings.back(), IsProblem("there are 80 more of that kind"));
}

class ADefaultPolicyFile : public testing::Test {
 protected:
  Findings Examined() const { return device.Examined(ExamineDefaultPolicy); }

  DeviceFiles device;
  const std::string path = device.paths.DefaultPolicy();
};

TEST_F(ADefaultPolicyFile, IsSound) {
  EXPECT_THAT(Examined(), IsEmpty());
}

TEST_F(ADefaultPolicyFile, IsMissing) {
  fs::remove(path);
  EXPECT_THAT(Examined(), ElementsAre(IsProblem("there is no " + path)));
}

TEST_F(ADefaultPolicyFile, IsNoFile) {
  fs::remove(path);
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_THAT(Examined(), ElementsAre(IsProblem("cannot be read: it is no regular file")));
}

TEST_F(ADefaultPolicyFile, MayNotBeLookedAt) {
  fs::permissions(path, fs::perms::none);
  const zav::test::WithoutPrivilege ordinary;
  EXPECT_THAT(Examined(), ElementsAre(IsWarning("not examined: this user may not look at " + path)));
}

TEST_F(ADefaultPolicyFile, IsExaminedAlone) {
  EXPECT_THAT(ExaminePolicyFile(path), ElementsAre(Finding{Severity::kOk, path, "it keeps its rules", ""}));
  WriteFile(path, "x");
  EXPECT_THAT(ExaminePolicyFile(path), ElementsAre(IsProblem("it is no JSON object")));
  EXPECT_THAT(ExaminePolicyFile(path + ".none"), ElementsAre(IsProblem("there is no such file")));
}

class StoredPolicies : public testing::Test {
 protected:
  /// The findings after one policy was stored.
  Findings After(const std::string& name, const std::string& text) const {
    Policies policies = SoundPolicies();
    policies[name] = text;
    device.Store(policies);
    return device.Examined(ExamineStoredPolicies);
  }
  static std::string Storage(const std::string& records, const std::string& state) {
    return R"({"config":)" + std::string(kConfig) + records + R"(,"state":)" + state + "}";
  }

  DeviceFiles device;
};

TEST_F(StoredPolicies, AreSound) {
  EXPECT_THAT(device.Examined(ExamineStoredPolicies), IsEmpty());
}

TEST_F(StoredPolicies, AreMissing) {
  device.Store({});
  EXPECT_THAT(
      device.Examined(ExamineStoredPolicies),
      ElementsAre(IsWarning("Service is missing"), IsWarning("State is missing"), IsWarning("Storage is missing")));
}

TEST_F(StoredPolicies, AreNoJson) {
  EXPECT_THAT(After("State", ""), ElementsAre(IsProblem("State is no JSON object")));
  EXPECT_THAT(After("Service", "[1]"), ElementsAre(IsProblem("Service is no JSON object")));
  EXPECT_THAT(After("Storage", "{\"config\":"), ElementsAre(IsProblem("Storage is no JSON object: Line 1")));
}

TEST_F(StoredPolicies, BreakTheirRules) {
  EXPECT_THAT(After("Service", R"({"restart_delay":"x"})"), ElementsAre(IsWarning("restart_delay is \"x\"")));
  EXPECT_THAT(After("State", R"({"logging_state":"on","x":1})"),
              ElementsAre(IsWarning("x is not known"), IsWarning("logging_state is \"on\"")));
  EXPECT_THAT(After("Storage", "{}"), ElementsAre(IsWarning("config is missing"), IsWarning("state is missing")));
}

TEST_F(StoredPolicies, CountThreatsByAnyName) {
  EXPECT_THAT(After("Storage", Storage("", R"({"count":1,"last_index":-1,"a b":7})")), IsEmpty());
  EXPECT_THAT(After("Storage", Storage("", R"({"count":1,"last_index":-1,"a b":"7"})")),
              ElementsAre(IsWarning("state.a b is")));
}

TEST_F(StoredPolicies, HoldRecordsThatNoRequestGives) {
  const std::string record = R"(:{"url":"u","timestamp":1})";
  EXPECT_THAT(
      After("Storage", Storage(",\"x\"" + record + ",\"07\"" + record + ",\"5\"" + record, R"({"last_index":4})")),
      ElementsAre(IsWarning("Storage.07 is no index"), IsWarning("Storage.5 lies behind the last index, which is 4"),
                  IsWarning("Storage.x is no index")));
}

TEST_F(StoredPolicies, HoldRecordsThatAreNone) {
  EXPECT_THAT(After("Storage", Storage(R"(,"0":{"url":""},"1":3)", R"({"last_index":4})")),
              ElementsAre(IsWarning("0.timestamp is missing"),
                          IsWarning("0.url is \"\", and should be a text that is not empty"),
                          IsWarning("1 is 3, and should be an object")));
}

TEST_F(StoredPolicies, AreNotListedWithoutEnd) {
  std::string records;
  for (int at = 0; at < 100; ++at) records += ",\"" + std::to_string(at) + "\":0";
  EXPECT_THAT(After("Storage", Storage(records, R"({"last_index":200})")), SizeIs(21));
}

TEST_F(StoredPolicies, AreJudgedWhateverTheirNamesAre) {
  const std::string name(1 << 20, 'n');
  EXPECT_THAT(After("Storage", Storage(",\"" + name + "\":0", R"({"last_index":4,")" + name + "\":1}")), SizeIs(2));
}

}  // namespace
}  // namespace zav::client::test
