#include "ipc/service/WakeUp.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <memory>
#include <thread>

#include "support/Surroundings.h"
#include "support/ThisProcess.h"

namespace zav::test {
namespace {

using ipc::WakeUp;

bool IsReadable(const WakeUp& wakeUp, int milliseconds = 0) {
  pollfd readable{wakeUp.descriptor(), POLLIN, 0};
  return poll(&readable, 1, milliseconds) == 1;
}

TEST(AWakeUp, IsReadableFromTheFirstCallUntilItIsTakenBack) {
  const WakeUp wakeUp;
  EXPECT_FALSE(IsReadable(wakeUp));
  wakeUp.send();
  wakeUp.send();
  EXPECT_TRUE(IsReadable(wakeUp));
  EXPECT_TRUE(IsReadable(wakeUp));
  wakeUp.clear();
  EXPECT_FALSE(IsReadable(wakeUp));
}

TEST(AWakeUp, CanBeTakenBackWhenNothingWasSent) {
  const WakeUp wakeUp;
  wakeUp.clear();
  wakeUp.send();
  EXPECT_TRUE(IsReadable(wakeUp));
}

TEST(AWakeUp, EndsTheWaitOfAnotherThread) {
  const WakeUp wakeUp;
  bool woken = false;
  std::thread waiting([&] { woken = IsReadable(wakeUp, 20000); });
  wakeUp.send();
  waiting.join();
  EXPECT_TRUE(woken);
}

TEST(AWakeUp, IsClosedOnExecAndAtItsEnd) {
  auto wakeUp = std::make_unique<WakeUp>();
  const int descriptor = wakeUp->descriptor();
  EXPECT_TRUE(IsCloseOnExec(descriptor));
  wakeUp.reset();
  EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
}

TEST(AWakeUp, WithoutADescriptorWakesNobodyAndHarmsNobody) {
  // Lifted before the test ends: the sanitizers need descriptors of their own for their checks.
  const DescriptorLimit none(0);
  const WakeUp wakeUp;
  EXPECT_EQ(wakeUp.descriptor(), -1);
  wakeUp.send();
  wakeUp.clear();
}

}  // namespace
}  // namespace zav::test
