#include <gtest/gtest.h>

#include <limits>

#include "Campaign.h"

namespace zav::test {
namespace {

constexpr long kForGood = std::numeric_limits<long>::max();

constexpr Kind kOneCall{"one call fails", false, 1, 1};
constexpr Kind kCallsForGood{"calls fail for good", false, kForGood, 4};
constexpr Kind kOneAllocation{"one allocation fails", true, 1, 4};
constexpr Kind kFourAllocations{"four allocations in a row fail", true, 4, 7};
constexpr Kind kAllocationsForGood{"allocations fail for good", true, kForGood, 17};

std::string NameOf(const testing::TestParamInfo<Scenario>& each) {
  return each.param.name;
}

class APlugin : public testing::TestWithParam<Scenario> {};
INSTANTIATE_TEST_SUITE_P(Faulty, APlugin, testing::ValuesIn(kScenarios), NameOf);

TEST_P(APlugin, OutlivesOneFailedCallWherever) {
  Campaign(GetParam(), kOneCall).Run();
}

TEST_P(APlugin, OutlivesCallsThatFailForGood) {
  Campaign(GetParam(), kCallsForGood).Run();
}

#ifdef ZAV_FAULTY_MEMORY
TEST_P(APlugin, OutlivesOneFailedAllocationWherever) {
  Campaign(GetParam(), kOneAllocation).Run();
}

TEST_P(APlugin, OutlivesFourFailedAllocationsInARow) {
  Campaign(GetParam(), kFourAllocations).Run();
}

TEST_P(APlugin, OutlivesAllocationsThatFailForGood) {
  Campaign(GetParam(), kAllocationsForGood).Run();
}
#endif

}  // namespace
}  // namespace zav::test
