#pragma once

#include <random>

/// How much a campaign tries and where its randomness begins: little, and always the same, in the ordinary run of the
/// tests; as much as the environment says in a long form.
namespace zav::test {

/// @param shortForm  what the ordinary run takes; what is counted is the campaign's.
/// @param divisor    the long form's length, ZAV_CAMPAIGN_LENGTH, is divided by it.
/// @return the length, at least 1.
int CampaignLength(int shortForm, int divisor = 1);

/// Whether the environment gives a length.
bool IsLongCampaign();

/// The ordinary run of a campaign tries one of so many cases: under a sanitizer each takes many times as long.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr int kCasesForOne = 16;
/// Of cases that differ more from each other.
inline constexpr int kOddCasesForOne = 4;
#else
inline constexpr int kCasesForOne = 1;
inline constexpr int kOddCasesForOne = 1;
#endif

/// A generator that begins at ZAV_CAMPAIGN_SEED, else at 1. Prints the seed.
std::mt19937 CampaignRandom();

/// A whole number from 0 to `bound` - 1.
unsigned Below(std::mt19937& random, unsigned bound);

}  // namespace zav::test
