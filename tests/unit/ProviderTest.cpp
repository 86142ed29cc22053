#include <dpm/AbstractDPluginProvider.h>
#include <dpm/DPluginPolicy.h>
#include <dpm/PolicyStorage.h>
#include <klay/Exception.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <type_traits>

#include "PYXManager.h"
#include "support/Device.h"
#include "support/LogRecorder.h"
#include "support/RawClient.h"
#include "support/SystemCalls.h"
#include "support/VirtualSlots.h"
#include "support/WaitUntil.h"
#include "zav-pyx-plugin.h"

namespace zav::test {
namespace {

using plugin::PYXManager;
using testing::ElementsAre;

const std::string kName = "zav-pyx-plugin";

testing::Matcher<LogEntry> Line(int priority, const std::string& colour, const std::string& function,
                                const std::string& format, const std::string& text) {
  return DpmLine(priority, function, format, colour + "DPM: " + text + "\033[0m");
}

/// A line without arguments.
testing::Matcher<LogEntry> Info(const std::string& function, const std::string& text) {
  return Line(kInfo, "\033[36m", function, text, text);
}

testing::Matcher<LogEntry> Error(const std::string& function, const std::string& format, const std::string& text) {
  return Line(kError, "\033[31m", function, format, text);
}

testing::Matcher<LogEntry> Called(int status) {
  return Line(kInfo, "\033[36m", "setStatus", "called : %d;", "called : " + std::to_string(status) + ";");
}

testing::Matcher<LogEntry> Apply(int status) {
  return Line(kInfo, "\033[36m", "apply", "### zav-pyx-plugin apply(%d) ###",
              "### zav-pyx-plugin apply(" + std::to_string(status) + ") ###");
}

const testing::Matcher<LogEntry> kStarting = Info("apply", "### starting zav-pyx-plugin ###");
const testing::Matcher<LogEntry> kAlreadyStarted = Info("apply", "### zav-pyx-plugin already started ###");
const testing::Matcher<LogEntry> kStopping = Info("apply", "### stopping zav-pyx-plugin ###");
const testing::Matcher<LogEntry> kAlreadyStopped = Info("apply", "### zav-pyx-plugin already stopped ###");
const testing::Matcher<LogEntry> kAnotherStatus = Info("apply", "### another status ###");
const testing::Matcher<LogEntry> kFactoryCalled = Info("DPluginFactory", "called");
const testing::Matcher<LogEntry> kPolicyMade = Info("ZavPYXPluginEnable", "### zav-pyx-plugin Constructor() ###");
const testing::Matcher<LogEntry> kInitialized = Info("dpm_zav_pyx_plugin", "### dpm_zav_pyx_plugin initiailize ###");
const testing::Matcher<LogEntry> kCallbackSet = Info("dpm_zav_pyx_plugin", "### set dpm_zav_pyx_plugin callback ###");
const testing::Matcher<LogEntry> kDeinitialized =
    Info("~dpm_zav_pyx_plugin", "### dpm_zav_pyx_plugin deinitialize ###");

testing::Matcher<LogEntry> CannotStart(const std::string& reason) {
  return Error("apply", "can't start pyx plugin: %s", "can't start pyx plugin: " + reason);
}

/// The lines for the daemon alone, in their order.
std::vector<LogEntry> DpmLines() {
  std::vector<LogEntry> lines = LogRecorder::Lines();
  std::erase_if(lines, [](const LogEntry& line) { return line.tag != "DPM"; });
  return lines;
}

/// A storage that does something of its own before each call.
class FaultyStorage : public MemoryStorage {
 public:
  int store(const std::string& name, int status) override {
    ++stores;
    if (fault) fault();
    return MemoryStorage::store(name, status);
  }
  int read(const std::string& name) override {
    if (fault) fault();
    return MemoryStorage::read(name);
  }

  std::function<void()> fault;
  int stores = 0;
};

bool LockIsFree() {
  if (!PolicyStorage::dbLock.try_lock()) return false;
  PolicyStorage::dbLock.unlock();
  return true;
}

bool IsRunning() {
  return PYXManager::Instance().IsRunning();
}

class AProvider : public testing::Test {
 protected:
  AProvider() {
    WriteDefaultPolicy(UsualPolicies());
    provider = std::make_unique<dpm_zav_pyx_plugin>();
    LogRecorder::Clear();
  }
  ~AProvider() override {
    provider.reset();
    EXPECT_FALSE(storage.calledWithoutLock);
  }

  FaultyStorage storage;
  std::unique_ptr<AbstractDPluginProvider> provider;
};

class AProviderThatIsOn : public AProvider {
 protected:
  AProviderThatIsOn() {
    EXPECT_EQ(provider->setStatus(1), 0);
    LogRecorder::Clear();
    storage.stores = 0;
  }
};

// The object

TEST(TheProvider, SaysThatItIsMadeAndThatItEnds) {
  const MemoryStorage storage;
  { const dpm_zav_pyx_plugin provider; }
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(kPolicyMade, kInitialized, kCallbackSet, kDeinitialized));
  EXPECT_TRUE(storage.statuses.empty());
}

TEST(TheProvider, IsThePlatformsProvider) {
  EXPECT_TRUE((std::is_base_of_v<AbstractDPluginProvider, dpm_zav_pyx_plugin>));
  EXPECT_TRUE((std::is_base_of_v<DPluginPolicy, ZavPYXPluginEnable>));
  EXPECT_FALSE((std::is_base_of_v<DPluginPolicy, dpm_zav_pyx_plugin>));
  EXPECT_TRUE(std::has_virtual_destructor_v<AbstractDPluginProvider>);
  EXPECT_FALSE(std::has_virtual_destructor_v<DPluginPolicy>);
}

TEST_F(AProvider, HasItsOperationsInTheSlotsThatTheDaemonCalls) {
  AbstractDPluginProvider* object = provider.get();
  EXPECT_EQ((Slot<int (*)(AbstractDPluginProvider*, int)>(object, 2)(object, 1)), 0);
  EXPECT_TRUE(IsRunning());
  storage.statuses[kName] = 42;
  EXPECT_EQ((Slot<int (*)(AbstractDPluginProvider*)>(object, 3)(object)), 42);
  Slot<void (*)(AbstractDPluginProvider*, int)>(object, 4)(object, 0);
  EXPECT_FALSE(IsRunning());
  LogRecorder::Clear();
  // The second of the two places that a destructor has frees the object as well.
  Slot<void (*)(AbstractDPluginProvider*)>(object, 1)(provider.release());
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(kDeinitialized));
}

TEST_F(AProvider, HasAPolicyWithOneVirtualOperation) {
  ZavPYXPluginEnable policy;
  const int another = 7;
  LogRecorder::Clear();
  EXPECT_FALSE((Slot<bool (*)(DPluginPolicy*, const int&)>(&policy, 0)(&policy, another)));
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Apply(7), kAnotherStatus));
}

TEST_F(AProviderThatIsOn, LeavesTheServiceRunningAtItsEnd) {
  provider.reset();
  EXPECT_TRUE(IsRunning());
  EXPECT_NO_THROW(RawClient());
}

// setStatus

TEST_F(AProvider, StartsTheServiceAndRecordsItWhenItIsSetTo1) {
  EXPECT_EQ(provider->setStatus(1), 0);
  EXPECT_THAT(DpmLines(), ElementsAre(Called(1), Apply(1), kStarting));
  EXPECT_TRUE(IsRunning());
  EXPECT_EQ(storage.statuses, (std::map<std::string, int>{{kName, 1}}));
}

TEST_F(AProviderThatIsOn, StopsTheServiceAndRecordsItWhenItIsSetTo0) {
  EXPECT_EQ(provider->setStatus(0), 0);
  EXPECT_THAT(DpmLines(), ElementsAre(Called(0), Apply(0), kStopping));
  EXPECT_FALSE(IsRunning());
  EXPECT_EQ(storage.statuses, (std::map<std::string, int>{{kName, 0}}));
}

TEST_F(AProviderThatIsOn, SetTo1SaysAlreadyStartedAndRecords1Again) {
  EXPECT_EQ(provider->setStatus(1), 0);
  EXPECT_THAT(DpmLines(), ElementsAre(Called(1), Apply(1), kAlreadyStarted));
  EXPECT_TRUE(IsRunning());
  EXPECT_EQ(storage.stores, 1);
  EXPECT_EQ(storage.statuses, (std::map<std::string, int>{{kName, 1}}));
}

TEST_F(AProvider, SetTo0WhileStoppedSaysAlreadyStoppedAndRecords0) {
  EXPECT_EQ(provider->setStatus(0), 0);
  EXPECT_THAT(DpmLines(), ElementsAre(Called(0), Apply(0), kAlreadyStopped));
  EXPECT_FALSE(IsRunning());
  EXPECT_EQ(storage.stores, 1);
  EXPECT_EQ(storage.statuses, (std::map<std::string, int>{{kName, 0}}));
}

TEST_F(AProviderThatIsOn, SetTo2SaysAnotherStatusAndLeavesTheStorageAlone) {
  EXPECT_EQ(provider->setStatus(2), -1);
  EXPECT_THAT(DpmLines(), ElementsAre(Called(2), Apply(2), kAnotherStatus));
  EXPECT_EQ(storage.stores, 0);
  EXPECT_TRUE(IsRunning());
}

TEST_F(AProvider, IsSetToNothingElseThan0And1) {
  for (const int status : {-1, 2, 100}) {
    LogRecorder::Clear();
    EXPECT_EQ(provider->setStatus(status), -1);
    EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Called(status), Apply(status), kAnotherStatus));
  }
  EXPECT_EQ(storage.stores, 0);
}

TEST_F(AProvider, KeepsTheServiceAsItIsWhenItCannotBeRecorded) {
  storage.storeResult = 5;
  EXPECT_EQ(provider->setStatus(1), -1);
  EXPECT_TRUE(IsRunning());
  EXPECT_EQ(provider->setStatus(0), -1);
  EXPECT_FALSE(IsRunning());
  EXPECT_TRUE(storage.statuses.empty());
}

TEST_F(AProvider, LogsThePlatformsExceptionAndFreesTheLock) {
  storage.fault = [] { throw klay::Exception("disk on fire"); };
  EXPECT_EQ(provider->setStatus(0), -1);
  EXPECT_THAT(DpmLines(), ElementsAre(Called(0), Apply(0), kAlreadyStopped, Error("setStatus", "%s", "disk on fire")));
  EXPECT_TRUE(LockIsFree());
}

TEST_F(AProvider, PassesAnyOtherExceptionToItsCallerAndFreesTheLock) {
  storage.fault = [] { throw std::runtime_error("not the platform's"); };
  EXPECT_THROW(provider->setStatus(0), std::runtime_error);
  EXPECT_TRUE(LockIsFree());
}

// getStatus

TEST_F(AProvider, GivesTheRecordedStatusUnchanged) {
  for (const int status : {1, 0, -7, 12345}) {
    LogRecorder::Clear();
    storage.statuses[kName] = status;
    EXPECT_EQ(provider->getStatus(), status);
    EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Info("getStatus", "called;")));
  }
}

TEST_F(AProvider, PassesEveryExceptionOfAReadToItsCallerAndFreesTheLock) {
  storage.fault = [] { throw klay::Exception("disk on fire"); };
  EXPECT_THROW(provider->getStatus(), klay::Exception);
  EXPECT_TRUE(LockIsFree());
}

// applyStatus

TEST_F(AProvider, AppliesAStatusWithoutRecordingIt) {
  const auto called = Info("applyStatus", "called;");
  storage.statuses[kName] = 0;
  provider->applyStatus(1);
  EXPECT_THAT(DpmLines(), ElementsAre(called, Apply(1), kStarting));
  EXPECT_TRUE(IsRunning());

  LogRecorder::Clear();
  provider->applyStatus(1);
  EXPECT_THAT(DpmLines(), ElementsAre(called, Apply(1), kAlreadyStarted));
  // What runs and what is recorded are two things now.
  EXPECT_EQ(provider->getStatus(), 0);

  LogRecorder::Clear();
  provider->applyStatus(0);
  EXPECT_THAT(DpmLines(), ElementsAre(called, Apply(0), kStopping));
  EXPECT_FALSE(IsRunning());

  LogRecorder::Clear();
  provider->applyStatus(0);
  EXPECT_THAT(DpmLines(), ElementsAre(called, Apply(0), kAlreadyStopped));
  EXPECT_EQ(storage.stores, 0);
}

TEST_F(AProvider, AppliesNoOtherStatus) {
  provider->applyStatus(5);
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Info("applyStatus", "called;"), Apply(5), kAnotherStatus));
  EXPECT_EQ(storage.stores, 0);
  EXPECT_FALSE(IsRunning());
}

// What keeps it from starting and stopping

TEST_F(AProvider, CannotStartWithoutAThread) {
  {
    const CallHook hook(Call::kPthreadCreate, Fail(EAGAIN, 1));
    EXPECT_EQ(provider->setStatus(1), -1);
  }
  EXPECT_THAT(DpmLines(), ElementsAre(Called(1), Apply(1), kStarting, CannotStart(std::strerror(EAGAIN))));
  EXPECT_EQ(storage.stores, 0);
  EXPECT_FALSE(IsRunning());
  EXPECT_EQ(provider->setStatus(1), 0);
}

class AProviderWithoutPolicies : public testing::Test {
 protected:
  AProviderWithoutPolicies() {
    MakeStorageDirectory();
    LogRecorder::Clear();
  }

  MemoryStorage storage;
  dpm_zav_pyx_plugin provider;
};

TEST_F(AProviderWithoutPolicies, CannotStart) {
  LogRecorder::Clear();
  EXPECT_EQ(provider.setStatus(1), -1);
  EXPECT_THAT(DpmLines(), ElementsAre(Called(1), Apply(1), CannotStart("Default policy is empty")));
  EXPECT_TRUE(storage.statuses.empty());
}

TEST_F(AProviderWithoutPolicies, CannotStop) {
  LogRecorder::Clear();
  EXPECT_EQ(provider.setStatus(0), -1);
  EXPECT_THAT(DpmLines(), ElementsAre(Called(0), Apply(0),
                                      Error("apply", "can't stop pyx plugin: %s",
                                            "can't stop pyx plugin: Default policy is empty")));
  EXPECT_TRUE(storage.statuses.empty());
}

// The factory

class TheFactory : public testing::Test {
 protected:
  TheFactory() { WriteDefaultPolicy(UsualPolicies()); }

  FaultyStorage storage;
};

TEST_F(TheFactory, MakesAProviderThatIsOn) {
  const std::unique_ptr<AbstractDPluginProvider> provider(DPluginFactory());
  ASSERT_TRUE(provider);
  EXPECT_THAT(DpmLines(),
              ElementsAre(kFactoryCalled, kPolicyMade, kInitialized, kCallbackSet, Called(1), Apply(1), kStarting));
  EXPECT_EQ(storage.statuses, (std::map<std::string, int>{{kName, 1}}));
  EXPECT_TRUE(IsRunning());
  EXPECT_FALSE(storage.calledWithoutLock);
}

TEST_F(TheFactory, GivesNothingWhenTheStatusCannotBeRecordedAndLeavesTheServiceRunning) {
  storage.storeResult = 1;
  EXPECT_EQ(DPluginFactory(), nullptr);
  EXPECT_THAT(DpmLines(), ElementsAre(kFactoryCalled, kPolicyMade, kInitialized, kCallbackSet, Called(1), Apply(1),
                                      kStarting, kDeinitialized));
  EXPECT_TRUE(IsRunning());
  EXPECT_NO_THROW(RawClient());
}

TEST_F(TheFactory, GivesNothingWhenTheServiceCannotBeStarted) {
  const CallHook hook(Call::kPthreadCreate, Fail(EAGAIN, 1));
  EXPECT_EQ(DPluginFactory(), nullptr);
  EXPECT_THAT(DpmLines(), ElementsAre(kFactoryCalled, kPolicyMade, kInitialized, kCallbackSet, Called(1), Apply(1),
                                      kStarting, CannotStart(std::strerror(EAGAIN)), kDeinitialized));
  EXPECT_EQ(storage.stores, 0);
}

TEST_F(TheFactory, LetsNoExceptionOutWhateverTheStorageThrows) {
  const std::vector<std::function<void()>> faults{[] { throw klay::Exception("the platform's"); },
                                                  [] { throw std::runtime_error("the library's"); }, [] { throw 42; }};
  for (size_t fault = 0; fault < faults.size(); ++fault) {
    SCOPED_TRACE(fault);
    LogRecorder::Clear();
    storage.fault = faults[fault];
    EXPECT_NO_THROW(EXPECT_EQ(DPluginFactory(), nullptr));
    EXPECT_THAT(DpmLines().back(), kDeinitialized);
    EXPECT_TRUE(LockIsFree());
  }
}

}  // namespace
}  // namespace zav::test
