#include "control/helper_contract.hpp"

#include <gtest/gtest.h>

namespace quorel {
namespace {

TEST(HelperContractTest, StateRoundTripsAndDatesCountFrom2001) {
  HelperState s;
  s.chargeLimit = 73;
  s.sailingBand = 7;
  s.forceDischargeActive = true;
  s.lastWriteAt = fromUnixSeconds(978'307'200.0 + 1000.5);
  s.lastWriteVerified = false;
  s.lastDischargeAbortReason = "adapterDisconnected";
  s.lastDischargeAbortAt = fromUnixSeconds(978'307'200.0 + 2000.0);
  s.topUpActive = true;
  s.helperVersion = "2.0.7";
  const JSONValue json = s.toJSON();
  EXPECT_EQ(json.find("lastWriteAt")->numberValue(), 1000.5);
  EXPECT_EQ(json.find("lastDischargeAbortAt")->numberValue(), 2000.0);
  EXPECT_EQ(HelperState::fromJSON(JSONValue::parse(*json.write()).value()), s);
}

TEST(HelperContractTest, StateOmitsAbsentOptionalsAndDecodesMissingOnesToDefaults) {
  const JSONValue json = HelperState::empty().toJSON();
  for (const char* key : {"lastDischargeAbortReason", "lastDischargeAbortAt", "helperVersion"}) {
    EXPECT_EQ(json.find(key), nullptr) << key;
  }
  auto decoded = HelperState::fromJSON(
      *JSONValue::parse(R"({"chargeLimit":60,"sailingBand":3,"forceDischargeActive":false,)"
                        R"("heatPauseActive":true,"lastWriteAt":-5})"));
  ASSERT_TRUE(decoded);
  EXPECT_TRUE(decoded->lastWriteVerified);
  EXPECT_FALSE(decoded->topUpActive);
  EXPECT_FALSE(decoded->sleepDisabledByQuorel);
  EXPECT_FALSE(decoded->helperVersion);
  EXPECT_TRUE(decoded->heatPauseActive);
  EXPECT_EQ(decoded->chargeLimit, 60);
}

TEST(HelperContractTest, StateMissingOrMistypedRequiredMemberFailsWhole) {
  const std::string required[] = {"chargeLimit", "sailingBand", "forceDischargeActive",
                                  "heatPauseActive", "lastWriteAt"};
  const JSONValue full = HelperState::empty().toJSON();
  for (const auto& key : required) {
    JSONValue::Object without = *full.objectValue();
    without.erase(key);
    EXPECT_FALSE(HelperState::fromJSON(JSONValue(without))) << "without " << key;
    JSONValue::Object mistyped = *full.objectValue();
    mistyped[key] = JSONValue("80");
    EXPECT_FALSE(HelperState::fromJSON(JSONValue(mistyped))) << "mistyped " << key;
  }
  JSONValue::Object fractional = *full.objectValue();
  fractional["chargeLimit"] = JSONValue(80.5);
  EXPECT_FALSE(HelperState::fromJSON(JSONValue(fractional)));
  JSONValue::Object badVersion = *full.objectValue();
  badVersion["helperVersion"] = JSONValue(2);
  EXPECT_FALSE(HelperState::fromJSON(JSONValue(badVersion)));
}

TEST(HelperContractTest, CapabilitiesNeedAllFiveAndDeriveWhatTheyAllow) {
  HelperCapabilities nativeOnly;
  nativeOnly.nativeCharging = true;
  EXPECT_TRUE(nativeOnly.canControlCharging());
  EXPECT_FALSE(nativeOnly.canForceDischarge());
  HelperCapabilities discharge;
  discharge.preTahoeDischarge = true;
  EXPECT_TRUE(discharge.canForceDischarge());
  EXPECT_FALSE(discharge.canControlCharging());

  EXPECT_EQ(HelperCapabilities::fromJSON(nativeOnly.toJSON()), nativeOnly);
  JSONValue::Object partial = *nativeOnly.toJSON().objectValue();
  partial.erase("tahoeDischarge");
  EXPECT_FALSE(HelperCapabilities::fromJSON(JSONValue(partial)));
  EXPECT_FALSE(HelperCapabilities::fromJSON(JSONValue("nativeCharging")));
}

TEST(HelperContractTest, VersionFloor) {
  struct Case {
    std::optional<std::string> version;
    bool atLeast;
  };
  const Case cases[] = {{"2.0.7", true},  {"2.0.10", true},      {"2.0", false}, {"2.1", true},
                        {"2.0.x", false}, {std::nullopt, false}, {"3", true},    {"2..0.8", true},
                        {"10.0.0", true}, {"2.0.6.9", false}};
  for (const auto& c : cases) {
    EXPECT_EQ(versionAtLeast(c.version, kHelperVersionFloor), c.atLeast)
        << c.version.value_or("(none)");
  }
  EXPECT_TRUE(versionAtLeast(std::string(), ""));
}

}  // namespace
}  // namespace quorel
