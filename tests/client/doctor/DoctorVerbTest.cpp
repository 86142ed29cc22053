#include <json/json.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "Process.h"
#include "doctor/DeviceFiles.h"
#include "support/Device.h"

namespace zav::client::test {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using zav::test::WriteFile;

Json::Value Parsed(const std::string& text) {
  Json::Value document;
  std::istringstream(text) >> document;
  return document;
}

class TheDoctorVerb : public testing::Test {
 protected:
  Outcome Run(std::vector<std::string> more = {}) const {
    std::vector<std::string> arguments = {"doctor", "--storage", device.paths.storageDirectory, "--socket",
                                          device.paths.socket};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return RunPyxctl(arguments);
  }

  DeviceFiles device;
};

TEST_F(TheDoctorVerb, EndsWith0ForASoundFile) {
  const Outcome outcome = RunPyxctl({"doctor", "--policy", device.paths.DefaultPolicy()});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "ok       " + device.paths.DefaultPolicy() + ": it keeps its rules\n");
  EXPECT_EQ(outcome.err, "");
}

TEST_F(TheDoctorVerb, EndsWith1ForAProblemAndSaysWhatToDo) {
  WriteFile(device.paths.DefaultPolicy(), "x");
  const Outcome outcome = RunPyxctl({"doctor", "--policy", device.paths.DefaultPolicy()});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.out, StartsWith("problem  " + device.paths.DefaultPolicy() + ": it is no JSON object"));
  EXPECT_THAT(outcome.out, HasSubstr("\n           correct it: "));
  EXPECT_EQ(outcome.err, "");
}

TEST_F(TheDoctorVerb, ExaminesTheDeviceThatItIsShown) {
  const Outcome outcome = Run();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.out, HasSubstr("problem  service: it does not answer: no service at " + device.paths.socket));
  EXPECT_THAT(outcome.out, HasSubstr("ok       database: "));
}

TEST_F(TheDoctorVerb, GivesADocument) {
  const Json::Value document = Parsed(Run({"-o", "json"}).out);
  EXPECT_EQ(document["schema_version"], 1);
  EXPECT_EQ(document["sound"], false);
  ASSERT_GE(document["findings"].size(), pyxctl::doctor::Examinations().size());
  const Json::Value& first = document["findings"][0];
  EXPECT_EQ(first["severity"], "ok");
  EXPECT_EQ(first["subject"], "run directory");
  EXPECT_EQ(first["message"], "it is there, and its owner alone may change it");
  EXPECT_EQ(first["advice"], "");
}

TEST_F(TheDoctorVerb, GivesRows) {
  EXPECT_THAT(Run({"-o", "csv"}).out, StartsWith("schema_version,severity,subject,message,advice\n1,ok,"));
  EXPECT_EQ(Parsed(Run({"-o", "ndjson"}).out)["subject"], "run directory");
}

TEST_F(TheDoctorVerb, ShowsNoTextOfAFileAsItIs) {
  const std::string hostile = "\\u001b[31m\\u202e\\u0007";
  WriteFile(device.paths.DefaultPolicy(),
            R"({"PYXPlugin":{"State":{")" + hostile + R"(":"x","pyx_state":")" + hostile + "\"}}}");
  Policies policies = SoundPolicies();
  policies["State"] = R"({"pyx_state":"\u001b[31m\u202e\u0007","\u001b[31m\u202e\u0007":1})";
  policies["Service"] = "{\x1b[31m\x07";
  device.Store(policies);
  zav::test::Sql("CREATE TABLE \"\x1b[31m\xe2\x80\xae\" (a)", device.paths.Database());
  const Outcome outcome = Run();
  EXPECT_THAT(outcome.out, HasSubstr("\\x1b[31m"));
  EXPECT_THAT(outcome.out, Not(ContainsRegex("[\x01-\x09\x0b-\x1f]")));
  EXPECT_THAT(outcome.out, Not(HasSubstr("\xe2\x80\xae")));
}

TEST_F(TheDoctorVerb, IsCompleteInItsOwnProcessAsAnOrdinaryUserToo) {
  std::filesystem::permissions(device.paths.storageDirectory, std::filesystem::perms::none);
  const Outcome outcome = Run();
  EXPECT_THAT(outcome.out, HasSubstr("policy.json: "));
}

TEST(ACommandLineOfTheDoctor, EndsWith2WhenItIsWrong) {
  EXPECT_EQ(RunPyxctl({"doctor", "--policy"}).status, 2);
  EXPECT_EQ(RunPyxctl({"doctor", "file"}).status, 2);
}

}  // namespace
}  // namespace zav::client::test
