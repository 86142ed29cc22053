// What programs read of every verb: its keys, their types, and their version.

#include <gmock/gmock.h>
#include <json/json.h>

#include <sstream>

#include "GrowingLog.h"
#include "Process.h"

namespace zav::client::test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

Json::Value Parsed(const std::string& text) {
  Json::Value document;
  std::istringstream(text) >> document;
  return document;
}

class TheForms : public testing::Test {
 protected:
  std::string Given(std::vector<std::string> arguments, const std::string& format) const {
    arguments.insert(arguments.end(), {"-o", format, "--socket", log.path(), "--timeout", "20"});
    const Outcome outcome = RunPyxctl(arguments);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    return outcome.out;
  }

  GrowingLog log;
};

TEST_F(TheForms, OfOneRowAreTheSameInBothKindsOfJson) {
  for (const std::vector<std::string>& verb :
       std::vector<std::vector<std::string>>{{"state"}, {"count"}, {"reset", "-y"}}) {
    EXPECT_EQ(Given(verb, "json"), Given(verb, "ndjson"));
  }
  EXPECT_EQ(Given({"count"}, "csv"), "schema_version,count\n1,0\n");
  EXPECT_EQ(Given({"state"}, "csv"), "schema_version,enabled\n1,true\n");
  EXPECT_EQ(Given({"reset", "-y"}, "csv"), "schema_version,reset\n1,true\n");
}

TEST_F(TheForms, OfARecordHaveNumbersAsNumbers) {
  log.Add("http://a.example/", 1, "phishing");
  const Json::Value record = Parsed(Given({"log"}, "ndjson"));
  EXPECT_EQ(record.getMemberNames(),
            (std::vector<std::string>{"index", "schema_version", "threat", "time", "timestamp", "url"}));
  EXPECT_TRUE(record["index"].isInt());
  EXPECT_TRUE(record["timestamp"].isInt());
  EXPECT_TRUE(record["schema_version"].isInt());
  EXPECT_EQ(record["time"], "1970-01-01T00:00:01Z");
}

TEST_F(TheForms, OfALogAreOneDocumentOrALineARecord) {
  log.AddUpTo(1, 3);
  EXPECT_EQ(Parsed(Given({"log"}, "json"))["records"].size(), 3U);
  std::istringstream lines(Given({"log"}, "ndjson"));
  int number = 0;
  for (std::string line; std::getline(lines, line);) EXPECT_EQ(Parsed(line)["timestamp"], ++number);
  EXPECT_EQ(number, 3);
}

TEST_F(TheForms, OfAnEmptyLogHaveNoRows) {
  EXPECT_EQ(Given({"log"}, "ndjson"), "");
  EXPECT_EQ(Given({"log"}, "csv"), "schema_version,index,timestamp,time,threat,url\n");
  EXPECT_EQ(Given({"top"}, "json"), "{\"hosts\":[],\"records\":0,\"schema_version\":1,\"threats\":[]}\n");
  EXPECT_EQ(Given({"top"}, "csv"), "schema_version,by,name,count\n");
}

TEST_F(TheForms, OfAnAnswerTellItsTime) {
  const Json::Value answer = Parsed(Given({"ping"}, "json"));
  EXPECT_EQ(answer["alive"], true);
  EXPECT_TRUE(answer["milliseconds"].isDouble());
  EXPECT_GT(answer["milliseconds"].asDouble(), 0);
  EXPECT_THAT(Given({"ping"}, "human"), StartsWith("The service answers ("));
}

TEST_F(TheForms, OfACellAreQuotedAndPrintableAndNoFormula) {
  log.Add("a,\"b\" c\n\\", 1, "=1+1");
  log.Add("\u00e9\xff", 2, "-x");
  EXPECT_EQ(Given({"log"}, "csv"),
            "schema_version,index,timestamp,time,threat,url\n"
            "1,0,1,1970-01-01T00:00:01Z,\\x3d1+1,\"a,\"\"b\"\" c\\x0a\\\\\"\n"
            "1,1,2,1970-01-01T00:00:02Z,\\x2dx,\u00e9\ufffd\n");
}

TEST_F(TheForms, AreUnicodeWhateverTheLocale) {
  log.Add("\u00e9", 1);
  const Outcome outcome = RunPyxctl({"log", "-o", "csv", "--socket", log.path()}, {{"LC_ALL=C"}, ""});
  EXPECT_THAT(outcome.out, HasSubstr(",\u00e9\n"));
}

TEST_F(TheForms, OfAStatusTellSectionsFromNames) {
  const FakeService service{
      Answering(Header(16), Text(R"({"config":{"max_file_size":10,"max_index":2000,"max_logging_period":3600},)"
                                 R"("in_storage":{"count":2,"total":2},"state":{"count":7,"phishing":7}})"))};
  const Outcome outcome = RunPyxctl({"status", "-o", "csv", "--socket", service.path()});
  EXPECT_EQ(outcome.out,
            "schema_version,section,name,value\n"
            "1,settings,max_records,10\n"
            "1,settings,max_period,3600\n"
            "1,settings,max_index,2000\n"
            "1,stored,total,2\n"
            "1,reported,total,7\n"
            "1,stored_threats,total,2\n"
            "1,reported_threats,phishing,7\n");
}

TEST(APing, EndsWith3WithoutAService) {
  const TemporaryDirectory directory;
  const Outcome outcome = RunPyxctl({"ping", "--wait", "--timeout", "0.2", "--socket", directory.path() / "none"});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(outcome.err, HasSubstr("no service"));
}

TEST(APing, WaitsForTheServiceToCome) {
  const TemporaryDirectory directory;
  const std::string path = directory.path() / "socket";
  RunningPyxctl pyxctl({"ping", "--wait", "--timeout", "60", "--socket", path});
  const GrowingLog log;
  std::filesystem::create_symlink(log.path(), path);
  EXPECT_EQ(pyxctl.Wait(), 0);
  EXPECT_THAT(pyxctl.out(), StartsWith("The service answers ("));
}

TEST(APing, IsNotContentWithAConnection) {
  const FakeService service{[](Peer& peer) { peer.AwaitEnd(); }};
  const Outcome outcome = RunPyxctl({"ping", "--wait", "--timeout", "0.2", "--socket", service.path()});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(outcome.err, HasSubstr("did not answer in time"));
}

}  // namespace
}  // namespace zav::client::test
