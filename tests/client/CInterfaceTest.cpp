#include <pyxclient/pyxclient.h>

#include <cstring>
#include <limits>
#include <set>
#include <string>

#include "Clients.h"
#include "FakeService.h"

namespace zav::client::test {
namespace {

constexpr std::int32_t kMaxInt = std::numeric_limits<std::int32_t>::max();

class TheCInterface : public testing::Test {
 protected:
  TheCInterface() { pyx_client_set_timeout(client, std::chrono::milliseconds(kLong).count()); }
  ~TheCInterface() override { pyx_client_free(client); }

  void Use(const FakeService& service) { ASSERT_EQ(pyx_client_set_socket(client, service.path().c_str()), PYX_OK); }

  pyx_client* client = pyx_client_new();
};

TEST_F(TheCInterface, SaysItsResultsInWordsOfTheirOwn) {
  std::set<std::string> texts;
  for (pyx_result result = PYX_TOO_LARGE; result <= PYX_CHANGED; ++result) texts.insert(pyx_result_text(result));
  EXPECT_EQ(texts.size(), static_cast<std::size_t>(PYX_CHANGED - PYX_TOO_LARGE + 1));
  EXPECT_FALSE(texts.contains("unknown result"));
  EXPECT_STREQ(pyx_result_text(PYX_CHANGED + 1), "unknown result");
  EXPECT_STREQ(pyx_result_text(PYX_TOO_LARGE - 1), "unknown result");
}

TEST_F(TheCInterface, RefusesNullWhereSomethingHasToBe) {
  std::int32_t number = 0;
  const pyx_query query = PYX_QUERY_ALL;
  pyx_status* status = nullptr;
  pyx_log* log = nullptr;
  const pyx_record* record = nullptr;
  char cursor[PYX_CURSOR_SIZE];
  for (const pyx_result result : {pyx_client_set_socket(nullptr, "x"),    pyx_client_set_socket(client, nullptr),
                                  pyx_client_set_timeout(nullptr, 1),     pyx_client_set_at_least_once(nullptr, 1),
                                  pyx_is_enabled(nullptr, &number),       pyx_is_enabled(client, nullptr),
                                  pyx_is_logging(nullptr, &number),       pyx_is_logging(client, nullptr),
                                  pyx_report(nullptr, "u", 1, "", 0),     pyx_report(client, nullptr, 1, "", 0),
                                  pyx_report(client, "u", 1, nullptr, 1), pyx_count(nullptr, 0, 1, &number),
                                  pyx_count(client, 0, 1, nullptr),       pyx_reset(nullptr),
                                  pyx_get_status(nullptr, &status),       pyx_get_status(client, nullptr),
                                  pyx_log_open(nullptr, &query, &log),    pyx_log_open(client, nullptr, &log),
                                  pyx_log_open(client, &query, nullptr),  pyx_log_resume(nullptr, "", &log),
                                  pyx_log_resume(client, nullptr, &log),  pyx_log_resume(client, "", nullptr),
                                  pyx_log_next(nullptr, &record),         pyx_log_cursor(nullptr, cursor)}) {
    EXPECT_EQ(result, PYX_OUT_OF_RANGE);
  }
  EXPECT_STREQ(pyx_client_message(nullptr), "");
  pyx_client_free(nullptr);
  pyx_status_free(nullptr);
  pyx_log_close(nullptr);
}

TEST_F(TheCInterface, TellsInWordsWhatFailedLast) {
  EXPECT_STREQ(pyx_client_message(client), "");
  EXPECT_EQ(pyx_client_set_socket(client, ""), PYX_OUT_OF_RANGE);
  EXPECT_STREQ(pyx_client_message(client), "a socket's path has 1 to 107 bytes, this has 0");
  EXPECT_EQ(pyx_client_set_socket(client, "/nowhere"), PYX_OK);
  EXPECT_EQ(pyx_reset(client), PYX_NO_SERVICE);
  EXPECT_STREQ(pyx_client_message(client), "no service at /nowhere (No such file or directory)");
}

TEST_F(TheCInterface, KeepsItsSettingsWhereNewOnesAreOutOfRange) {
  const FakeService service{Answering(Header(4), Words({0, 301, 1}))};
  Use(service);
  EXPECT_EQ(pyx_client_set_socket(client, std::string(108, 'x').c_str()), PYX_OUT_OF_RANGE);
  EXPECT_EQ(pyx_client_set_timeout(client, 0), PYX_OUT_OF_RANGE);
  EXPECT_EQ(pyx_client_set_timeout(client, PYX_LONGEST_TIMEOUT + 1), PYX_OUT_OF_RANGE);
  std::int32_t enabled = 7;
  EXPECT_EQ(pyx_is_enabled(client, &enabled), PYX_OK);
  EXPECT_EQ(enabled, 1);
}

TEST_F(TheCInterface, RefusesQueriesOutOfRange) {
  pyx_log* log = nullptr;
  for (const pyx_query& query : {pyx_query{-1, 5, 0, -1, 0}, pyx_query{0, -1, 0, -1, 0}, pyx_query{6, 5, 0, -1, 0},
                                 pyx_query{0, 5, -1, -1, 0}, pyx_query{0, 5, 0, -2, 0}}) {
    EXPECT_EQ(pyx_log_open(client, &query, &log), PYX_OUT_OF_RANGE);
    EXPECT_EQ(log, nullptr);
  }
  std::int32_t count = 7;
  EXPECT_EQ(pyx_count(client, -1, 5, &count), PYX_OUT_OF_RANGE);
  EXPECT_EQ(pyx_count(client, 6, 5, &count), PYX_OUT_OF_RANGE);
  EXPECT_EQ(count, 7);
}

TEST_F(TheCInterface, GivesRecordsWithAnyBytes) {
  const FakeService service{Answering(Header(17) + Words({0, 0, 0, kMaxInt, 64, -1}),
                                      LogAnswer(R"({"3":{"threat":"a\u0000b","timestamp":5,"url":""}})"))};
  Use(service);
  const pyx_query query = PYX_QUERY_ALL;
  pyx_log* log = nullptr;
  const pyx_record* record = nullptr;
  ASSERT_EQ(pyx_log_open(client, &query, &log), PYX_OK);
  ASSERT_EQ(pyx_log_next(log, &record), PYX_OK);
  EXPECT_EQ(record->index, 3);
  EXPECT_EQ(record->timestamp, 5);
  EXPECT_EQ(std::string(record->threat, record->threat_size), std::string("a\0b", 3));
  EXPECT_STREQ(record->url, "");
  EXPECT_EQ(record->url_size, 0U);
  EXPECT_EQ(pyx_log_next(log, &record), PYX_END);
  EXPECT_EQ(record, nullptr);
  pyx_log_close(log);
}

TEST_F(TheCInterface, GivesTheStatusOfEachThreat) {
  const FakeService service{
      Answering(Header(16), Text(R"({"config":{"max_file_size":10,"max_index":2000,"max_logging_period":3600},)"
                                 R"("in_storage":{"count":2,"b":1,"a\u0000":1},"state":{"count":7,"b":7}})"))};
  Use(service);
  pyx_status* status = nullptr;
  ASSERT_EQ(pyx_get_status(client, &status), PYX_OK);
  const pyx_settings settings = pyx_status_settings(status);
  EXPECT_EQ(settings.max_index, 2000);
  EXPECT_EQ(settings.max_records, 10);
  EXPECT_EQ(settings.max_period, 3600);
  EXPECT_EQ(pyx_status_total(status, PYX_STORED), 2);
  EXPECT_EQ(pyx_status_total(status, PYX_REPORTED), 7);
  ASSERT_EQ(pyx_status_threats(status, PYX_STORED), 2U);
  ASSERT_EQ(pyx_status_threats(status, PYX_REPORTED), 1U);
  const char* name = nullptr;
  std::size_t size = 0;
  std::int32_t count = 0;
  EXPECT_EQ(pyx_status_threat(status, PYX_STORED, 0, &name, &size, &count), PYX_OK);
  EXPECT_EQ(std::string(name, size), std::string("a\0", 2));
  EXPECT_EQ(count, 1);
  EXPECT_EQ(pyx_status_threat(status, PYX_STORED, 2, &name, &size, &count), PYX_OUT_OF_RANGE);
  EXPECT_EQ(pyx_status_threat(nullptr, PYX_STORED, 0, &name, &size, &count), PYX_OUT_OF_RANGE);
  pyx_status_free(status);
}

TEST_F(TheCInterface, LeavesNothingBehindWhereAStatusCannotBeHad) {
  auto* status = reinterpret_cast<pyx_status*>(this);
  EXPECT_EQ(pyx_client_set_socket(client, "/nowhere"), PYX_OK);
  EXPECT_EQ(pyx_get_status(client, &status), PYX_NO_SERVICE);
  EXPECT_EQ(status, nullptr);
}

// At least once

std::string Report() {
  return Header(6) + Text("u") + Text("t");
}

void TakeAndSayNothing(Peer& peer) {
  peer.Read(Report().size());
}

TEST_F(TheCInterface, RepeatsAReportOfUnknownOutcomeOnlyWhenAskedTo) {
  const FakeService service{TakeAndSayNothing, TakeAndSayNothing, TakeAndSayNothing, Answering(Report(), Words({0}))};
  Use(service);
  EXPECT_EQ(pyx_report(client, "u", 1, "t", 1), PYX_UNKNOWN_OUTCOME);
  EXPECT_EQ(service.connections(), 1);
  EXPECT_EQ(pyx_client_set_at_least_once(client, 1), PYX_OK);
  EXPECT_EQ(pyx_report(client, "u", 1, "t", 1), PYX_OK);
  EXPECT_EQ(service.connections(), 4);
}

TEST_F(TheCInterface, CallsAReportUnknownThatMayHaveBeenTakenOnce) {
  const FakeService service{TakeAndSayNothing, Refuse};
  Use(service);
  pyx_client_set_at_least_once(client, 1);
  pyx_client_set_timeout(client, kShort.count());
  EXPECT_EQ(pyx_report(client, "u", 1, "t", 1), PYX_UNKNOWN_OUTCOME);
  EXPECT_GT(service.connections(), 1);
}

TEST_F(TheCInterface, CallsAReportUnknownWhereTheServiceIsGoneAfterIt) {
  std::string path;
  const FakeService service{[&path](Peer& peer) {
    peer.Read(Report().size());
    std::filesystem::remove(path);
  }};
  path = service.path();
  Use(service);
  pyx_client_set_at_least_once(client, 1);
  EXPECT_EQ(pyx_report(client, "u", 1, "t", 1), PYX_UNKNOWN_OUTCOME);
}

}  // namespace
}  // namespace zav::client::test
