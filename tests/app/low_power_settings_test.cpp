#include "app/low_power_settings.hpp"

#include <gtest/gtest.h>

#include "core/memory_preference_store.hpp"
#include "support/log_capture.hpp"

namespace quorel {
namespace {

using Json = nlohmann::ordered_json;
constexpr const char* kHot = "2e4b1c7a-3f51-4f0b-9b8e-2d4c1a7e5f62";
constexpr const char* kHotUpper = "2E4B1C7A-3F51-4F0B-9B8E-2D4C1A7E5F62";

Json stored(const char* id, const char* kind) {
  return Json{{"id", id},
              {"kind", kind},
              {"enabled", true},
              {"thresholdPercent", 20.0},
              {"temperatureThresholdC", 40},
              {"bundleID", ""},
              {"displayName", ""},
              {"note", "kept by the editor"}};
}

TEST(SettingsLowPowerAccessTest, BrokenRulesAreSkippedByIndexAndFiringIsSavedInPlace) {
  MemoryPreferenceStore store;
  ManualClock clock;
  SerialQueue main{"test.main", clock};
  SettingsManager manager(store, main, clock);
  Json noKind = stored("0B7C3F52-1D2E-4A6B-9C8D-0123456789AB", "batteryHot");
  noKind.erase("kind");
  Json fraction = stored("1B7C3F52-1D2E-4A6B-9C8D-0123456789AB", "batteryThreshold");
  fraction["thresholdPercent"] = 20.5;
  manager.update([&](QuorelSettings& s) {
    s.lowPowerRules = {noKind, stored(kHot, "batteryHot"), stored("not-a-uuid", "appLaunch"),
                       stored("3B7C3F52-1D2E-4A6B-9C8D-0123456789AB", "lowBattery"), fraction};
  });
  SettingsLowPowerAccess access(manager);
  testing::LogCapture logs;
  const auto rules = access.lowPowerRules();
  access.lowPowerRules();  // an unchanged list is not decoded, nor warned about, again
  ASSERT_EQ(rules.size(), 1u);
  EXPECT_EQ(rules[0].id, kHotUpper);
  EXPECT_EQ(rules[0].kind, LowPowerRule::Kind::batteryHot);
  const auto warnings = logs.messages("LowPowerRulesEngine");
  ASSERT_EQ(warnings.size(), 4u);
  for (std::size_t i = 0; i < warnings.size(); ++i) {
    const std::string index = "index " + std::to_string(i == 0 ? 0 : i + 1) + " ";
    EXPECT_NE(warnings[i].find(index), std::string::npos) << warnings[i];
  }

  const TimePoint at = fromUnixSeconds(1'800'000'123.5);
  access.storeLastFiredAt(kHotUpper, at);
  access.storeLastFiredAt("4B7C3F52-1D2E-4A6B-9C8D-0123456789AB", at);  // gone: ignored
  SettingsManager relaunched(store, main, clock);
  const Json& saved = relaunched.settings().lowPowerRules.at(1);
  EXPECT_EQ(saved.at("note"), "kept by the editor");
  EXPECT_DOUBLE_EQ(saved.at("lastFiredAt").get<double>(), 1'800'000'123.5 - 978307200.0);
  const auto reread = SettingsLowPowerAccess(relaunched).lowPowerRules();
  ASSERT_EQ(reread.size(), 1u);
  EXPECT_EQ(reread[0].lastFiredAt, at);

  // Encoding round-trips, and the optional date is written only when set.
  LowPowerRule rule = reread[0];
  EXPECT_EQ(LowPowerRule::fromJSON(rule.toJSON()), rule);
  rule.lastFiredAt.reset();
  EXPECT_FALSE(rule.toJSON().contains("lastFiredAt"));
  EXPECT_EQ(LowPowerRule::fromJSON(rule.toJSON()), rule);
}

}  // namespace
}  // namespace quorel
