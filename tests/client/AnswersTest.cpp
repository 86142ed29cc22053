#include <gmock/gmock.h>

#include "Clients.h"
#include "FakeService.h"

namespace zav::client::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// A service whose every answer is this one, whatever it is asked.
Script Saying(std::string answer) {
  return [answer = std::move(answer)](Peer& peer) {
    peer.AwaitUnread(16);
    peer.Send(answer);
    peer.AwaitEnd();
  };
}

std::optional<Failure> FailureOfLog(const std::string& answer) {
  const FakeService service{Saying(answer)};
  return FailureOf([&] { ReadLog(service.path()); });
}

std::optional<Failure> FailureOfStatus(const std::string& text) {
  const FakeService service{Saying(Text(text))};
  return FailureOf([&] { ClientOf(service.path()).Status(); });
}

std::string RecordJson(std::int32_t timestamp) {
  return R"({"threat":"t","timestamp":)" + std::to_string(timestamp) + R"(,"url":"u"})";
}

std::vector<std::int32_t> IndexesOf(const std::vector<Record>& records) {
  std::vector<std::int32_t> indexes;
  for (const Record& record : records) indexes.push_back(record.index);
  return indexes;
}

/// The indexes that a query gets from a log with the records 9, 10, and 11, stamped 100, 200 and 300.
std::vector<std::int32_t> Indexes(const Query& query) {
  const FakeService service{Saying(
      LogAnswer(R"({"10":)" + RecordJson(200) + R"(,"11":)" + RecordJson(300) + R"(,"9":)" + RecordJson(100) + "}\n"))};
  return IndexesOf(ReadLog(service.path(), query));
}

TEST(ALog, AscendsByTheNumbersOfItsIndexes) {
  EXPECT_THAT(Indexes({}), ElementsAre(9, 10, 11));
}

TEST(ALog, DescendsWhenItIsReversed) {
  EXPECT_THAT(Indexes({.reverse = true}), ElementsAre(11, 10, 9));
}

TEST(ALog, HoldsNothingFromOutsideItsRange) {
  EXPECT_THAT(Indexes({.from = TimeOf(200)}), ElementsAre(10, 11));
  EXPECT_THAT(Indexes({.to = TimeOf(200)}), ElementsAre(9, 10));
}

TEST(ALog, HoldsNothingFromBeforeTheIndexThatItBeginsAt) {
  // The service begins at the oldest record where the index is above the greatest one.
  EXPECT_THAT(Indexes({.startIndex = 10}), ElementsAre(10, 11));
  EXPECT_THAT(Indexes({.startIndex = 12}), IsEmpty());
}

TEST(ALog, OfOneSecondIsSearchedInAllThatCameBefore) {
  // A service that is asked for a range without length searches from the beginning, and counts what it finds there.
  const std::string two = LogAnswer(R"({"1":)" + RecordJson(100) + R"(,"2":)" + RecordJson(200) + "}");
  const FakeService service{Answering(Header(17) + Words({0, 0, 200, 200, 2, -1}), two),
                            Answering(Header(17) + Words({0, 0, 200, 200, 5, 2}),
                                      LogAnswer(R"({"2":)" + RecordJson(200) + R"(,"3":)" + RecordJson(200) +
                                                R"(,"4":)" + RecordJson(200) + "}"))};
  const auto records = ReadLog(service.path(), {.from = TimeOf(200), .to = TimeOf(200), .maxCount = 2});
  EXPECT_THAT(IndexesOf(records), ElementsAre(2, 3));
}

TEST(ALog, IsReadUpToTheGreatestLength) {
  const std::string head = R"({"0":{"threat":"","timestamp":1,"url":")";
  const std::string tail = R"("}})";
  const std::string url(16'777'216 - head.size() - tail.size(), 'u');
  const FakeService service{Saying(LogAnswer(head + url + tail))};
  EXPECT_EQ(ReadLog(service.path()).at(0).url, url);
}

TEST(ALog, KeepsHostileTextsAsTheyAre) {
  const FakeService service{
      Saying(LogAnswer(R"({"0":{"threat":"\u0000\u001b[2J","timestamp":1,"url":"\u202e\ud83d\ude00"}})"))};
  const Record record = ReadLog(service.path()).at(0);
  EXPECT_EQ(record.threat, std::string("\0\x1b[2J", 5));
  EXPECT_EQ(record.url, "\xe2\x80\xae\xf0\x9f\x98\x80");
}

TEST(AQuery, IsOutOfRangeWithANegativeNumberOrAnEndBeforeItsBeginning) {
  const FakeService service{Refuse};
  Client client = ClientOf(service.path());
  for (const Query& query :
       {Query{TimeOf(6), TimeOf(5)}, Query{TimeOf(0), TimeOf(5), -1}, Query{TimeOf(0), TimeOf(5), 0, -2}}) {
    EXPECT_EQ(FailureOf([&] { client.Log(query); }), Failure::kOutOfRange);
  }
  EXPECT_EQ(FailureOf([&] { client.Count(TimeOf(6), TimeOf(5)); }), Failure::kOutOfRange);
  EXPECT_EQ(service.connections(), 0);
}

TEST(AMalformedAnswer, IsAStateWithAnotherCode) {
  const FakeService service{Saying(Words({0, 1301, 1})), Saying(Words({0, 301, 1}))};
  EXPECT_EQ(FailureOf([&] { ClientOf(service.path()).IsEnabled(); }), Failure::kMalformed);
  EXPECT_EQ(FailureOf([&] { ClientOf(service.path()).IsLogging(); }), Failure::kMalformed);
}

TEST(AMalformedAnswer, IsAStateThatIsNeitherOnNorOff) {
  for (const std::int32_t state : {-1, 2}) {
    const FakeService service{Saying(Words({0, 301, state}))};
    EXPECT_EQ(FailureOf([&] { ClientOf(service.path()).IsEnabled(); }), Failure::kMalformed);
  }
}

TEST(AMalformedAnswer, IsCutOff) {
  const std::string whole = LogAnswer("{}");
  for (std::size_t size = 1; size < whole.size(); ++size) {
    const FakeService service{[&whole, size](Peer& peer) {
      peer.Read(40);
      peer.Send(whole.substr(0, size));
    }};
    // Where its text would begin the service ends what would be too large.
    const Failure failure = size == 2 * sizeof(std::int32_t) ? Failure::kTooLarge : Failure::kMalformed;
    EXPECT_EQ(FailureOf([&] { ReadLog(service.path()); }), failure) << size;
  }
}

TEST(AMalformedAnswer, IsCutOffByAnEndThatLeftTheRequestUnread) {
  const FakeService service{[](Peer& peer) {
    peer.AwaitUnread(16);
    peer.Send(Words({0}));
  }};
  EXPECT_EQ(FailureOf([&] { ClientOf(service.path()).IsEnabled(); }), Failure::kMalformed);
  EXPECT_EQ(service.connections(), 1);
}

TEST(AMalformedAnswer, IsALengthOverTheLimit) {
  EXPECT_EQ(FailureOfLog(Words({0, 0, 16'777'217})), Failure::kMalformed);
  EXPECT_EQ(FailureOfLog(Words({0, 0, -1})), Failure::kMalformed);
}

TEST(AMalformedAnswer, IsAResultThatTheProtocolDoesNotHave) {
  const FakeService service{Saying(Words({-2})), Saying(Words({1})), Saying(Words({-2})), Saying(Words({5}))};
  Client client = ClientOf(service.path());
  EXPECT_EQ(FailureOf([&] { client.Count(); }), Failure::kMalformed);
  EXPECT_EQ(FailureOf([&] { client.Reset(); }), Failure::kMalformed);
  EXPECT_EQ(FailureOf([&] { client.Reset(); }), Failure::kMalformed);
  EXPECT_EQ(FailureOf([&] { ReadLog(service.path()); }), Failure::kMalformed);
}

/// A text in place of the log.
struct WrongLog {
  const char* name;
  const char* text;
};

void PrintTo(const WrongLog& log, std::ostream* out) {
  *out << log.name;
}

class AMalformedLog : public testing::TestWithParam<WrongLog> {};

TEST_P(AMalformedLog, IsToldFromALog) {
  EXPECT_EQ(FailureOfLog(LogAnswer(GetParam().text)), Failure::kMalformed);
}

constexpr WrongLog kWrongLogs[] = {
    {"NoText", ""},
    {"NoUnicode", "\xff\xfe"},
    {"AList", "[]"},
    {"ANumber", "7"},
    {"Null", "null"},
    {"HalfAnObject", "{"},
    {"TwoObjects", "{} {}"},
    {"AnObjectAndMore", "{} x"},
    {"AComment", "/**/{}"},
    {"AListAsRecord", R"({"0":[]})"},
    {"ATextAsRecord", R"({"0":"u"})"},
    {"AnEmptyRecord", R"({"0":{}})"},
    {"NoTime", R"({"0":{"threat":"t","url":"u"}})"},
    {"NoUrl", R"({"0":{"threat":"t","timestamp":1}})"},
    {"NoThreat", R"({"0":{"timestamp":1,"url":"u"}})"},
    {"ANumberAsThreat", R"({"0":{"threat":7,"timestamp":1,"url":"u"}})"},
    {"NullAsUrl", R"({"0":{"threat":"t","timestamp":1,"url":null}})"},
    {"ATextAsTime", R"({"0":{"threat":"t","timestamp":"1","url":"u"}})"},
    {"AFractionAsTime", R"({"0":{"threat":"t","timestamp":1.5,"url":"u"}})"},
    {"ATimeOutOfRange", R"({"0":{"threat":"t","timestamp":2147483648,"url":"u"}})"},
    {"AnEmptyIndex", R"({"":{"threat":"t","timestamp":1,"url":"u"}})"},
    {"AWordAsIndex", R"({"x":{"threat":"t","timestamp":1,"url":"u"}})"},
    {"AnIndexAndMore", R"({"1x":{"threat":"t","timestamp":1,"url":"u"}})"},
    {"AnIndexAfterABlank", R"({" 1":{"threat":"t","timestamp":1,"url":"u"}})"},
    {"ANegativeIndex", R"({"-1":{"threat":"t","timestamp":1,"url":"u"}})"},
    {"AnIndexWithZerosBefore", R"({"007":{"threat":"t","timestamp":1,"url":"u"}})"},
    {"AnIndexOutOfRange", R"({"2147483648":{"threat":"t","timestamp":1,"url":"u"}})"},
    {"OneIndexTwice", R"({"0":{"threat":"t","timestamp":1,"url":"u"},"0":{"threat":"t","timestamp":1,"url":"u"}})"},
};

INSTANTIATE_TEST_SUITE_P(Being, AMalformedLog, testing::ValuesIn(kWrongLogs),
                         [](const auto& wrong) { return wrong.param.name; });

TEST(AMalformedAnswer, IsAnAbyssOfBrackets) {
  EXPECT_EQ(FailureOfLog(LogAnswer(R"({"0":)" + std::string(1'000'000, '['))), Failure::kMalformed);
  EXPECT_EQ(FailureOfLog(LogAnswer([] {
              std::string objects;
              for (int i = 0; i < 100'000; ++i) objects += R"({"0":)";
              return objects;
            }())),
            Failure::kMalformed);
}

TEST(AMalformedAnswer, IsAStatusOfAnotherShape) {
  for (const char* text :
       {"", "[]", "x", R"({"config":7})", R"({"state":[]})", R"({"in_storage":"x"})", R"({"config":{"max_index":"7"}})",
        R"({"state":{"count":4294967296}})", R"({"in_storage":{"count":{}}})"}) {
    EXPECT_EQ(FailureOfStatus(text), Failure::kMalformed) << text;
  }
}

TEST(AStatus, OfAnEmptyLogHasNoRecords) {
  const FakeService service{Saying(Text(R"({"config":{"max_index":5},"state":{"count":2}})"))};
  const pyxclient::Status status = ClientOf(service.path()).Status();
  EXPECT_EQ(status.stored.total, 0);
  EXPECT_TRUE(status.stored.byThreat.empty());
  EXPECT_EQ(status.reported.total, 2);
}

TEST(AStatus, LeavesOutWhatIsNoCounter) {
  const FakeService service{Saying(Text(R"({"config":{"comment":"x"},"state":{"count":2,"note":"x"}})"))};
  EXPECT_TRUE(ClientOf(service.path()).Status().reported.byThreat.empty());
}

TEST(AnUnwillingService, RejectsACount) {
  const FakeService service{Saying(Words({-1}))};
  EXPECT_EQ(FailureOf([&] { ClientOf(service.path()).Count(); }), Failure::kRejected);
}

TEST(AnUnwillingService, RejectsAReset) {
  const FakeService service{Saying(Words({-1}))};
  EXPECT_EQ(FailureOf([&] { ClientOf(service.path()).Reset(); }), Failure::kRejected);
}

}  // namespace
}  // namespace zav::client::test
