#include <gmock/gmock.h>
#include <json/json.h>

#include <algorithm>

#include "FakeService.h"
#include "Process.h"

namespace zav::client::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr std::int32_t kMaxInt = 2'147'483'647;
const std::string kWholeLog = Header(17) + Words({0, 0, 0, kMaxInt, 64, -1});
constexpr const char* kRecords = R"({"10":{"threat":"malware","timestamp":86400,"url":"http://b.example/"},)"
                                 R"("9":{"threat":"phishing","timestamp":0,"url":"http://a.example/"}})";

Outcome Ask(const FakeService& service, std::vector<std::string> arguments, const Surroundings& surroundings = {}) {
  arguments.insert(arguments.end(), {"--socket", service.path(), "--timeout", "20"});
  return RunPyxctl(arguments, surroundings);
}

/// What a verb says to a person.
std::string Said(const Script& script, const std::vector<std::string>& arguments,
                 const Surroundings& surroundings = {}) {
  const FakeService service{script};
  const Outcome outcome = Ask(service, arguments, surroundings);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "");
  return outcome.out;
}

/// What a verb gives to a program.
Json::Value Given(const Script& script, std::vector<std::string> arguments) {
  arguments.insert(arguments.end(), {"-o", "json"});
  const std::string text = Said(script, arguments);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
  Json::Value document;
  std::string errors;
  std::istringstream stream(text);
  EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), stream, &document, &errors)) << errors;
  return document;
}

Json::Value Parsed(const std::string& text) {
  Json::Value document;
  std::istringstream(text) >> document;
  return document;
}

/// A failure: nothing on standard output and one line, that begins so, on standard error.
void ExpectFailure(const Outcome& outcome, int status, const std::string& beginning) {
  EXPECT_EQ(outcome.status, status);
  EXPECT_EQ(outcome.out, "");
  EXPECT_THAT(outcome.err, StartsWith("pyxctl: " + beginning));
  EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
}

TEST(TheStateVerb, SaysASentence) {
  EXPECT_EQ(Said(Answering(Header(4), Words({0, 301, 1})), {"state"}), "The feature is enabled.\n");
  EXPECT_EQ(Said(Answering(Header(4), Words({0, 301, 0})), {"state"}), "The feature is disabled.\n");
}

TEST(TheStateVerb, GivesABoolean) {
  EXPECT_EQ(Given(Answering(Header(4), Words({0, 301, 0})), {"state"}),
            Parsed(R"({"enabled":false,"schema_version":1})"));
}

TEST(TheLoggingVerb, SaysASentence) {
  EXPECT_EQ(Said(Answering(Header(5), Words({0, 1301, 1})), {"logging"}), "Logging is enabled.\n");
  EXPECT_EQ(Said(Answering(Header(5), Words({0, 1301, 0})), {"logging"}), "Logging is disabled.\n");
}

TEST(TheLoggingVerb, GivesABoolean) {
  EXPECT_EQ(Given(Answering(Header(5), Words({0, 1301, 1})), {"logging"}),
            Parsed(R"({"enabled":true,"schema_version":1})"));
}

TEST(TheReportVerb, SaysASentence) {
  EXPECT_EQ(Said(Answering(Header(6) + Text("http://a/") + Text("x y"), Words({0})),
                 {"report", "http://a/", "--threat", "x y"}),
            "The report is logged.\n");
}

TEST(TheReportVerb, GivesABoolean) {
  EXPECT_EQ(Given(Answering(Header(6) + Text("u") + Text(""), Words({0})), {"report", "u"}),
            Parsed(R"({"logged":true,"schema_version":1})"));
}

TEST(TheReportVerb, TakesUrlsThatLookLikeOtherArguments) {
  EXPECT_EQ(Said(Answering(Header(6) + Text("log") + Text("count"), Words({0})), {"report", "log", "--threat=count"}),
            "The report is logged.\n");
  EXPECT_EQ(Said(Answering(Header(6) + Text("[a,b]") + Text(""), Words({0})), {"report", "[a,b]", "--threat", ""}),
            "The report is logged.\n");
  const FakeService service{Answering(Header(6) + Text("--reverse") + Text(""), Words({0}))};
  EXPECT_EQ(RunPyxctl({"--socket", service.path(), "report", "--", "--reverse"}).status, 0);
}

TEST(TheReportVerb, EndsWith1WhenTheServiceSaysNo) {
  const FakeService service{Answering(Header(6) + Text("u") + Text(""), Words({-1})),
                            Answering(Header(6) + Text("") + Text(""), Words({-1}))};
  ExpectFailure(Ask(service, {"report", "u"}), 1, "the service did not store the report; ");
  ExpectFailure(Ask(service, {"report", ""}), 1, "the service does not log an empty URL; ");
}

TEST(TheReportVerb, EndsWith3AndSaysThatTheOutcomeIsUnknown) {
  const FakeService service{[](Peer& peer) { peer.Read(Header(6).size() + 9); }};
  ExpectFailure(Ask(service, {"report", "u"}), 3, "the service did not say whether it logged the report; ");
}

TEST(TheStatusVerb, SaysTheNumbers) {
  EXPECT_EQ(
      Said(Answering(Header(16), Text(R"({"config":{"max_file_size":10,"max_index":2000,"max_logging_period":3600},)"
                                      R"("in_storage":{"count":2,"phishing":2},"state":{"count":7,"phishing":7}})")),
           {"status"}),
      "Records in the log: 2\n"
      "  phishing                         2\n"
      "Reports in all: 7\n"
      "  phishing                         7\n"
      "Records kept at most: 10\n"
      "Seconds a record is kept: 3600\n"
      "Index that renumbers the log: 2000\n");
}

TEST(TheStatusVerb, GivesEverySection) {
  EXPECT_EQ(Given(Answering(Header(16), Text(R"({"config":{"max_index":2000},"state":{"count":7,"phishing":7}})")),
                  {"status"}),
            Parsed(R"({"schema_version":1,"settings":{"max_records":0,"max_index":2000,"max_period":0},)"
                   R"("stored":{"total":0,"threats":[]},)"
                   R"("reported":{"total":7,"threats":[{"threat":"phishing","count":7}]}})"));
}

TEST(TheLogVerb, SaysATable) {
  EXPECT_EQ(Said(Answering(kWholeLog, LogAnswer(kRecords)), {"log"}),
            "INDEX  TIME                 THREAT    URL\n"
            "9      1970-01-01 00:00:00  phishing  http://a.example/\n"
            "10     1970-01-02 00:00:00  malware   http://b.example/\n");
}

TEST(TheLogVerb, GivesAListInTheOrderOfTheIndexes) {
  EXPECT_EQ(Given(Answering(kWholeLog, LogAnswer(kRecords)), {"log"}),
            Parsed(R"({"schema_version":1,"records":[)"
                   R"({"index":9,"threat":"phishing","timestamp":0,"time":"1970-01-01T00:00:00Z",)"
                   R"("url":"http://a.example/"},)"
                   R"({"index":10,"threat":"malware","timestamp":86400,"time":"1970-01-02T00:00:00Z",)"
                   R"("url":"http://b.example/"}]})"));
}

TEST(TheLogVerb, GivesAListTheOtherWayRound) {
  const Json::Value list =
      Given(Answering(Header(18) + Words({0, 0, 1, 86400, 64, 10}),
                      LogAnswer(R"({"10":{"threat":"","timestamp":86400,"url":"u"},)"
                                R"("9":{"threat":"","timestamp":2,"url":"u"}})")),
            {"log", "--since", "@1", "--until", "1970-01-02T00:00:00Z", "--start", "10", "-r"})["records"];
  ASSERT_EQ(list.size(), 2U);
  EXPECT_EQ(list[0]["index"], 10);
  EXPECT_EQ(list[1]["index"], 9);
}

TEST(TheLogVerb, SaysThatThereAreNoRecords) {
  EXPECT_EQ(Said(Answering(kWholeLog, Words({-1})), {"log"}), "no records\n");
}

TEST(TheLogVerb, GivesAnEmptyList) {
  EXPECT_EQ(Given(Answering(kWholeLog, Words({-1})), {"log"}), Parsed(R"({"schema_version":1,"records":[]})"));
}

TEST(TheCountVerb, SaysTheNumber) {
  EXPECT_EQ(Said(Answering(Header(20) + Words({0, 0, 0, kMaxInt}), Words({1})), {"count"}), "1 record\n");
  EXPECT_EQ(Said(Answering(Header(20) + Words({0, 0, 5, 5}), Words({0})), {"count", "--since", "@5", "--until", "@5"}),
            "0 records\n");
}

TEST(TheCountVerb, GivesTheNumber) {
  EXPECT_EQ(Given(Answering(Header(20) + Words({0, 0, 5, kMaxInt}), Words({2})), {"count", "--since", "@5"}),
            Parsed(R"({"count":2,"schema_version":1})"));
}

TEST(TheCountVerb, EndsWith1WhenTheServiceSaysNo) {
  const FakeService service{Answering(Header(20) + Words({0, 0, 0, kMaxInt}), Words({-1}))};
  ExpectFailure(Ask(service, {"count"}), 1, "the service did not count the records; ");
}

TEST(TheResetVerb, SaysASentence) {
  EXPECT_EQ(Said(Answering(Header(19), Words({0})), {"reset", "-y"}), "The log is empty.\n");
}

TEST(TheResetVerb, GivesABoolean) {
  EXPECT_EQ(Given(Answering(Header(19), Words({0})), {"reset", "-y"}), Parsed(R"({"reset":true,"schema_version":1})"));
}

TEST(TheResetVerb, EndsWith1WhenTheServiceSaysNo) {
  const FakeService service{Answering(Header(19), Words({-1}))};
  ExpectFailure(Ask(service, {"reset", "--yes"}), 1, "the service could not store the empty log; ");
}

constexpr const char* kHostile =
    R"({"0":{"threat":"\u001b]0;x\u0007\\\u009b","timestamp":0,"url":"a\r\nb\u007f\u202e\u00e9\u200b"}})";

TEST(AHostileText, IsEscapedForAPerson) {
  EXPECT_THAT(Said(Answering(kWholeLog, LogAnswer(kHostile)), {"log"}),
              HasSubstr(R"(  \x1b]0;x\x07\\\xc2\x9b  a\x0d\x0ab\x7f\xe2\x80\xae)"
                        "\u00e9"
                        R"(\xe2\x80\x8b)"
                        "\n"));
}

TEST(AHostileText, IsEscapedByteByByteWhereTheTerminalKnowsNoUnicode) {
  EXPECT_THAT(Said(Answering(kWholeLog, LogAnswer(kHostile)), {"log"}, {{"LC_ALL=C", "TZ=UTC"}, ""}),
              HasSubstr(R"(\xe2\x80\xae\xc3\xa9\xe2\x80\x8b)"));
}

TEST(AHostileText, IsEscapedWhereItIsNoUnicode) {
  EXPECT_THAT(
      Said(Answering(kWholeLog, LogAnswer("{\"0\":{\"threat\":\"\x9b\xc3\",\"timestamp\":0,\"url\":\"u\"}}")), {"log"}),
      HasSubstr(R"(  \x9b\xc3  u)"));
}

TEST(AHostileText, IsReplacedForAProgramWhereItIsNoUnicode) {
  EXPECT_THAT(Said(Answering(kWholeLog, LogAnswer("{\"0\":{\"threat\":\"\x9b\xc3\",\"timestamp\":0,\"url\":\"u\"}}")),
                   {"log", "-o", "ndjson"}),
              HasSubstr(R"("threat":"\ufffd\ufffd")"));
}

TEST(AHostileText, IsEscapedInTheStatus) {
  EXPECT_THAT(Said(Answering(Header(16), Text(R"({"state":{"\u001b[2J\n":1}})")), {"status"}),
              HasSubstr("\n  \\x1b[2J\\x0a "));
}

TEST(AHostileText, ReachesAProgramAsItIs) {
  const Json::Value list = Given(Answering(kWholeLog, LogAnswer(kHostile)), {"log"})["records"];
  EXPECT_EQ(list[0]["threat"].asString(), "\x1b]0;x\x07\\\xc2\x9b");
  EXPECT_EQ(list[0]["url"].asString(), "a\r\nb\x7f\xe2\x80\xae\u00e9\xe2\x80\x8b");
}

TEST(AHostileText, IsPureAsciiForAProgram) {
  const std::string text = Said(Answering(kWholeLog, LogAnswer(kHostile)), {"log", "-o", "json"});
  EXPECT_TRUE(std::all_of(text.begin(), text.end() - 1, [](char c) { return c >= ' ' && c != 0x7f; })) << text;
}

TEST(AHostileText, IsNotRepeatedInAnError) {
  const FakeService service{Answering(Header(16), Text("\x1b[2J"))};
  const Outcome outcome = Ask(service, {"status"});
  ExpectFailure(outcome, 3, "the service's answer is no JSON object; ");
  EXPECT_THAT(outcome.err, Not(HasSubstr("\x1b")));
}

TEST(AHostileText, OfTheCommandLineIsEscapedInAnError) {
  const Outcome outcome = RunPyxctl({"state", "\x1b[2J\n"});
  ExpectFailure(outcome, 2, "The following argument was not expected: \\x1b[2J\\x0a; ");
}

TEST(AFailure, EndsWith3WhenThereIsNoService) {
  const TemporaryDirectory directory;
  const std::string path = directory.path() / "socket";
  ExpectFailure(RunPyxctl({"state", "--socket", path}), 3, "no service at " + path + " (No such file or directory); ");
}

TEST(AFailure, EndsWith3WhenThereIsNoAnswer) {
  const FakeService service{[](Peer& peer) { peer.AwaitEnd(); }};
  ExpectFailure(RunPyxctl({"state", "--socket", service.path(), "--timeout", "0.2"}), 3,
                "the service did not answer in time; ");
}

TEST(AFailure, EndsWith3WhenTheServiceStaysBusy) {
  const FakeService service{Refuse};
  ExpectFailure(RunPyxctl({"count", "-o", "json", "--socket", service.path(), "--timeout", "1"}), 3,
                "the service is busy and refused every connection; ");
}

TEST(AFailure, EndsWith4WhenTheOutputCannotBeWritten) {
  const FakeService service{Answering(Header(4), Words({0, 301, 1}))};
  ExpectFailure(Ask(service, {"state"}, {{}, "/dev/full"}), 4, "the output cannot be written; ");
}

TEST(ACommandLine, EndsWith2WhenItIsWrong) {
  const std::vector<std::vector<std::string>> wrong = {
      {},
      {"nonsense"},
      {"state", "logging"},
      {"state", "--nonsense"},
      {"report"},
      {"report", "u", "v"},
      {"log", "--since", "x"},
      {"log", "--last", "yesterday"},
      {"log", "--last", "1h", "--since", "1h"},
      {"log", "--until", "@2147483648"},
      {"log", "-n", "1.5"},
      {"log", "-n", "0"},
      {"log", "-n", "1", "--start", "1"},
      {"log", "--grep", "("},
      {"follow", "--interval", "0"},
      {"follow", "--interval", "nan"},
      {"top", "--interval", "-nan"},
      {"log", "--start", ""},
      {"log", "--since", "@6", "--until", "@5"},
      {"count", "--since", "@6", "--until", "@5"},
      {"count", "-n", "5"},
      {"state", "-o", "xml"},
      {"state", "--timeout", "0"},
      {"state", "--timeout", "-1"},
      {"state", "--timeout", "nan"},
      {"state", "--timeout", "86401"},
      {"state", "--socket", ""},
      {"state", "--socket", std::string(108, 'x')},
  };
  for (const std::vector<std::string>& arguments : wrong) {
    SCOPED_TRACE(testing::PrintToString(arguments));
    ExpectFailure(RunPyxctl(arguments), 2, "");
  }
}

TEST(ACommandLine, TakesTheCommonOptionsBeforeTheVerbToo) {
  const FakeService service{Answering(Header(4), Words({0, 301, 1}))};
  const Outcome outcome = RunPyxctl({"-o", "json", "--timeout", "20", "--socket", service.path(), "state"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "{\"enabled\":true,\"schema_version\":1}\n");
}

TEST(ACommandLine, ShowsEveryVerbInItsHelp) {
  const Outcome outcome = RunPyxctl({"--help"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.err, IsEmpty());
  for (const char* verb : {"state", "logging", "report", "status", "log", "follow", "top", "count", "export",
                           "report-page", "ping", "doctor", "reset"}) {
    EXPECT_THAT(outcome.out, HasSubstr("\n  " + std::string(verb) + " "));
    EXPECT_EQ(RunPyxctl({verb, "--help"}).status, 0);
  }
}

TEST(ACommandLine, TakesHelpForAVerb) {
  EXPECT_EQ(RunPyxctl({"help"}).out, RunPyxctl({"--help"}).out);
  const Outcome outcome = RunPyxctl({"help", "log"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, RunPyxctl({"log", "--help"}).out);
  EXPECT_THAT(outcome.out, HasSubstr("--reverse"));
}

}  // namespace
}  // namespace zav::client::test
