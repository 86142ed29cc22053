#include <gmock/gmock.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <optional>
#include <string>

#include "PYXManager.h"
#include "policy/Manager.h"
#include "pyx/State.h"
#include "support/Device.h"
#include "support/LogRecorder.h"
#include "support/SystemCalls.h"
#include "support/ThisProcess.h"
#include "support/WaitUntil.h"

namespace zav::test {
namespace {

/// One of the objects that a process has one of.
struct Maker {
  const char* name;
  const void* (*instance)();
};

template <class Object>
const void* InstanceOf() {
  return &Object::Instance();
}

class AnInstance : public testing::TestWithParam<Maker> {};
INSTANTIATE_TEST_SUITE_P(Of, AnInstance,
                         testing::Values(Maker{"Manager", InstanceOf<policy::Manager>},
                                         Maker{"State", InstanceOf<pyx::State>},
                                         Maker{"PYXManager", InstanceOf<plugin::PYXManager>}),
                         [](const auto& each) { return each.param.name; });

TEST_P(AnInstance, IsTheSameForAThreadThatComesWhileAnotherMakesIt) {
  MakeStorageDirectory();
  WriteFile(kDefaultPolicy, R"({"PYXPlugin":)" + UsualPolicies() + "}");
  // Whoever makes it comes to the default policy, and is held there.
  std::promise<void> arrived;
  std::promise<void> released;
  const CallHook hook(Call::kStat, [&](const CallArguments& call) -> std::optional<long> {
    if (kDefaultPolicy == static_cast<const char*>(call.data)) {
      arrived.set_value();
      released.get_future().wait();
    }
    return std::nullopt;
  });
  auto first = std::async(std::launch::async, GetParam().instance);
  EXPECT_EQ(arrived.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);

  std::atomic<int> thread{0};
  auto second = std::async(std::launch::async, [&] {
    thread = gettid();
    return GetParam().instance();
  });
  EXPECT_TRUE(WaitUntil([&] { return thread != 0 && IsAsleep(thread); }));
  released.set_value();

  EXPECT_EQ(first.get(), second.get());
  EXPECT_EQ(LogRecorder::Count("Default policy successfully read"), 1);
}

}  // namespace
}  // namespace zav::test
