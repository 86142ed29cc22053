#include "support/Campaign.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace zav::test {
namespace {

constexpr unsigned kUsualSeed = 1;

unsigned NumberFromEnvironment(const char* name, unsigned otherwise) {
  const char* const text = std::getenv(name);
  return text != nullptr && *text != '\0' ? static_cast<unsigned>(std::stoul(text)) : otherwise;
}

int LongLength() {
  return static_cast<int>(NumberFromEnvironment("ZAV_CAMPAIGN_LENGTH", 0));
}

}  // namespace

int CampaignLength(int shortForm, int divisor) {
  return IsLongCampaign() ? std::max(1, LongLength() / divisor) : shortForm;
}

bool IsLongCampaign() {
  return LongLength() > 0;
}

std::mt19937 CampaignRandom() {
  const unsigned seed = NumberFromEnvironment("ZAV_CAMPAIGN_SEED", kUsualSeed);
  std::printf("seed %u\n", seed);
  return std::mt19937(seed);
}

unsigned Below(std::mt19937& random, unsigned bound) {
  return static_cast<unsigned>(random() % bound);
}

}  // namespace zav::test
