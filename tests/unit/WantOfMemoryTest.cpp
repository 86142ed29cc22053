#include <gmock/gmock.h>

#include <new>
#include <string>
#include <vector>

#include "common/GlobalPaths.h"
#include "policy/Policy.h"
#include "support/LogRecorder.h"
#include "support/Surroundings.h"

namespace zav::test {
namespace {

constexpr size_t kMebibyte = 1024 * 1024;
/// Too much for what is left, whatever memory was freed by then.
constexpr size_t kMuch = 64 * kMebibyte;

TEST(AWantOfMemory, CostsALogLineItsMessageAndNothingElse) {
  const std::string path(kMuch, 'x');
  {
    const MemoryLimit limit(kMebibyte);
    EXPECT_FALSE(common::makeDir(path));
  }
  EXPECT_EQ(LogRecorder::Count("(no memory for the message)"), 1);
}

TEST(AWantOfMemory, IsNotTakenForDamageOfTheTextThatIsParsed) {
  const std::string text = R"({"url":")" + std::string(kMuch, 'x') + R"("})";
  std::vector<bool> parsed;
  // There is room for so many copies of the text, and a half.
  for (size_t copies = 0; copies < 6; ++copies) {
    SCOPED_TRACE(copies);
    const MemoryLimit limit(copies * kMuch + kMuch / 2);
    try {
      const policy::Policy policy = policy::ParseJsonString(text);
      EXPECT_FALSE(policy.isNull());
      parsed.push_back(true);
    } catch (const std::bad_alloc&) {
      parsed.push_back(false);
    }
    EXPECT_THAT(LogRecorder::Lines(), testing::IsEmpty());
  }
  EXPECT_FALSE(parsed.front());
  EXPECT_TRUE(parsed.back());
}

}  // namespace
}  // namespace zav::test
