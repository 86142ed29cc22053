#include <gmock/gmock.h>

#include <filesystem>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "common/FileHelper.h"
#include "common/GlobalPaths.h"
#include "policy/Policy.h"
#include "pyx/ThreatLog.h"
#include "support/Device.h"
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

TEST(AWantOfMemory, FailsTheCopyOfAFileAndLeavesWhatIsThere) {
  const std::string directory = "/tmp/copies";
  std::filesystem::create_directory(directory);
  WriteFile(directory + "/src", "new");
  WriteFile(directory + "/dst", "old");
  common::FileHelper helper;
  std::vector<std::unique_ptr<char[]>> taken;
  taken.reserve(4096);
  int result = 0;
  {
    const MemoryLimit limit(kMebibyte);
    // Small pieces are left, the chunk for the content is not.
    while (char* piece = new (std::nothrow) char[32'768]) taken.emplace_back(piece);
    result = helper.replaceFile(directory + "/src", directory + "/dst");
  }
  EXPECT_EQ(result, -1);
  EXPECT_EQ(ReadFile(directory + "/dst"), "old");
  EXPECT_FALSE(FileExists(directory + "/dst.new"));
  std::filesystem::remove_all(directory);
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

TEST(AWantOfMemory, LeavesTheThreatLogAsItWas) {
  const policy::Policy stored = policy::ParseJsonString(
      R"({"1":{"url":"u","threat":"T","timestamp":1},"2":{"url":")" + std::string(kMebibyte, 'x') +
      R"(","threat":"T","timestamp":2},"config":{"max_index":9},"state":{"count":2}})");
  const std::string url(kMuch, 'u');
  std::vector<bool> added;
  // There is room for so many copies of the url, and a half.
  for (size_t copies = 0; copies < 9; ++copies) {
    SCOPED_TRACE(copies);
    pyx::ThreatLog log(stored);
    policy::Policy counters;
    counters.SetIntValue("count", 3);
    try {
      const MemoryLimit limit(copies * kMuch + kMuch / 2);
      log.Add(1, url, "another", 3, std::move(counters));
      added.push_back(true);
    } catch (const std::exception&) {
      added.push_back(false);
      EXPECT_EQ(log.Text(), stored.AsString());
      EXPECT_EQ(log.Counters().GetIntValue("count"), 2);
      EXPECT_EQ(log.GetRecords().size(), 2U);
      EXPECT_EQ(log.GetThreats().at("T"), 2);
      EXPECT_FALSE(log.Keep([](const auto& record) { return record.timestamp < 3; }));
    }
  }
  EXPECT_FALSE(added.front());
  EXPECT_TRUE(added.back());
}

}  // namespace
}  // namespace zav::test
