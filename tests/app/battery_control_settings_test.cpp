#include "app/battery_control_settings.hpp"

#include <gtest/gtest.h>

#include "core/memory_preference_store.hpp"

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

}  // namespace
}  // namespace quorel
