// What every verb does where the service is gone, busy or silent, or the output cannot be written.

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>

#include "FakeService.h"
#include "GrowingLog.h"
#include "Process.h"

namespace zav::client::test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

using Words = std::vector<std::string>;

class EveryVerb : public testing::TestWithParam<Words> {
 protected:
  static Outcome Run(const std::string& socket, const std::string& timeout, const Surroundings& surroundings = {}) {
    Words arguments = GetParam();
    arguments.insert(arguments.end(), {"--socket", socket, "--timeout", timeout});
    return RunPyxctl(arguments, surroundings);
  }
  /// One line, and nothing for a program to take for a result.
  static void ExpectOneLine(const Outcome& outcome, const std::string& reason) {
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.out, "");
    EXPECT_THAT(outcome.err, StartsWith("pyxctl: "));
    EXPECT_THAT(outcome.err, HasSubstr(reason));
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
  }
};

TEST_P(EveryVerb, EndsWith3WhereTheServiceIsGone) {
  const TemporaryDirectory directory;
  ExpectOneLine(Run(directory.path() / "none", "0.2"), "no service at ");
}

TEST_P(EveryVerb, EndsWith3WhereTheServiceStaysBusy) {
  const FakeService service{Refuse};
  ExpectOneLine(Run(service.path(), "0.3"), "the service is busy and refused every connection; ");
}

TEST_P(EveryVerb, EndsWith3WhereTheServiceIsSilent) {
  const FakeService service{[](Peer& peer) { peer.AwaitHangUp(); }};
  const auto begin = std::chrono::steady_clock::now();
  const Outcome outcome = Run(service.path(), "0.3");
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(300));
  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.out, "");
}

INSTANTIATE_TEST_SUITE_P(Of, EveryVerb,
                         testing::Values(Words{"state"}, Words{"logging"}, Words{"report", "u"}, Words{"status"},
                                         Words{"log"}, Words{"top"}, Words{"count"}, Words{"export"},
                                         Words{"report-page", "-"}, Words{"ping"}, Words{"reset", "-y"}),
                         [](const auto& verb) {
                           return verb.param.front() == "report-page" ? "ReportPage" : verb.param.front();
                         });

/// Not of `count`: four bytes are a number to it, whatever follows them.
TEST(AnotherService, IsNotTakenForTheRightOne) {
  for (const Words& verb : std::vector<Words>{
           {"state"}, {"logging"}, {"report", "u"}, {"status"}, {"log"}, {"top"}, {"ping"}, {"reset", "-y"}}) {
    const FakeService service{[](Peer& peer) {
      peer.AwaitUnread(1);
      peer.Send("HTTP/1.1 400 Bad Request\r\n\r\n");
    }};
    Words arguments = verb;
    arguments.insert(arguments.end(), {"--socket", service.path(), "--timeout", "20"});
    const Outcome outcome = RunPyxctl(arguments);
    EXPECT_EQ(outcome.status, 3) << verb.front();
    EXPECT_EQ(outcome.out, "") << verb.front();
    EXPECT_THAT(outcome.err, HasSubstr("check that the socket is the plug-in's")) << verb.front();
  }
}

}  // namespace
}  // namespace zav::client::test
