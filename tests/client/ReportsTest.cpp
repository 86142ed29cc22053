#include <thread>

#include "Clients.h"
#include "FakeService.h"

namespace zav::client::test {
namespace {

const std::string kReport = Header(6) + Text("u") + Text("t");

std::optional<Failure> FailureOfReport(const FakeService& service, std::chrono::milliseconds timeout = kLong) {
  return FailureOf([&] { ClientOf(service.path(), timeout).Report("u", "t"); });
}

TEST(AReport, IsRepeatedAfterAnEndThatLeftItUnread) {
  const FakeService service{[](Peer& peer) { peer.AwaitUnread(kReport.size()); }, Answering(kReport, Words({0}))};
  EXPECT_NO_THROW(ClientOf(service.path()).Report("u", "t"));
  EXPECT_EQ(service.connections(), 2);
}

TEST(AReport, IsRepeatedAfterAnEndThatLeftAPartOfItUnread) {
  const FakeService service{[](Peer& peer) {
                              peer.AwaitUnread(kReport.size());
                              peer.Read(kReport.size() - 1);
                            },
                            Answering(kReport, Words({0}))};
  EXPECT_NO_THROW(ClientOf(service.path()).Report("u", "t"));
  EXPECT_EQ(service.connections(), 2);
}

TEST(AReport, IsRepeatedAfterAnEndBeforeItWasSentWhole) {
  const std::string url(4'000'000, 'u');
  const FakeService service{[](Peer& peer) { peer.Read(1000); },
                            Answering(Header(6) + Text(url) + Text("t"), Words({0}))};
  EXPECT_NO_THROW(ClientOf(service.path()).Report(url, "t"));
  EXPECT_EQ(service.connections(), 2);
}

TEST(AReport, IsRepeatedAfterEveryRefusalOfABusyService) {
  // A refusal shows its end before it shows that nothing was read, so that only many of them meet every moment.
  constexpr int kTimes = 50;
  std::vector<Script> scripts;
  for (int i = 0; i < kTimes; ++i) {
    scripts.emplace_back([](Peer& peer) {
      peer.AwaitUnread(kReport.size());
      peer.Shut();
      std::this_thread::yield();
    });
    scripts.push_back(Answering(kReport, Words({0})));
  }
  const FakeService service(scripts);
  for (int i = 0; i < kTimes; ++i) ASSERT_NO_THROW(ClientOf(service.path()).Report("u", "t"));
  EXPECT_EQ(service.connections(), 2 * kTimes);
}

TEST(AReport, HasAnUnknownOutcomeAfterAPlainEnd) {
  const FakeService service{[](Peer& peer) { peer.Read(kReport.size()); }, Answering(kReport, Words({0}))};
  EXPECT_EQ(FailureOfReport(service), Failure::kUnknownOutcome);
  EXPECT_EQ(service.connections(), 1);
}

TEST(AReport, HasAnUnknownOutcomeWhenItStaysUnreadOnAConnectionThatWasOnlyShut) {
  const FakeService service{[](Peer& peer) {
                              peer.AwaitUnread(kReport.size());
                              peer.Shut();
                              peer.AwaitEnd();
                            },
                            Answering(kReport, Words({0}))};
  EXPECT_EQ(FailureOfReport(service, kShort), Failure::kUnknownOutcome);
  EXPECT_EQ(service.connections(), 1);
}

TEST(AReport, HasAnUnknownOutcomeWhenItIsTakenAndNotAnswered) {
  const FakeService service{[](Peer& peer) {
    peer.Read(kReport.size());
    peer.AwaitEnd();
  }};
  EXPECT_EQ(FailureOfReport(service, kShort), Failure::kUnknownOutcome);
}

TEST(AReport, HasAnUnknownOutcomeWhenItsAnswerIsNotFinished) {
  const FakeService service{[](Peer& peer) {
    peer.Read(kReport.size());
    peer.Send(Words({0}).substr(0, 3));
    peer.AwaitEnd();
  }};
  EXPECT_EQ(FailureOfReport(service, kShort), Failure::kUnknownOutcome);
}

TEST(AReportAtLeastOnce, IsSentAgainWhereItsAnswerIsCutOff) {
  const Script cutOff = [](Peer& peer) {
    peer.Read(kReport.size());
    peer.Send(Words({0}).substr(0, 2));
  };
  const FakeService service{cutOff, Refuse, cutOff, Answering(kReport, Words({0}))};
  Client client({.socket = service.path(), .timeout = kLong, .atLeastOnce = true});
  EXPECT_NO_THROW(client.Report("u", "t"));
  EXPECT_EQ(service.connections(), 4);

  const FakeService other{cutOff};
  Client impatient({.socket = other.path(), .timeout = kShort, .atLeastOnce = true});
  EXPECT_EQ(FailureOf([&] { impatient.Report("u", "t"); }), Failure::kUnknownOutcome);
}

TEST(AReset, IsSentOnceWhereItMayHaveBeenTaken) {
  const FakeService service{[](Peer& peer) { peer.Read(Header(19).size()); }};
  EXPECT_EQ(FailureOf([&] { ClientOf(service.path(), kShort).Reset(); }), Failure::kUnknownOutcome);
  EXPECT_EQ(service.connections(), 1);
}

TEST(AReset, IsSentAgainWhereItWasRefused) {
  const FakeService service{Refuse, Refuse, Answering(Header(19), Words({0}))};
  EXPECT_NO_THROW(ClientOf(service.path()).Reset());
}

TEST(AReport, TimesOutWhenItIsNotTaken) {
  const std::string url(4'000'000, 'u');
  const FakeService service{[](Peer& peer) {
    peer.Read(100);
    peer.AwaitHangUp();
  }};
  EXPECT_EQ(FailureOf([&] { ClientOf(service.path(), kShort).Report(url); }), Failure::kTimedOut);
}

TEST(AReport, IsRejectedWithEitherCodeOfTheService) {
  const FakeService service{Answering(kReport, Words({-1})), Answering(kReport, Words({-2}))};
  EXPECT_EQ(FailureOfReport(service), Failure::kRejected);
  EXPECT_EQ(FailureOfReport(service), Failure::kRejected);
}

TEST(AReport, IsMalformedlyAnsweredWithAnyOtherNumber) {
  const FakeService service{Answering(kReport, Words({1})), Answering(kReport, Words({-3}))};
  EXPECT_EQ(FailureOfReport(service), Failure::kMalformed);
  EXPECT_EQ(FailureOfReport(service), Failure::kMalformed);
}

TEST(AReport, IsNotSentWithATextOverTheLimit) {
  const FakeService service{Answering("", "")};
  const std::string text(16'777'217, 'x');
  EXPECT_EQ(FailureOf([&] { ClientOf(service.path()).Report(text); }), Failure::kOutOfRange);
  EXPECT_EQ(FailureOf([&] { ClientOf(service.path()).Report("u", text); }), Failure::kOutOfRange);
  EXPECT_EQ(service.connections(), 0);
}

}  // namespace
}  // namespace zav::client::test
