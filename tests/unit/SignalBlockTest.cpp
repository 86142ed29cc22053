#include <gtest/gtest.h>
#include <pthread.h>

#include <csignal>
#include <set>
#include <thread>

#include "common/SignalBlock.h"

namespace zav::test {
namespace {

std::set<int> Blocked() {
  sigset_t mask;
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  std::set<int> blocked;
  for (int signal = 1; signal < NSIG; ++signal) {
    if (sigismember(&mask, signal) == 1) blocked.insert(signal);
  }
  return blocked;
}

/// Those that a host handles on threads of its own.
const std::set<int> kOfTheHost{SIGHUP,  SIGINT,  SIGQUIT, SIGPIPE, SIGALRM, SIGTERM, SIGUSR1,
                               SIGUSR2, SIGCHLD, SIGCONT, SIGTSTP, SIGIO,   SIGPROF, SIGWINCH};
/// Those that an instruction of the thread itself raises: blocked, they would end the process unseen by its handlers.
const std::set<int> kOfTheThread{SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT};

TEST(ASignalBlock, KeepsTheSignalsOfTheProcessFromItsThreadWhileItLives) {
  const std::set<int> before = Blocked();
  {
    const common::SignalBlock block;
    const std::set<int> blocked = Blocked();
    for (const int signal : kOfTheHost) EXPECT_TRUE(blocked.contains(signal)) << signal;
    EXPECT_TRUE(blocked.contains(SIGRTMIN));
    EXPECT_TRUE(blocked.contains(SIGRTMAX));
    for (const int signal : kOfTheThread) EXPECT_FALSE(blocked.contains(signal)) << signal;
  }
  EXPECT_EQ(Blocked(), before);
}

TEST(ASignalBlock, GivesBackWhatWasBlockedBefore) {
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGUSR1);
  sigaddset(&mask, SIGSEGV);
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  const std::set<int> before = Blocked();
  { const common::SignalBlock block; }
  EXPECT_EQ(Blocked(), before);
  EXPECT_TRUE(before.contains(SIGUSR1));
}

TEST(ASignalBlock, IsInheritedByAThreadThatIsStartedMeanwhile) {
  std::set<int> blocked;
  std::thread thread;
  {
    const common::SignalBlock block;
    thread = std::thread([&] { blocked = Blocked(); });
  }
  thread.join();
  for (const int signal : kOfTheHost) EXPECT_TRUE(blocked.contains(signal)) << signal;
  EXPECT_FALSE(Blocked().contains(SIGTERM));
}

}  // namespace
}  // namespace zav::test
