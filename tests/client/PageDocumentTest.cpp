#include "PageDocument.h"

#include <gmock/gmock.h>
#include <json/json.h>

#include <algorithm>
#include <sstream>

namespace zav::pyxctl {
namespace {

using pyxclient::Record;
using pyxclient::Time;
using std::chrono::seconds;
using testing::HasSubstr;
using testing::Not;
using namespace std::string_literals;

/// 2026-11-20 14:00:05 UTC.
constexpr Time kNow{seconds(1795183205)};

PageContent ContentOf(const std::vector<Record>& records) {
  PageContent content;
  content.title = "Threat log";
  content.made = kNow;
  content.zone = {"CET", [](Time) { return seconds(3600); }};
  content.isEnabled = true;
  content.status.emplace();
  content.status->maxRecords = 1000;
  content.status->maxPeriod = seconds(5400);
  content.status->maxIndex = 2000;
  content.status->stored.total = static_cast<std::int32_t>(records.size());
  content.status->reported.total = 1'234'567;
  content.nonce = "n0nce";
  std::transform(records.begin(), records.end(), std::back_inserter(content.records), PageRecordOf);
  return content;
}

std::string PageOf(const std::vector<Record>& records) {
  return PageDocument(ContentOf(records));
}

std::string Between(const std::string& page, const std::string& begin, const std::string& end) {
  const auto from = page.find(begin);
  const auto to = page.find(end, from + begin.size());
  if (from == std::string::npos || to == std::string::npos) return "nothing";
  return page.substr(from + begin.size(), to - from - begin.size());
}

/// The part that the script reads, up to the end of the element as a browser finds it.
std::string DataText(const std::string& page) {
  return Between(page, R"(type="application/json" id="data">)", "</script");
}

Json::Value DataOf(const std::string& page) {
  Json::Value data;
  std::istringstream(DataText(page)) >> data;
  return data;
}

/// What is there without a script.
std::string RowsOf(const std::string& page) {
  return Between(page, R"(id="rows">)", "</tbody>");
}

std::size_t Count(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++count;
  return count;
}

/// Every text that was tried on other pages, and bytes that are no text.
const std::vector<std::string>& HostileTexts() {
  static const std::vector<std::string> texts = {"<script>alert(1)</script>",
                                                 "</script><script>alert(1)</script>",
                                                 "</SCRIPT\t><img src=x onerror=alert(1)>",
                                                 "<!--<script>",
                                                 "-->]]>",
                                                 "</textarea></title></style></noscript>",
                                                 "\"'`><svg/onload=alert(1)>",
                                                 "javascript:alert(1)",
                                                 "{{nonce}}{{data}}}}",
                                                 "&lt;script&gt;&#60;b&#62;",
                                                 "\x1b]0;x\x07\r\n\t\x7f\xc2\x9b",
                                                 "a\0b"s,
                                                 "\xff\xfe\xc3(\xed\xa0\x80\xf8\x88\x80\x80\x80",
                                                 "\u202egnp.exe\u2066\u200b\u2028\u2029\ufeff\U000e0041",
                                                 "\\x41\\\\\\u003c",
                                                 std::string(1 << 20, 'x'),
                                                 std::string(1 << 20, '\0'),
                                                 ""};
  return texts;
}

std::vector<Record> HostileRecords() {
  std::vector<Record> records;
  for (const std::string& text : HostileTexts()) {
    const auto index = static_cast<std::int32_t>(records.size());
    records.push_back({index, kNow, text, text});
    records.push_back({index, kNow, "http://" + text + "/" + text, text});
  }
  return records;
}

TEST(ThePage, SaysWhenAndOfWhatItWasMade) {
  const std::string page = PageOf({});
  EXPECT_THAT(page, HasSubstr(R"(<time datetime="2026-11-20T14:00:05Z">2026-11-20 15:00:05</time> (CET, UTC+01:00))"));
  EXPECT_THAT(page, HasSubstr("<h1>Threat log</h1>"));
  EXPECT_THAT(page, HasSubstr(R"(<span class="pill on">Feature on</span>)"));
  EXPECT_THAT(page, HasSubstr(R"(<span class="pill off">Logging off</span>)"));
}

TEST(ThePage, SaysTheConfigurationAndTheCounters) {
  PageContent content = ContentOf({});
  content.status->stored.byThreat = {{"a<b", 2}, {"only here", 1}};
  content.status->reported.byThreat = {{"a<b", 5000}};
  const std::string page = PageDocument(content);
  EXPECT_THAT(page, HasSubstr("Records kept at most</th><td>1,000</td>"));
  EXPECT_THAT(page, HasSubstr("A record is kept for</th><td>1 h 30 min <small>(5,400 s)</small></td>"));
  EXPECT_THAT(page, HasSubstr("Index that renumbers the log</th><td>2,000</td>"));
  EXPECT_THAT(page, HasSubstr("All</strong></th><td>0</td><td>1,234,567</td>"));
  EXPECT_THAT(page, HasSubstr(R"(<th scope="row">a&lt;b</th><td>2</td><td>5,000</td>)"));
  EXPECT_THAT(page, HasSubstr(R"(<th scope="row">only here</th><td>1</td><td>–</td>)"));
}

TEST(ThePage, TakesAConfigurationThatMakesNoSense) {
  PageContent content = ContentOf({});
  content.status->maxRecords = -1234;
  content.status->maxPeriod = seconds(-5);
  const std::string page = PageDocument(content);
  EXPECT_THAT(page, HasSubstr("Records kept at most</th><td>-1,234</td>"));
  EXPECT_THAT(page, HasSubstr("A record is kept for</th><td>-5 s "));
}

TEST(ThePage, HasNoPlaceLeftUnfilled) {
  for (const auto& records : {std::vector<Record>{}, std::vector<Record>{{0, kNow, "http://a.example/", "x"}}}) {
    EXPECT_THAT(PageOf(records), Not(HasSubstr("{{")));
  }
}

TEST(ThePage, ObeysNothingButItsOwnStyleAndScript) {
  const std::string page = PageOf(HostileRecords());
  EXPECT_THAT(page, HasSubstr(R"(<meta http-equiv="Content-Security-Policy" content="default-src 'none';)"
                              "\n  "
                              R"(script-src 'nonce-n0nce'; style-src 'nonce-n0nce'; base-uri 'none'; )"
                              R"(form-action 'none';)"));
  EXPECT_EQ(Count(page, "<script"), 2U);
  EXPECT_EQ(Count(page, "<script nonce=\"n0nce\""), 2U);
  EXPECT_EQ(Count(page, "<style"), 2U);
  EXPECT_EQ(Count(page, "<style nonce=\"n0nce\""), 2U);
}

TEST(ThePage, HasNoLinkButTheOneToItsOwnRecords) {
  const std::string page = PageOf(HostileRecords());
  EXPECT_EQ(Count(page, "href="), 1U);
  EXPECT_EQ(Count(page, "href=\"#records\""), 1U);
  for (const char* fetched : {"<link", "<img", "<iframe", "<object", "<embed", "@import", "url(", "src="}) {
    // Also not as a text: what is shown of one is escaped, or stands in the data.
    const std::string withoutTexts = page.substr(0, page.find("id=\"rows\""));
    EXPECT_THAT(withoutTexts, Not(HasSubstr(fetched)));
  }
}

TEST(ThePage, GivesItsScriptTheRecordsAsTheyCame) {
  const Json::Value data =
      DataOf(PageOf({{7, kNow, "http://A.example/x", "phishing"}, {6, kNow - seconds(60), "y", ""}}));
  ASSERT_EQ(data["records"].size(), 2U);
  const Json::Value& record = data["records"][0];
  EXPECT_EQ(record["index"], 7);
  EXPECT_EQ(record["at"], 1795183205);
  EXPECT_EQ(record["time"], "2026-11-20 15:00:05");
  EXPECT_EQ(record["threat"], "phishing");
  EXPECT_EQ(record["host"], "a.example");
  EXPECT_EQ(record["url"], "http://A.example/x");
  EXPECT_FALSE(record.isMember("size"));
  EXPECT_EQ(data["records"][1]["host"], "");
}

TEST(ThePage, GivesItsScriptThePeriodsUpToNow) {
  const Json::Value periods = DataOf(PageOf({{0, kNow - seconds(125), "u", "t"}}))["periods"];
  EXPECT_EQ(periods["unit"], "minute");
  ASSERT_EQ(periods["list"].size(), 3U);
  EXPECT_EQ(periods["list"][0]["from"], 1795183080);
  EXPECT_EQ(periods["list"][0]["to"], 1795183080 + 59);
  EXPECT_FALSE(periods["list"][0].isMember("round"));
  EXPECT_EQ(periods["list"][2]["label"], "Fri 2026-11-20 15:00 to 15:01");
  EXPECT_EQ(periods["list"][2]["round"], true);
}

TEST(ThePage, GivesItsScriptPeriodsForRecordsOfTheFuture) {
  const Json::Value data = DataOf(PageOf({{1, pyxclient::kEnd, "u", "t"}, {0, pyxclient::kBeginning, "u", "t"}}));
  EXPECT_EQ(data["periods"]["list"].size(), 69U);
  EXPECT_GE(data["periods"]["list"][68]["to"].asInt64(), 2147483647);
}

TEST(ThePage, HasAnEmptyLogToo) {
  const std::string page = PageOf({});
  EXPECT_EQ(DataOf(page)["records"], Json::Value(Json::arrayValue));
  EXPECT_EQ(DataOf(page)["periods"]["list"], Json::Value(Json::arrayValue));
  EXPECT_THAT(RowsOf(page), Not(HasSubstr("<tr")));
  EXPECT_THAT(page, HasSubstr("The log has no records."));
}

TEST(ThePage, ShowsTheNewestHundredWithoutItsScript) {
  std::vector<Record> records;
  for (int index = 999; index >= 0; --index) records.push_back({index, kNow, "http://a.example/", "t"});
  const std::string page = PageOf(records);
  EXPECT_EQ(DataOf(page)["records"].size(), 1000U);
  EXPECT_EQ(Count(RowsOf(page), "<tr "), 100U);
  EXPECT_THAT(RowsOf(page), HasSubstr(">999</td>"));
  EXPECT_THAT(RowsOf(page), Not(HasSubstr(">899</td>")));
  EXPECT_THAT(page, HasSubstr("The newest 100 of 1,000 records; "));
}

TEST(ThePage, ShowsARowWithoutItsScript) {
  EXPECT_THAT(RowsOf(PageOf({{3, kNow, "http://a.example/?a&b", "x<y"}})),
              HasSubstr(R"(<td role="cell" class="index">3</td><td role="cell" class="time">2026-11-20 15:00:05</td>)"
                        R"(<td role="cell" class="threat">x&lt;y</td><td role="cell" class="host">a.example</td>)"
                        R"(<td role="cell" class="url">http://a.example/?a&amp;b</td></tr>)"));
  EXPECT_THAT(RowsOf(PageOf({{3, kNow, "u", "t"}})), HasSubstr(R"(class="host">(none)</td>)"));
  EXPECT_THAT(RowsOf(PageOf({{3, kNow, "u", "  "}})), HasSubstr(R"(class="threat">(blank)</td>)"));
}

TEST(ThePage, SaysWhatOfTheLogIsNotOnIt) {
  PageContent content = ContentOf({{9, kNow, "u", "t"}});
  EXPECT_THAT(PageDocument(content), HasSubstr(R"(<p class="notice"></p>)"));
  content.status->stored.total = 1201;
  content.unreadable = 1;
  const std::string page = PageDocument(content);
  EXPECT_THAT(page,
              HasSubstr("The log has 1,199 older records as well. 1 record is too large to be read and left out."));
}

TEST(ThePage, SaysThatItHasNoStatus) {
  PageContent content = ContentOf({{0, kNow, "u", "t"}});
  content.status.reset();
  const std::string page = PageDocument(content);
  EXPECT_THAT(page, HasSubstr(R"(<p class="notice">The configuration and the counters could not be read. </p>)"));
  EXPECT_THAT(page, HasSubstr("Records kept at most</th><td>?</td>"));
  EXPECT_EQ(DataOf(page)["records"].size(), 1U);
}

TEST(AHostileTextOnThePage, CannotEndTheDataOrBeAnythingButJson) {
  const std::string text = DataText(PageOf(HostileRecords()));
  EXPECT_EQ(text.find_first_of("<>&"), std::string::npos);
  EXPECT_TRUE(std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; }));
  const Json::Value data = DataOf(PageOf(HostileRecords()));
  ASSERT_EQ(data["records"].size(), HostileRecords().size());
  EXPECT_EQ(data["records"][2]["url"], "</script><script>alert(1)</script>");
}

TEST(AHostileTextOnThePage, AddsNoElement) {
  const std::string rows = RowsOf(PageOf(HostileRecords()));
  const std::size_t records = HostileRecords().size();
  EXPECT_EQ(Count(rows, "<tr "), records);
  EXPECT_EQ(Count(rows, "<td "), 5 * records);
  EXPECT_EQ(Count(rows, "<div class=\"fold\""), Count(rows, "<div"));
  EXPECT_EQ(Count(rows, "<"), 2 * (records + 5 * records + Count(rows, "<div")));
}

TEST(AHostileTextOnThePage, IsPrintableWhateverTheLocaleIs) {
  const PageRecord record = PageRecordOf({0, kNow, "a\x1b\u202e\xff\0\u00e9\u05d0\\"s, "\u200b"});
  EXPECT_EQ(record.url.shown, R"(a\x1b\xe2\x80\xae\xff\x00)"
                              "\u00e9\u05d0"
                              R"(\\)");
  EXPECT_EQ(record.threat.shown, R"(\xe2\x80\x8b)");
  EXPECT_EQ(PageRecordOf({0, kNow, "http://m\u00fcnchen\u202e.example", ""}).host.shown,
            "m\u00fcnchen\\xe2\\x80\\xae.example");
}

TEST(AHostileTextOnThePage, NamesNoControlCharacterInTheDocument) {
  const std::string page = PageOf(HostileRecords());
  EXPECT_TRUE(
      std::none_of(page.begin(), page.end(), [](unsigned char c) { return (c < ' ' && c != '\n') || c == 0x7f; }));
  for (const char* invisible : {"\u202e", "\u2066", "\u200b", "\u2028", "\ufeff", "\u009b"}) {
    EXPECT_THAT(page, Not(HasSubstr(invisible)));
  }
}

TEST(AHostileTextOnThePage, IsCutWhereItIsLong) {
  const PageRecord record = PageRecordOf({0, kNow, std::string(1 << 20, 'x'), std::string(300, 'y')});
  EXPECT_EQ(record.url.shown, std::string(2048, 'x'));
  EXPECT_TRUE(record.url.isCut);
  EXPECT_EQ(record.url.size, 1U << 20U);
  EXPECT_EQ(record.threat.shown, std::string(256, 'y'));
  const Json::Value data = DataOf(PageOf({{0, kNow, std::string(1 << 20, 'x'), std::string(300, 'y')}}));
  EXPECT_EQ(data["records"][0]["size"], 1 << 20);
  EXPECT_EQ(data["records"][0]["threat"], std::string(256, 'y') + "…");
  EXPECT_LT(PageOf(HostileRecords()).size(), 2U << 20U);
}

TEST(AHostileTextOnThePage, IsNotCutInsideACharacter) {
  for (std::size_t before = 2044; before <= 2048; ++before) {
    const PageRecord record =
        PageRecordOf({0, kNow, std::string(before, 'x') + "\U0001F600" + std::string(9, 'y'), ""});
    EXPECT_THAT(record.url.shown, Not(HasSubstr("\\x"))) << before;
    EXPECT_EQ(record.url.shown.size(), before == 2044 ? 2048 : before) << before;
  }
  EXPECT_EQ(PageRecordOf({0, kNow, std::string(4000, '\x80'), ""}).url.shown.size(), 4U * 2048U);
}

TEST(AHostileTextOnThePage, IsNoPlaceToFill) {
  EXPECT_EQ(DataOf(PageOf({{0, kNow, "{{nonce}}{{nothing}}", "{{data}}"}}))["records"][0]["url"],
            "{{nonce}}{{nothing}}");
}

TEST(AHostileTextOnThePage, MayBeItsTitle) {
  PageContent content = ContentOf({});
  content.title = "</title><script>\x1b";
  const std::string page = PageDocument(content);
  EXPECT_THAT(page, HasSubstr("<title>&lt;/title&gt;&lt;script&gt;\\x1b · "));
  EXPECT_EQ(Count(page, "<script"), 2U);
}

}  // namespace
}  // namespace zav::pyxctl
