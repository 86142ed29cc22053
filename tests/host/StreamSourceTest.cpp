#include "StreamSource.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <vector>

namespace host {
namespace {

using testing::ElementsAre;

class AStreamSource : public testing::Test {
 protected:
  AStreamSource() {
    EXPECT_EQ(pipe(ends.data()), 0);
    source = std::make_unique<StreamSource>(ends[0], kMaxLine);
  }

  ~AStreamSource() override {
    Finish();
    close(ends[0]);
  }

  void Give(const std::string& text) {
    ASSERT_EQ(write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    source->Read();
  }

  void Finish() {
    if (ends[1] != -1) close(ends[1]);
    ends[1] = -1;
  }

  std::vector<std::string> Lines() {
    std::vector<std::string> lines;
    while (source->HasNext()) lines.push_back(source->Next());
    return lines;
  }

  static constexpr size_t kMaxLine = 10;
  std::array<int, 2> ends{};
  std::unique_ptr<StreamSource> source;
};

TEST_F(AStreamSource, CutsWhatItReadIntoLines) {
  Give("one\n\ntwo\nthr");
  EXPECT_THAT(Lines(), ElementsAre("one", "", "two"));
  Give("ee\n");
  EXPECT_THAT(Lines(), ElementsAre("three"));
}

TEST_F(AStreamSource, TakesWhatStandsAfterTheLastLineEndAsALine) {
  Give("one\ntwo");
  EXPECT_THAT(Lines(), ElementsAre("one"));
  Finish();
  source->Read();
  EXPECT_THAT(Lines(), ElementsAre("two"));
  EXPECT_EQ(source->descriptor(), -1);
}

TEST_F(AStreamSource, HasNoLineMoreAfterAFinishedOne) {
  Give("one\n");
  EXPECT_THAT(Lines(), ElementsAre("one"));
  EXPECT_EQ(source->descriptor(), ends[0]);
  Finish();
  source->Read();
  EXPECT_THAT(Lines(), ElementsAre());
  EXPECT_EQ(source->descriptor(), -1);
}

TEST_F(AStreamSource, DropsTheRestOfALineThatIsTooLong) {
  Give("0123456789");
  Give("abc");
  Give("def\nnext\n");
  EXPECT_THAT(Lines(), ElementsAre("0123456789", "next"));
}

TEST(AStreamSourceWithoutInput, HasEnded) {
  StreamSource source(-1, 10);
  source.Read();
  EXPECT_FALSE(source.HasNext());
  EXPECT_EQ(source.descriptor(), -1);
}

}  // namespace
}  // namespace host
