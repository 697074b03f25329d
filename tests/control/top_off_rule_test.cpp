#include "control/top_off_rule.hpp"

#include <gtest/gtest.h>

#include "control/battery_control_availability.hpp"
#include "core/uuid.hpp"

namespace quorel {
namespace {

constexpr const char* kId = "0B7C3F52-1D2E-4A6B-9C8D-0123456789AB";

JSONValue listFrom(const std::string& text) {
  auto value = JSONValue::parse(text);
  EXPECT_TRUE(value.has_value()) << text;
  return value.value_or(JSONValue{});
}

TEST(TopOffRuleTest, EncodedRulesDecodeToTheSameRules) {
  const std::vector<TopOffRule> rules{
      TopOffRule{CalendarTopOffRule{kId, "  Flight ", 45}},
      TopOffRule{GeofenceTopOffRule{makeUuid(), -33.8688, 151.2093, 250.5, "Office"}},
  };
  const auto decoded = decodeTopOffRules(encodeTopOffRules(rules));
  ASSERT_TRUE(decoded.ok()) << decoded.error().message;
  EXPECT_EQ(*decoded, rules);
  EXPECT_EQ(rules[0].displayLabel(), "Calendar: \"  Flight \" \u2014 45 min before");
  EXPECT_EQ(rules[1].displayLabel(), "Geofence: Office");
}

TEST(TopOffRuleTest, LowerCaseIdsAreStoredUpperCase) {
  const auto decoded = decodeTopOffRules(
      listFrom(R"([{"type":"calendar","id":"0b7c3f52-1d2e-4a6b-9c8d-0123456789ab",)"
               R"("eventTitleSubstring":"x","leadMinutes":5}])"));
  ASSERT_TRUE(decoded.ok()) << decoded.error().message;
  EXPECT_EQ((*decoded)[0].id(), kId);
}

TEST(TopOffRuleTest, EachFailureNamesTheMemberAndWhy) {
  const std::string calendar =
      std::string(R"({"type":"calendar","id":")") + kId + R"(","eventTitleSubstring":"Standup",)";
  const std::string geofence = std::string(R"({"type":"geofence","id":")") + kId + R"(",)";
  const struct {
    std::string text;
    std::string detail;
  } cases[] = {
      {R"([{}])", "missing key `type` at `Index 0`"},
      {R"([7])", "wrong type (expected Dictionary<String, Any>) at `Index 0`"},
      {R"({"type":"calendar"})", "wrong type (expected Array<Any>)"},
      {R"([{"type":1}])", "wrong type (expected String) at `Index 0.type`"},
      {R"([{"type":"calendar","id":null}])", "missing String value at `Index 0.id`"},
      {R"([{"type":"calendar","id":"nope"}])",
       "Attempted to decode UUID from invalid UUID string. at `Index 0.id`"},
      {"[" + calendar + R"("leadMinutes":15},{"type":"alarm","id":")" + kId + R"("}])",
       "Unknown rule type \"alarm\"; expected \"calendar\" or \"geofence\". at `Index 1.type`"},
      {"[" + calendar + R"("leadMinutes":"15"}])",
       "wrong type (expected Int) at `Index 0.leadMinutes`"},
      {"[" + calendar + R"("leadMinutes":15.5}])",
       "Parsed JSON number <15.5> does not fit in Int. at `Index 0.leadMinutes`"},
      {"[" + calendar + R"("leadMinutes":121}])",
       "leadMinutes 121 outside 5...120 at `Index 0.leadMinutes`"},
      {"[" + calendar + R"("leadMinutes":4}])",
       "leadMinutes 4 outside 5...120 at `Index 0.leadMinutes`"},
      {std::string(R"([{"type":"calendar","id":")") + kId +
           R"(","eventTitleSubstring":" \n\t","leadMinutes":5}])",
       "eventTitleSubstring must contain non-whitespace characters at "
       "`Index 0.eventTitleSubstring`"},
      {"[" + geofence + R"("latitude":91,"longitude":0,"radiusMeters":100,"label":"x"}])",
       "latitude 91.0 outside [-90, 90] or non-finite at `Index 0.latitude`"},
      {"[" + geofence + R"("latitude":0,"longitude":-180.5,"radiusMeters":100,"label":"x"}])",
       "longitude -180.5 outside [-180, 180] or non-finite at `Index 0.longitude`"},
      {"[" + geofence + R"("latitude":0,"longitude":0,"radiusMeters":99.9,"label":"x"}])",
       "radiusMeters 99.9 outside 100.0...1000.0 or non-finite at `Index 0.radiusMeters`"},
      {"[" + geofence + R"("latitude":0,"longitude":0,"radiusMeters":1000,"label":" "}])",
       "label must contain non-whitespace characters at `Index 0.label`"},
      {"[" + geofence + R"("latitude":0,"longitude":0,"radiusMeters":1000}])",
       "missing key `label` at `Index 0`"},
  };
  for (const auto& c : cases) {
    const auto decoded = decodeTopOffRules(listFrom(c.text));
    ASSERT_FALSE(decoded.ok()) << c.text;
    EXPECT_EQ(decoded.error().message, c.detail) << c.text;
  }
}

TEST(TopOffRuleTest, BoundsAreInclusive) {
  const auto decoded = decodeTopOffRules(listFrom(
      std::string(R"([{"type":"geofence","id":")") + kId +
      R"(","latitude":-90,"longitude":180,"radiusMeters":1000,"label":"Home"},)" +
      R"({"type":"calendar","id":")" + kId + R"(","eventTitleSubstring":"a","leadMinutes":120}])"));
  EXPECT_TRUE(decoded.ok()) << decoded.error().message;
}

TEST(BatteryControlAvailabilityTest, ABatteryWithoutChargeControlIsNamedApart) {
  EXPECT_EQ(resolveBatteryControlAvailability(false, true), BatteryControlAvailability::noBattery);
  EXPECT_EQ(resolveBatteryControlAvailability(true, false),
            BatteryControlAvailability::noChargeControl);
  EXPECT_EQ(resolveBatteryControlAvailability(true, true), BatteryControlAvailability::available);
  EXPECT_EQ(batteryControlAvailabilityText(BatteryControlAvailability::noChargeControl),
            "no_charge_control");
  EXPECT_EQ(parseBatteryControlAvailability("helper_unsupported_os"),
            BatteryControlAvailability::helperUnsupportedOS);
}

}  // namespace
}  // namespace quorel
