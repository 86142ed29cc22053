#include <filesystem>

#include "FakeService.h"
#include "doctor/DeviceFiles.h"
#include "support/Surroundings.h"

namespace zav::client::test {
namespace {

using pyxctl::doctor::ExamineService;
using testing::ElementsAre;
using testing::IsEmpty;

Script Switch(int method, int code, int state) {
  return Answering(Header(method), Words({0, code, state}));
}

class AService : public testing::Test {
 protected:
  Findings Examined(const FakeService& service) {
    device.paths.socket = device.options.socket = service.path();
    return device.Examined(ExamineService);
  }

  DeviceFiles device;
};

TEST_F(AService, IsSoundWhenBothSwitchesAreOn) {
  const FakeService service{Switch(4, 301, 1), Switch(5, 1301, 1)};
  EXPECT_THAT(Examined(service), IsEmpty());
}

TEST_F(AService, HasTheFeatureOff) {
  const FakeService service{Switch(4, 301, 0), Switch(5, 1301, 1)};
  EXPECT_THAT(Examined(service), ElementsAre(IsNote("the feature is off")));
}

TEST_F(AService, HasLoggingOff) {
  const FakeService service{Switch(4, 301, 1), Switch(5, 1301, 0)};
  EXPECT_THAT(Examined(service),
              ElementsAre(IsNote("logging is off, and the next start of the daemon empties the log")));
}

TEST_F(AService, IsNotThere) {
  EXPECT_THAT(device.Examined(ExamineService), ElementsAre(IsProblem("it does not answer: no service at ")));
}

TEST_F(AService, IsBusy) {
  const FakeService service{Refuse};
  device.options.timeout = std::chrono::milliseconds(300);
  EXPECT_THAT(Examined(service), ElementsAre(IsProblem("it does not answer: the service is busy")));
}

TEST_F(AService, IsSilent) {
  const FakeService service{[](Peer& peer) { peer.AwaitHangUp(); }};
  device.options.timeout = std::chrono::milliseconds(300);
  const Findings findings = Examined(service);
  ASSERT_THAT(findings, ElementsAre(IsProblem("it does not answer: ")));
  EXPECT_THAT(findings.front().advice, testing::HasSubstr("--timeout"));
}

TEST_F(AService, SpeaksAnotherLanguage) {
  const FakeService service{Answering(Header(4), "HTTP/1.1 400 Bad Request\r\n")};
  const Findings findings = Examined(service);
  ASSERT_THAT(findings, ElementsAre(IsProblem("it does not answer: ")));
  EXPECT_THAT(findings.front().advice, testing::HasSubstr("whose socket it is"));
}

TEST_F(AService, MayNotBeAsked) {
  const FakeService service{Refuse};
  std::filesystem::permissions(service.path(), std::filesystem::perms::none);
  const zav::test::WithoutPrivilege ordinary;
  EXPECT_THAT(Examined(service), ElementsAre(IsWarning("not examined: this user may not look at " + service.path())));
}

}  // namespace
}  // namespace zav::client::test
