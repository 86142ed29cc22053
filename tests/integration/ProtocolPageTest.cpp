#include <gmock/gmock.h>

#include <algorithm>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "Library.h"
#include "support/Device.h"
#include "support/RawClient.h"
#include "support/WaitUntil.h"

namespace zav::test {
namespace {

/// One request of the page and its answer.
struct Example {
  /// What the client sends, a call for each line.
  std::vector<std::string> sent;
  /// The answer as hexadecimal bytes; ".." is any byte.
  std::vector<std::string> answer;
};

std::vector<std::string> Words(const std::string& line) {
  std::istringstream stream(line);
  return {std::istream_iterator<std::string>(stream), {}};
}

std::string Bytes(const std::string& line) {
  std::string bytes;
  for (const std::string& word : Words(line)) bytes += static_cast<char>(std::stoi(word, nullptr, 16));
  return bytes;
}

std::string Hexadecimal(const std::string& bytes) {
  std::string text;
  for (const char byte : bytes) {
    char digits[4];
    std::snprintf(digits, sizeof(digits), "%02x ", static_cast<unsigned char>(byte));
    text += digits;
  }
  return text;
}

/// The blocks of the page that hold bytes, in order.
std::vector<Example> ExamplesOf(const std::string& page) {
  std::vector<Example> examples;
  bool inBlock = false;
  std::istringstream stream(page);
  for (std::string line; std::getline(stream, line);) {
    if (line.starts_with("```")) {
      inBlock = !inBlock;
      if (inBlock) examples.emplace_back();
    } else if (inBlock && line.starts_with("> ")) {
      examples.back().sent.push_back(Bytes(line.substr(2)));
    } else if (inBlock && line.starts_with("< ")) {
      for (std::string& word : Words(line.substr(2))) examples.back().answer.push_back(std::move(word));
    }
  }
  return examples;
}

/// All that comes until the end of the connection.
std::string Exchange(const Example& example) {
  std::string answer;
  RawClient client;
  for (const std::string& bytes : example.sent) client.Send(bytes.data(), bytes.size());
  while (const auto byte = client.Receive(1)) answer += *byte;
  return answer;
}

bool Agrees(const std::string& answer, const std::vector<std::string>& expected) {
  const std::vector<std::string> bytes = Words(Hexadecimal(answer));
  return std::equal(
      bytes.begin(), bytes.end(), expected.begin(), expected.end(),
      [](const std::string& byte, const std::string& pattern) { return pattern == ".." || byte == pattern; });
}

TEST(TheProtocolPage, ShowsWhatTravels) {
  MakeStorageDirectory();
  WriteDefaultPolicy(UsualPolicies());
  const MemoryStorage statuses;
  const LoadedPlugin plugin;
  const std::vector<Example> examples = ExamplesOf(ReadFile(ZAV_PROTOCOL_PAGE));
  ASSERT_EQ(examples.size(), 11U);
  for (const Example& example : examples) {
    ASSERT_FALSE(example.sent.empty());
    SCOPED_TRACE(Hexadecimal(example.sent[0]));
    std::string answer;
    // On a machine that is busy the connection before may still be at its end: that is no answer, and nothing was done.
    WaitUntil([&] { return Agrees(answer = Exchange(example), example.answer) || !answer.empty(); });
    EXPECT_TRUE(Agrees(answer, example.answer)) << Hexadecimal(answer);
  }
}

}  // namespace
}  // namespace zav::test
