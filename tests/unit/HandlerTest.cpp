#include "policy/Handler.h"

#include <gmock/gmock.h>

#include <stdexcept>

#include "pyx/PolicyHandler.h"
#include "support/Device.h"
#include "support/LogRecorder.h"

namespace zav::test {
namespace {

using policy::Handler;
using policy::ParseJsonString;
using policy::Policy;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

class AHandler : public testing::Test {
 protected:
  void SetUp() override { WriteDefaultPolicy(R"({"a":{"from":"default"}})"); }

  const Handler handler{common::PYXPlugin};
  const Handler ofAnUnknownComponent{static_cast<common::Component>(1)};
};

TEST_F(AHandler, ReadsAndWritesThePoliciesOfItsComponent) {
  EXPECT_EQ(handler.GetPolicy("a").AsString(), "{\"from\":\"default\"}\n");
  EXPECT_EQ(handler.UpdatePolicy("a", ParseJsonString("{\"from\":\"write\"}")), 0);
  EXPECT_EQ(handler.GetPolicy("a").AsString(), "{\"from\":\"write\"}\n");
  EXPECT_THAT(Rows(), ElementsAre(Pair("a", "{\"from\":\"write\"}\n")));
}

TEST_F(AHandler, OpensTheDatabaseWithItsFirstReadOrWriteAndNotBefore) {
  EXPECT_FALSE(FileExists(kDatabase));
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
  EXPECT_EQ(handler.UpdatePolicy("b", Policy()), 0);
  EXPECT_TRUE(FileExists(kDatabase));
}

TEST_F(AHandler, OfAnUnknownComponentReadsNothing) {
  EXPECT_TRUE(ofAnUnknownComponent.GetPolicy("a").isNull());
  EXPECT_EQ(LogRecorder::Count("Default [a] policy is empty"), 1);
}

TEST_F(AHandler, OfAnUnknownComponentPassesTheStoragesCodeOn) {
  EXPECT_EQ(ofAnUnknownComponent.UpdatePolicy("a", ParseJsonString("{}")), -50);
  EXPECT_THAT(LogRecorder::Lines().back(),
              PluginLine(kError, "Manager.cpp", "UpdatePolicy", "Failed to update [a] policy"));
}

TEST_F(AHandler, PassesOnThatThereIsNoDefaultPolicyAtTheFirstUseAndWorksAtTheNext) {
  WriteFile(kDefaultPolicy, "");
  EXPECT_THROW(handler.GetPolicy("a"), std::runtime_error);
  EXPECT_TRUE(handler.GetPolicy("a").isNull());
  EXPECT_EQ(handler.UpdatePolicy("a", ParseJsonString("{}")), 0);
}

TEST(ThePlugInsHandler, HasTheComponentZero) {
  WriteDefaultPolicy(R"({"a":{"from":"default"}})");
  EXPECT_EQ(pyx::PolicyHandler.GetPolicy("a").AsString(), "{\"from\":\"default\"}\n");
  EXPECT_EQ(pyx::PolicyHandler.UpdatePolicy("b", ParseJsonString("{}")), 0);
  EXPECT_EQ(Sql("SELECT group_concat(name) FROM PYXPlugin"), "a,b");
}

}  // namespace
}  // namespace zav::test
