#include "ipc/service/ServiceToken.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "support/WaitUntil.h"

namespace zav::test {
namespace {

using ipc::serviceBusy;
using ipc::serviceCondition;
using ipc::serviceMutex;
using ipc::ServiceToken;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

bool IsFree(ServiceToken& token) {
  if (!token.try_lock()) return false;
  token.unlock();
  return true;
}

TEST(TheServiceToken, IsTakenOnce) {
  ServiceToken token;
  EXPECT_TRUE(token.try_lock());
  EXPECT_FALSE(token.try_lock());
  token.unlock();
  EXPECT_TRUE(token.try_lock());
}

TEST(TheServiceToken, IsGivenBackByAnotherThread) {
  ServiceToken token;
  token.lock();
  std::thread([&] { token.unlock(); }).join();
  EXPECT_TRUE(IsFree(token));
}

TEST(TheServiceToken, IsWaitedForByLock) {
  ServiceToken token;
  token.lock();
  auto second = std::async(std::launch::async, [&] { token.lock(); });
  EXPECT_EQ(second.wait_for(milliseconds(50)), std::future_status::timeout);
  token.unlock();
  second.get();
  EXPECT_FALSE(IsFree(token));
}

TEST(TheServiceToken, IsWaitedForUntilADeadline) {
  ServiceToken token;
  token.lock();
  const auto deadline = steady_clock::now() + milliseconds(20);
  EXPECT_FALSE(token.try_lock_until(deadline));
  EXPECT_GE(steady_clock::now(), deadline);

  auto second = std::async(std::launch::async,
                           [&] { return token.try_lock_until(steady_clock::now() + std::chrono::seconds(20)); });
  token.unlock();
  EXPECT_TRUE(second.get());
  EXPECT_FALSE(IsFree(token));
}

TEST(TheServiceToken, StaysFreeWhenItIsGivenBackTwice) {
  ServiceToken token;
  token.unlock();
  token.unlock();
  EXPECT_TRUE(token.try_lock());
  EXPECT_FALSE(token.try_lock());
}

TEST(TheHandOver, StartsFree) {
  EXPECT_FALSE(serviceBusy);
  EXPECT_TRUE(IsFree(serviceMutex));
}

TEST(TheHandOver, WakesWhoWaitsForTheConditionWhenItEnds) {
  serviceMutex.lock();
  serviceBusy = true;
  auto waiting = std::async(std::launch::async, [] {
    std::unique_lock guard(serviceMutex.inner());
    return serviceCondition.wait_for(guard, std::chrono::seconds(20), [] { return !serviceBusy; });
  });
  // The other thread may come to its wait before or after: neither may miss the end.
  ipc::ReleaseService();
  EXPECT_TRUE(waiting.get());
  EXPECT_TRUE(IsFree(serviceMutex));
}

TEST(TheHandOver, WakesWhoWaitsForTheTokenWhenItEnds) {
  serviceMutex.lock();
  auto waiting = std::async(std::launch::async,
                            [] { return serviceMutex.try_lock_until(steady_clock::now() + std::chrono::seconds(20)); });
  ipc::ReleaseService();
  EXPECT_TRUE(waiting.get());
}

TEST(TheHandOver, IsOverInOneStep) {
  constexpr int kTurns = 5000;
  std::thread connections([] {
    for (int done = 0; done < kTurns; ++done) {
      while (!serviceBusy) std::this_thread::yield();
      ipc::ReleaseService();
    }
  });
  int refused = 0;
  serviceMutex.lock();
  for (int done = 0; done < kTurns; ++done) {
    serviceBusy = true;
    // A tight look at first, to meet the moment; a busy machine needs the processor, though.
    for (int looks = 0; serviceBusy; ++looks) {
      if (looks > 1000) std::this_thread::yield();
    }
    // Whoever sees the flag cleared finds the token free.
    if (serviceMutex.try_lock()) continue;
    ++refused;
    serviceMutex.lock();
  }
  connections.join();
  EXPECT_EQ(refused, 0);
}

TEST(TheHandOver, IsOverInOneStepAlsoForWhoWaitsForTheToken) {
  constexpr int kTurns = 5000;
  std::atomic<bool> taken{false};
  std::thread connections([&] {
    for (int done = 0; done < kTurns; ++done) {
      while (!taken.exchange(false)) std::this_thread::yield();
      ipc::ReleaseService();
    }
  });
  int busy = 0;
  serviceMutex.lock();
  for (int done = 0; done < kTurns; ++done) {
    serviceBusy = true;
    taken = true;
    for (int looks = 0; !serviceMutex.try_lock(); ++looks) {
      if (looks > 1000) std::this_thread::yield();
    }
    // Whoever finds the token free sees the flag cleared.
    if (serviceBusy) ++busy;
  }
  connections.join();
  EXPECT_EQ(busy, 0);
}

}  // namespace
}  // namespace zav::test
