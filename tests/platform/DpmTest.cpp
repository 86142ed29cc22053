// The plug-in interface as the binaries on both sides of it see it.

#include <dpm/AbstractDPluginProvider.h>
#include <dpm/DPluginPolicy.h>
#include <dpm/PolicyStorage.h>
#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <type_traits>

#include "support/VirtualSlots.h"

namespace zav::test {
namespace {

/// Each operation tells which it was.
struct Provider : AbstractDPluginProvider {
  explicit Provider(bool* end) : ended(end) {}
  ~Provider() override { *ended = true; }
  int setStatus(int status) override { return 100 + status; }
  int getStatus() override { return 200; }
  void applyStatus(int status) override { applied = status; }
  std::string executeCommand(const std::string& command, const std::string& data) override { return command + data; }

  bool* ended;
  int applied = 0;
};

TEST(TheProvidersInterface, HasItsOperationsInTheirOrderAfterTheTwoDestructors) {
  bool ended = false;
  Provider provider(&ended);
  AbstractDPluginProvider* base = &provider;
  EXPECT_EQ(Slot<int (*)(AbstractDPluginProvider*, int)>(base, 2)(base, 5), 105);
  EXPECT_EQ(Slot<int (*)(AbstractDPluginProvider*)>(base, 3)(base), 200);
  Slot<void (*)(AbstractDPluginProvider*, int)>(base, 4)(base, 7);
  EXPECT_EQ(provider.applied, 7);
  using Execute = std::string (*)(AbstractDPluginProvider*, const std::string&, const std::string&);
  EXPECT_EQ(Slot<Execute>(base, 5)(base, "command ", "data"), "command data");
}

TEST(TheProvidersInterface, IsAbstractAndEndsTheWholeObject) {
  EXPECT_TRUE(std::is_abstract_v<AbstractDPluginProvider>);
  bool ended = false;
  std::unique_ptr<AbstractDPluginProvider>(new Provider(&ended)).reset();
  EXPECT_TRUE(ended);
}

struct EnablePolicy final : DPluginPolicy {
  using DPluginPolicy::DPluginPolicy;
  bool apply(const int& status) override { return status == 5; }
  const std::string& itsName() const { return name; }
};

struct PlainPolicy final : DPluginPolicy {
  using DPluginPolicy::DPluginPolicy;
};

TEST(APolicyOfThePlatform, HoldsItsNameAndNothingElse) {
  EnablePolicy policy("zav-pyx-plugin");
  EXPECT_EQ(policy.itsName(), "zav-pyx-plugin");
  EXPECT_EQ(sizeof(DPluginPolicy), sizeof(void*) + sizeof(std::string));
}

TEST(APolicyOfThePlatform, HasApplyInItsFirstSlotAndNoVirtualDestructor) {
  EXPECT_FALSE(std::has_virtual_destructor_v<DPluginPolicy>);
  EnablePolicy policy("name");
  DPluginPolicy* base = &policy;
  const auto apply = Slot<bool (*)(DPluginPolicy*, const int&)>(base, 0);
  EXPECT_TRUE(apply(base, 5));
  EXPECT_FALSE(apply(base, 6));
}

TEST(APolicyOfThePlatform, AppliesEveryStatusAsItIs) {
  PlainPolicy policy("name");
  for (const int status : {0, 1, -1, 77}) EXPECT_TRUE(policy.apply(status)) << status;
}

struct Storage : PolicyStorageBackend {
  int store(const std::string& name, int status) override { return static_cast<int>(name.size()) + status; }
  int read(const std::string& name) override { return -static_cast<int>(name.size()); }
};

TEST(ThePolicyStorage, HasStoreAndThenReadAfterTheTwoDestructors) {
  EXPECT_TRUE(std::has_virtual_destructor_v<PolicyStorageBackend>);
  Storage storage;
  PolicyStorageBackend* base = &storage;
  EXPECT_EQ(Slot<int (*)(PolicyStorageBackend*, const std::string&, int)>(base, 2)(base, "four", 10), 14);
  EXPECT_EQ(Slot<int (*)(PolicyStorageBackend*, const std::string&)>(base, 3)(base, "four"), -4);
}

TEST(ThePolicyStorage, HasNoBackendUntilTheHostSetsOne) {
  EXPECT_EQ(PolicyStorage::backend, nullptr);
  Storage storage;
  PolicyStorage::backend = &storage;
  EXPECT_EQ(PolicyStorage::backend->store("x", 1), 2);
  PolicyStorage::backend = nullptr;
}

TEST(ThePolicyStorage, HasOneLockForAll) {
  const std::unique_lock held(PolicyStorage::dbLock);
  bool taken = true;
  std::thread([&] { taken = PolicyStorage::dbLock.try_lock(); }).join();
  EXPECT_FALSE(taken);
}

}  // namespace
}  // namespace zav::test
