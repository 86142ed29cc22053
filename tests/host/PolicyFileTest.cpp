#include <gmock/gmock.h>
#include <json/json.h>

#include <fstream>

namespace {

using testing::ElementsAre;

Json::Value Policies() {
  std::ifstream file(PROJECT_COPY "/host/policy.json");
  Json::Value document;
  std::string errors;
  EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), file, &document, &errors)) << errors;
  return document["PYXPlugin"];
}

/// A policy without a default never gets a row, and every start would go through the restore chain for it.
TEST(TheDefaultPolicy, HoldsAllThreePolicies) {
  EXPECT_THAT(Policies().getMemberNames(), ElementsAre("Service", "State", "Storage"));
}

TEST(TheDefaultPolicy, HasARestartDelayThatNeedsNoClamping) {
  EXPECT_EQ(Policies()["Service"]["restart_delay"].asInt(), 30);
}

/// With logging off, every start would empty the log.
TEST(TheDefaultPolicy, SwitchesTheFeatureAndTheLogOn) {
  const Json::Value state = Policies()["State"];
  EXPECT_EQ(state["pyx_state"].asString(), "enabled");
  EXPECT_EQ(state["logging_state"].asString(), "enabled");
}

TEST(TheDefaultPolicy, HoldsAStorageThatNeedsNoRepair) {
  const Json::Value storage = Policies()["Storage"];
  EXPECT_THAT(storage.getMemberNames(), ElementsAre("config", "state"));
  EXPECT_EQ(storage["config"]["max_index"].asInt(), 2000);
  EXPECT_EQ(storage["config"]["max_file_size"].asInt(), 10);
  EXPECT_EQ(storage["config"]["max_logging_period"].asInt(), 3600);
  EXPECT_EQ(storage["state"]["count"].asInt(), 0);
  EXPECT_EQ(storage["state"]["last_index"].asInt(), -1);
}

}  // namespace
