#include <gmock/gmock.h>
#include <json/json.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>

#include "FakeService.h"
#include "Process.h"
#include "WholeFile.h"

namespace zav::client::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

constexpr std::int32_t kMaxInt = 2'147'483'647;
constexpr const char* kStatus =
    R"({"config":{"max_file_size":10,"max_index":2000,"max_logging_period":3600},)"
    R"("in_storage":{"count":2,"phishing":1,"malware":1},"state":{"count":7,"phishing":7}})";
constexpr const char* kRecords = R"({"10":{"threat":"malware","timestamp":86400,"url":"http://b.example/"},)"
                                 R"("9":{"threat":"phishing","timestamp":0,"url":"http://a.example/"}})";

Script Newest(std::int32_t count, const std::string& answer) {
  return Answering(Header(18) + Words({0, 0, 0, kMaxInt, count, -1}), answer);
}

/// What is asked for before the records.
std::vector<Script> Asking(Script records) {
  return {Answering(Header(4), Words({0, 301, 1})), Answering(Header(5), Words({0, 1301, 0})),
          Answering(Header(16), Text(kStatus)), std::move(records)};
}

std::string Contents(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void Write(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

std::vector<std::string> NamesIn(const fs::path& directory) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory)) names.push_back(entry.path().filename());
  return names;
}

mode_t ModeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0);
  return status.st_mode & 07777U;
}

/// The verb, with a directory to write to.
class TheReportPageVerb : public testing::Test {
 protected:
  TheReportPageVerb() : page(directory.path() / "page.html") {}

  Outcome Make(const std::vector<Script>& scripts, std::vector<std::string> arguments,
               const Surroundings& surroundings = {}) {
    const FakeService service(scripts);
    arguments.insert(arguments.begin(), {"report-page", "--socket", service.path(), "--timeout", "20"});
    return RunPyxctl(arguments, surroundings);
  }

  const TemporaryDirectory directory;
  const std::string page;
};

TEST_F(TheReportPageVerb, WritesAPageOfEverythingTheServiceTells) {
  const Outcome outcome = Make(Asking(Newest(64, LogAnswer(kRecords))), {page});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out, "The page is written to " + page + ", with 2 records.\n");
  EXPECT_THAT(NamesIn(directory.path()), ElementsAre("page.html"));
  const std::string text = Contents(page);
  EXPECT_THAT(text, StartsWith("<!DOCTYPE html>\n"));
  EXPECT_THAT(text, EndsWith("</html>\n"));
  EXPECT_THAT(text, HasSubstr("Feature on</span>"));
  EXPECT_THAT(text, HasSubstr("Logging off</span>"));
  EXPECT_THAT(text, HasSubstr("A record is kept for</th><td>1 h <small>(3,600 s)"));
  EXPECT_THAT(text, HasSubstr(R"(<th scope="row">phishing</th><td>1</td><td>7</td>)"));
  EXPECT_THAT(text, HasSubstr(R"("url":"http://b.example/"},{)"));
  EXPECT_THAT(text, HasSubstr("(UTC)"));
}

TEST_F(TheReportPageVerb, TellsAProgramWhatItWrote) {
  const Outcome outcome = Make(Asking(Newest(64, LogAnswer(kRecords))), {page, "-o", "json"});
  Json::Value document;
  std::istringstream(outcome.out) >> document;
  EXPECT_EQ(document["path"], page);
  EXPECT_EQ(document["records"], 2);
  EXPECT_EQ(document["bytes"].asUInt64(), Contents(page).size());
}

TEST_F(TheReportPageVerb, WritesToStandardOutput) {
  for (const char* format : {"human", "json"}) {
    const Outcome outcome = Make(Asking(Newest(64, Words({-1}))), {"-", "-o", format});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_THAT(outcome.out, StartsWith("<!DOCTYPE html>\n"));
    EXPECT_THAT(outcome.out, EndsWith("</html>\n"));
  }
}

TEST_F(TheReportPageVerb, EndsWith4WhenStandardOutputTakesNothing) {
  const Outcome outcome = Make(Asking(Newest(64, Words({-1}))), {"-"}, {{}, "/dev/full"});
  EXPECT_EQ(outcome.status, 4);
  EXPECT_THAT(outcome.err, HasSubstr("the output cannot be written"));
}

TEST_F(TheReportPageVerb, ShowsTheTimesOfTheSystemsZone) {
  const Outcome outcome = Make(Asking(Newest(64, LogAnswer(kRecords))), {"-"}, {{"TZ=XYZ-5:30"}, ""});
  EXPECT_THAT(outcome.out, HasSubstr("(XYZ, UTC+05:30)"));
  EXPECT_THAT(outcome.out, HasSubstr("1970-01-01 05:30:00"));
}

TEST_F(TheReportPageVerb, ShowsWhatIsPrintableInUtf8InEveryLocale) {
  const std::string answer = LogAnswer("{\"0\":{\"threat\":\"\u00e9\u202e\",\"timestamp\":0,\"url\":\"\xff\"}}");
  for (const char* locale : {"LC_ALL=C", "LC_ALL=C.UTF-8"}) {
    const Outcome outcome = Make(Asking(Newest(64, answer)), {"-"}, {{locale, "TZ=UTC"}, ""});
    EXPECT_THAT(outcome.out, HasSubstr("<td role=\"cell\" class=\"threat\">\u00e9\\xe2\\x80\\xae</td>"));
    EXPECT_THAT(outcome.out, HasSubstr(R"(<td role="cell" class="url">\xff</td>)"));
  }
}

TEST_F(TheReportPageVerb, TakesATitle) {
  const Outcome outcome = Make(Asking(Newest(64, Words({-1}))), {"-", "--title", "Till <4>"});
  EXPECT_THAT(outcome.out, HasSubstr("<h1>Till &lt;4&gt;</h1>"));
}

TEST_F(TheReportPageVerb, AsksForNoMoreRecordsThanItIsToShow) {
  const Outcome outcome = Make(Asking(Newest(2, LogAnswer(kRecords))), {page, "-n", "2"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
}

TEST_F(TheReportPageVerb, MakesAnUnforeseeableNonceForEveryPage) {
  const auto nonce = [this] {
    const std::string text = Make(Asking(Newest(64, Words({-1}))), {"-"}).out;
    return text.substr(text.find("nonce-") + 6, 32);
  };
  const std::string first = nonce();
  EXPECT_EQ(first.find_first_not_of("0123456789abcdef"), std::string::npos) << first;
  EXPECT_NE(first, nonce());
}

TEST_F(TheReportPageVerb, ReplacesAnOldPage) {
  Write(page, std::string(1 << 20, 'x'));
  EXPECT_EQ(Make(Asking(Newest(64, Words({-1}))), {page}).status, 0);
  EXPECT_THAT(Contents(page), StartsWith("<!DOCTYPE html>\n"));
  EXPECT_THAT(Contents(page), EndsWith("</html>\n"));
}

TEST_F(TheReportPageVerb, LeavesTheOldPageWhenTheServiceFails) {
  Write(page, "old");
  std::vector<Script> scripts = Asking([](Peer& peer) {
    peer.Read(Header(18).size() + 24);
    peer.Send(LogAnswer("[]"));
    peer.AwaitEnd();
  });
  EXPECT_EQ(Make(scripts, {page}).status, 3);
  const FakeService silent{Answering(Header(4), Words({0, 301, 1})), [](Peer& peer) { peer.AwaitEnd(); }};
  EXPECT_EQ(RunPyxctl({"report-page", page, "--socket", silent.path(), "--timeout", "0.2"}).status, 3);
  EXPECT_EQ(RunPyxctl({"report-page", page, "--socket", directory / "nothing"}).status, 3);
  EXPECT_EQ(Contents(page), "old");
  EXPECT_THAT(NamesIn(directory.path()), ElementsAre("page.html"));
}

TEST_F(TheReportPageVerb, EndsWith4WhereItCannotWrite) {
  ASSERT_EQ(::mkfifo((directory / "pipe").c_str(), 0600), 0);
  for (const std::string& path : {directory / "no/page.html", directory.path().string(), directory / "pipe"}) {
    const Outcome outcome = Make(Asking(Newest(64, Words({-1}))), {path});
    EXPECT_EQ(outcome.status, 4) << path;
    EXPECT_EQ(outcome.out, "");
    EXPECT_THAT(outcome.err, StartsWith("pyxctl: cannot write " + path + ": "));
  }
  EXPECT_TRUE(fs::is_fifo(directory / "pipe"));
}

TEST_F(TheReportPageVerb, LeavesOutARecordThatNoAnswerCanHold) {
  // The service ends the connection where a text would be larger than it may be.
  std::vector<Script> scripts = Asking([](Peer& peer) {
    peer.Read(Header(18).size() + 24);
    peer.Send(Words({0, 10}));
  });
  scripts.push_back([](Peer& peer) {
    EXPECT_EQ(peer.Read(Header(18).size() + 24).substr(0, 16), Header(18));
    peer.Send(LogAnswer(R"({"9":{"threat":"phishing","timestamp":0,"url":"http://a.example/"}})"));
    peer.AwaitEnd();
  });
  const Outcome outcome = Make(scripts, {page, "-n", "1"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_THAT(Contents(page), HasSubstr("1 record is too large to be read and left out."));
  EXPECT_THAT(Contents(page), HasSubstr("http://a.example/"));
}

TEST_F(TheReportPageVerb, ShowsTheRecordsWithoutAStatusThatNoAnswerCanHold) {
  std::vector<Script> scripts = Asking(Newest(64, LogAnswer(kRecords)));
  scripts[2] = Answering(Header(16), Words({16'777'217}));
  const Outcome outcome = Make(scripts, {page});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_THAT(Contents(page), HasSubstr("The configuration and the counters could not be read."));
  EXPECT_THAT(Contents(page), HasSubstr("http://b.example/"));
}

TEST_F(TheReportPageVerb, NeedsAFileToWrite) {
  EXPECT_EQ(RunPyxctl({"report-page"}).status, 2);
  EXPECT_EQ(RunPyxctl({"report-page", ""}).status, 2);
  EXPECT_EQ(RunPyxctl({"report-page", "a", "b"}).status, 2);
  EXPECT_EQ(RunPyxctl({"report-page", "a", "-n", "-1"}).status, 2);
}

TEST(AWholeFile, IsThereWithTheRightsOfANewFile) {
  const TemporaryDirectory directory;
  const mode_t before = ::umask(027);
  pyxctl::WriteWholeFile(directory / "file", "content");
  ::umask(before);
  EXPECT_EQ(Contents(directory / "file"), "content");
  EXPECT_EQ(ModeOf(directory / "file"), 0640U);
}

TEST(AWholeFile, KeepsTheRightsOfTheOneThatItReplaces) {
  const TemporaryDirectory directory;
  Write(directory / "file", "old");
  fs::permissions(directory / "file", fs::perms(0600));
  pyxctl::WriteWholeFile(directory / "file", "content");
  EXPECT_EQ(Contents(directory / "file"), "content");
  EXPECT_EQ(ModeOf(directory / "file"), 0600U);
}

TEST(AWholeFile, TakesOverWhatAKilledWriterLeft) {
  const TemporaryDirectory directory;
  Write(directory / "file.new", "a longer text than the new one");
  pyxctl::WriteWholeFile(directory / "file", "content");
  EXPECT_EQ(Contents(directory / "file"), "content");
  EXPECT_FALSE(fs::exists(directory / "file.new"));
}

TEST(AWholeFile, IsOneOfThoseThatWereWrittenAtOnce) {
  const TemporaryDirectory directory;
  const auto writing = [&directory](char letter) {
    for (int i = 0; i < 200; ++i) pyxctl::WriteWholeFile(directory / "file", std::string(1000, letter));
  };
  std::thread other(writing, 'a');
  writing('b');
  other.join();
  const std::string content = Contents(directory / "file");
  EXPECT_EQ(content, std::string(1000, content.at(0)));
  EXPECT_FALSE(fs::exists(directory / "file.new"));
}

TEST(AWholeFile, TakesThePlaceOfWhatALinkPointsTo) {
  const TemporaryDirectory directory;
  fs::create_directory(directory / "elsewhere");
  Write(directory / "elsewhere/file", "old");
  fs::create_symlink("elsewhere/file", directory / "link");
  pyxctl::WriteWholeFile(directory / "link", "new");
  EXPECT_TRUE(fs::is_symlink(directory / "link"));
  EXPECT_EQ(Contents(directory / "elsewhere/file"), "new");
  EXPECT_THAT(NamesIn(directory / "elsewhere"), ElementsAre("file"));
}

TEST(AWholeFile, IsNotThereAtAllWhereTheDiskHasNoRoom) {
  const TemporaryDirectory directory;
  Write(directory / "file", "old");
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlimit small{4096, before.rlim_max};
  const auto handler = ::signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  EXPECT_THROW(pyxctl::WriteWholeFile(directory / "file", std::string(8192, 'x')), std::system_error);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
  ::signal(SIGXFSZ, handler);
  EXPECT_EQ(Contents(directory / "file"), "old");
  EXPECT_THAT(NamesIn(directory.path()), ElementsAre("file"));
}

}  // namespace
}  // namespace zav::client::test
