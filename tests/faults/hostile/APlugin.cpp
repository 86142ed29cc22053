#include "APlugin.h"

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <stdexcept>

#include "Requests.h"
#include "support/LogRecorder.h"
#include "support/ThisProcess.h"
#include "support/WaitUntil.h"

namespace zav::test {

APlugin::APlugin(void (*prepare)()) : threadsOfTheTest(ThreadIds().size()) {
  // The lines would be most of the memory that is measured.
  LogRecorder::Keep(false);
  WriteDefaultPolicy(UsualPolicies());
  prepare();
  Load();
}

APlugin::~APlugin() {
  const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
  const int failed = std::max(failures.load(), HasFailure() ? 1 : 0);
  std::printf("figures: %s.%s: %d tried, %d failures%s\n", test.test_suite_name(), test.name(), tried.load(), failed,
              notes.c_str());
}

void APlugin::Load() {
  plugin = std::make_unique<LoadedPlugin>();
  if (!plugin->provider) throw std::runtime_error("no provider");
}

bool APlugin::Tried(bool passed) {
  ++tried;
  failures += passed ? 0 : 1;
  return passed;
}

Footprint APlugin::AtRest() const {
  const size_t threads = threadsOfTheTest + (Library::IsMapped() ? 1 : 0);
  EXPECT_TRUE(WaitUntil([&] { return ThreadIds().size() == threads; }));
  return Footprint::Now();
}

void APlugin::ExpectNoGrowthSince(const Footprint& before) {
  const Footprint after = ExpectNoGrowth(before);
  std::ostringstream text;
  text << "before: " << before << ", after: " << after;
  Note(text.str());
}

void APluginThatStaysAsItIs::SetUp() {
  ASSERT_EQ(Report("url", "threat"), 0);
  ASSERT_TRUE(AnHonestClientIsServed());
  before = AtRest();
}

void APluginThatStaysAsItIs::TearDown() {
  EXPECT_TRUE(AnHonestClientIsServed());
  ExpectNoGrowthSince(before);
}

}  // namespace zav::test
