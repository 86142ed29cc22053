#include "Completions.h"

#include <gmock/gmock.h>

#include "Process.h"

namespace zav::client::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

std::vector<std::string> WordsFor(const std::vector<std::string>& words) {
  std::vector<std::string> completed;
  for (const auto& completion : pyxctl::CompletionsOf(words)) completed.push_back(completion.word);
  return completed;
}

TEST(ACompletion, OfTheFirstWordIsAVerb) {
  EXPECT_THAT(WordsFor({"lo"}), ElementsAre("logging", "log"));
  EXPECT_THAT(WordsFor({""}), Contains("follow"));
  EXPECT_THAT(WordsFor({""}), Not(Contains("complete"))) << "that is not for people";
  EXPECT_THAT(WordsFor({"x"}), IsEmpty());
}

TEST(ACompletion, BehindAnOptionIsAVerbToo) {
  EXPECT_THAT(WordsFor({"--timeout", "log", "sta"}), ElementsAre("state", "status"));
  EXPECT_THAT(WordsFor({"--no-pager", "sta"}), ElementsAre("state", "status"));
}

TEST(ACompletion, OfAnOptionIsOfTheVerbOrOfAll) {
  EXPECT_THAT(WordsFor({"log", "--s"}), testing::UnorderedElementsAre("--since", "--start", "--socket"));
  EXPECT_THAT(WordsFor({"count", "--start"}), IsEmpty());
  EXPECT_THAT(WordsFor({"-o", "csv", "export", "--cur"}), ElementsAre("--cursor-file"));
}

TEST(ACompletion, OfAFormIsOneOfFour) {
  EXPECT_THAT(WordsFor({"log", "-o", ""}), ElementsAre("csv", "human", "json", "ndjson"));
  EXPECT_THAT(WordsFor({"--output", "h"}), ElementsAre("human"));
  EXPECT_THAT(WordsFor({"log", "--output=n"}), ElementsAre("--output=ndjson"));
  EXPECT_THAT(WordsFor({"log", "--nonsense=n"}), IsEmpty());
}

TEST(ACompletion, IsNotKnownForATextOrAFile) {
  EXPECT_THAT(WordsFor({"report", ""}), IsEmpty());
  EXPECT_THAT(WordsFor({"report", "--", "-"}), IsEmpty());
  EXPECT_THAT(WordsFor({"--socket", ""}), IsEmpty());
  EXPECT_THAT(WordsFor({}), IsEmpty());
}

TEST(ACompletion, IsGivenToAShellWithItsMeaning) {
  EXPECT_EQ(RunPyxctl({"complete", "--", "cou"}).out, "count\tCount the records of the log\n");
  EXPECT_THAT(RunPyxctl({"complete", "--", "log", ""}).out, IsEmpty());
  EXPECT_EQ(RunPyxctl({"complete", "--", "-o", "c"}).out, "csv\t\n");
}

}  // namespace
}  // namespace zav::client::test
