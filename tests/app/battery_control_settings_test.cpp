#include "app/battery_control_settings.hpp"

#include <gtest/gtest.h>

#include "app/top_off_rules_source.hpp"
#include "core/memory_preference_store.hpp"
#include "support/log_capture.hpp"

namespace quorel {
namespace {

constexpr const char* kId = "0B7C3F52-1D2E-4A6B-9C8D-0123456789AB";

TEST(SettingsBatteryControlAccessTest, StoredValuesSurviveARelaunch) {
  MemoryPreferenceStore store;
  ManualClock clock;
  SerialQueue main{"test.main", clock};
  const std::vector<TopOffRule> rules{
      TopOffRule{CalendarTopOffRule{kId, " Flight\n", 45}},
      TopOffRule{GeofenceTopOffRule{"1B7C3F52-1D2E-4A6B-9C8D-0123456789AB", -33.86, 151.2, 250.5,
                                    "Office"}}};
  {
    SettingsManager manager(store, main, clock);
    SettingsBatteryControlAccess access(manager);
    access.storeSmartTopOffRules(rules);
    access.storeHeatProtection(41, 7);
  }
  SettingsManager relaunched(store, main, clock);
  const SettingsBatteryControlAccess access(relaunched);
  EXPECT_EQ(access.smartTopOffRules(), rules);
  EXPECT_EQ(access.heatProtectionThresholdC(), 41);
  EXPECT_EQ(access.heatProtectionHysteresisC(), 7);
  EXPECT_EQ(relaunched.settings().smartTopOffRules.at(0).at("eventTitleSubstring"), " Flight\n");
}

TEST(SettingsTopOffRulesSourceTest, BrokenListsCountAsNoRulesAndAreReportedOncePerDocument) {
  MemoryPreferenceStore store;
  ManualClock clock;
  SerialQueue main{"test.main", clock};
  SettingsManager manager(store, main, clock);
  testing::LogCapture logs;
  std::vector<std::vector<TopOffRule>> published;
  {
    SettingsTopOffRulesSource source(manager);
    source.subscribe([&](std::vector<TopOffRule> rules) { published.push_back(std::move(rules)); });
    const auto broken = nlohmann::ordered_json::parse(
        R"({"type":"calendar","id":"0B7C3F52-1D2E-4A6B-9C8D-0123456789AB",)"
        R"("eventTitleSubstring":"Flight","leadMinutes":500})");
    manager.update([&](QuorelSettings& s) { s.smartTopOffRules = {broken}; });
    manager.update([](QuorelSettings& s) { s.idlePollingInterval = 45; });
    EXPECT_TRUE(source.currentRules().empty());
    const TopOffRule rule{CalendarTopOffRule{kId, "Flight", 45}};
    manager.update([&](QuorelSettings& s) {
      s.smartTopOffRules = {nlohmann::ordered_json::parse(rule.toJSON().write().value())};
    });
    EXPECT_EQ(source.currentRules(), std::vector<TopOffRule>{rule});
    EXPECT_EQ(published, (std::vector<std::vector<TopOffRule>>{{}, {}, {rule}}));
    // Broken again: said again, since it may be a different mistake.
    manager.update([&](QuorelSettings& s) { s.smartTopOffRules = {broken}; });
  }
  manager.update([](QuorelSettings& s) { s.idlePollingInterval = 50; });
  EXPECT_EQ(published.size(), 4u) << "a destroyed source still hears the settings";
  const auto lines = logs.messages("BatteryControl");
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const std::string& l) {
                            return l.starts_with("stored smart top-off rules ignored: ");
                          }),
            2);
}

}  // namespace
}  // namespace quorel
