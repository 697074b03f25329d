#pragma once
// All user preferences as one value, QuorelSettings, stored as one JSON document under the
// preference key "QuorelSettings". The field order below is the document's key order. Fields
// marked optional may be absent from a document; every other key is required, and a document
// that lacks one does not decode at all (the caller then uses the defaults).
//
// JSON conventions: dates are seconds since 2001-01-01 00:00:00 UTC as a number, identifiers are
// upper-case UUID text, sets are arrays, maps are objects.

#include <array>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/clock.hpp"
#include "core/enum_text.hpp"
#include "core/history_time_scale.hpp"
#include "core/uuid.hpp"

namespace quorel {

// `auto` is a keyword here, so that case is spelled `automatic`; its raw text stays "Auto".
enum class AppearanceMode { automatic, light, dark };
enum class ColorBlindMode { off, deuteranopia, tritanopia };
enum class TemperatureUnit { celsius, fahrenheit };
enum class TextScale { xxs, xs, s, m, l, xl, xxl };
enum class MenuBarMode { automatic, wattage, minimal, gaugeBattery, gaugePowerIn, percentage };
enum class CarbonRegion {
  usAverage,
  euAverage,
  ukAverage,
  australiaAverage,
  indiaAverage,
  chinaAverage
};
// The raw texts the document stores for its enumerations.
inline constexpr EnumTextTable<AppearanceMode, 3> kAppearanceModeTexts{{{
    {AppearanceMode::automatic, "Auto"},
    {AppearanceMode::light, "Light"},
    {AppearanceMode::dark, "Dark"},
}}};
inline constexpr EnumTextTable<ColorBlindMode, 3> kColorBlindModeTexts{{{
    {ColorBlindMode::off, "Default"},
    {ColorBlindMode::deuteranopia, "Blue/Orange"},
    {ColorBlindMode::tritanopia, "Green/Magenta"},
}}};
inline constexpr EnumTextTable<TemperatureUnit, 2> kTemperatureUnitTexts{{{
    {TemperatureUnit::celsius, "°C"},
    {TemperatureUnit::fahrenheit, "°F"},
}}};
inline constexpr EnumTextTable<TextScale, 7> kTextScaleTexts{{{
    {TextScale::xxs, "XXS"},
    {TextScale::xs, "XS"},
    {TextScale::s, "S"},
    {TextScale::m, "M"},
    {TextScale::l, "L"},
    {TextScale::xl, "XL"},
    {TextScale::xxl, "XXL"},
}}};
inline constexpr EnumTextTable<MenuBarMode, 6> kMenuBarModeTexts{{{
    {MenuBarMode::automatic, "Auto"},
    {MenuBarMode::wattage, "Wattage"},
    {MenuBarMode::minimal, "Minimal"},
    {MenuBarMode::gaugeBattery, "Gauge: Battery"},
    {MenuBarMode::gaugePowerIn, "Gauge: Power In"},
    {MenuBarMode::percentage, "Percentage"},
}}};
inline constexpr EnumTextTable<CarbonRegion, 6> kCarbonRegionTexts{{{
    {CarbonRegion::usAverage, "US Average"},
    {CarbonRegion::euAverage, "EU Average"},
    {CarbonRegion::ukAverage, "UK Average"},
    {CarbonRegion::australiaAverage, "Australia"},
    {CarbonRegion::indiaAverage, "India"},
    {CarbonRegion::chinaAverage, "China"},
}}};
// A dashboard card's size; its raw text, as dashboardCardTiers holds it, is the case name.
enum class CardTier { s1x1, s2x1, s2x2, full };
inline constexpr EnumTextTable<CardTier, 4> kCardTierTexts{{{
    {CardTier::s1x1, "s1x1"},
    {CardTier::s2x1, "s2x1"},
    {CardTier::s2x2, "s2x2"},
    {CardTier::full, "full"},
}}};

// The type sizes a text scale maps to.
enum class DynamicTypeSize { xSmall, small, medium, large, xLarge, xxLarge, xxxLarge };
DynamicTypeSize dynamicTypeSize(TextScale scale);

// The popover's sections, raw texts in case order.
inline constexpr std::array<std::string_view, 20> kPopoverSections = {
    "hero",          "batteryBar",       "details",        "systemPower",
    "cellHealth",    "powerAdapter",     "timeEstimates",  "powerHistory",
    "topProcesses",  "connectedDevices", "recentSessions", "powerFlow",
    "lifetimeStats", "healthTrend",      "cycleTrend",     "carbonFootprint",
    "processEnergy", "aiEnergy",         "chargeLimit",    "habitScore"};

struct CustomAlert {
  enum class Direction { rising, falling };
  std::string id;  // upper-case UUID
  int percentage = 0;
  Direction direction = Direction::falling;
  bool enabled = true;
  bool operator==(const CustomAlert&) const = default;
};

struct CardPosition {
  double x = 0;
  double y = 0;
  bool operator==(const CardPosition&) const = default;
};

struct DashboardPreset {
  std::string id;  // upper-case UUID
  std::string name;
  std::vector<std::string> cardOrder;
  std::map<std::string, CardPosition> cardPositions;
  std::map<std::string, std::string> cardTiers;  // card identifier to CardTier raw text
  TimePoint createdAt;
  bool operator==(const DashboardPreset&) const = default;
};

struct QuorelSettings {
  double pollingInterval = 2;       // seconds, while a window is focused
  double idlePollingInterval = 30;  // seconds, otherwise
  bool launchAtLogin = false;
  bool showInDock = false;
  bool showInMenuBar = true;
  bool openDashboardOnLaunch = false;
  AppearanceMode appearanceMode = AppearanceMode::dark;
  ColorBlindMode colorBlindMode = ColorBlindMode::off;
  TemperatureUnit temperatureUnit = TemperatureUnit::celsius;
  TextScale textScale = TextScale::m;
  bool showContainerBorders = false;
  bool chartSmoothing = true;
  bool chartStackedComponents = false;
  std::optional<bool> showIdleTimeOnGraphsStored;            // optional key
  std::optional<bool> experimentalClamshellDischargeStored;  // optional key
  MenuBarMode menuBarMode = MenuBarMode::wattage;
  bool menuBarColorEnabled = false;
  std::vector<std::string> popoverSectionOrder{kPopoverSections.begin(), kPopoverSections.end()};
  std::set<std::string> collapsedSections{kPopoverSections.begin(), kPopoverSections.end()};
  HistoryTimeScale historyTimeScale = HistoryTimeScale::tenMinutes;
  bool showCarbonFootprint = false;
  CarbonRegion carbonRegion = CarbonRegion::usAverage;
  bool calendarPredictionEnabled = false;
  std::vector<CustomAlert> customAlertThresholds;
  // Rule objects are kept exactly as stored (each must be a JSON object) until the rules'
  // own types take over their decoding.
  std::vector<nlohmann::ordered_json> lowPowerRules;
  bool showHabitScore = true;
  std::vector<std::string> dashboardCardOrder;
  std::map<std::string, CardPosition> dashboardCardPositions;
  std::map<std::string, std::string> dashboardCardTiers;  // card identifier to CardTier raw text
  std::vector<DashboardPreset> dashboardPresets;
  std::optional<std::string> activePresetId;  // optional key, upper-case UUID
  int dataRetentionDays = 0;                  // 0 keeps everything
  double processEnergySamplingInterval = 5;   // seconds
  double processWattageThreshold = 0.1;       // watts
  bool hasCompletedOnboarding = false;
  bool calibrationToastEnabled = true;
  bool chargeLimitCardShowConflicts = true;
  std::optional<TimePoint> chargeLimitLastBreadcrumbShownAt;  // optional key
  std::optional<TimePoint> calibrationToastLastFiredAt;       // optional key
  bool batteryControlEnabled = false;
  int batteryControlSailingBand = 5;  // percent
  int heatProtectionThresholdC = 38;
  int heatProtectionHysteresisC = 3;
  std::vector<nlohmann::ordered_json> smartTopOffRules;  // kept as stored, like lowPowerRules
  bool userHasApprovedHelperBefore = false;
  std::optional<std::string> helperBundleCDHashAtLastConnect;  // optional key
  std::optional<TimePoint> chargeLimitAdvancedCTADismissedAt;  // optional key

  // Settings added late read through these, so that documents from before them still decode.
  bool showIdleTimeOnGraphs() const { return showIdleTimeOnGraphsStored.value_or(true); }
  bool experimentalClamshellDischarge() const {
    return experimentalClamshellDischargeStored.value_or(false);
  }

  bool operator==(const QuorelSettings&) const = default;
};

// Decodes a settings document. Absent when it is not a JSON object, lacks a required key, or
// holds a value of the wrong type or an unknown enumeration text (except for menuBarMode,
// which reads an unknown text as wattage). `clock` dates dashboard presets that lack one.
std::optional<QuorelSettings> decodeSettings(std::string_view document, const Clock& clock);

// The document for `settings`; absent when it cannot be encoded (text that is not UTF-8).
std::optional<std::string> encodeSettings(const QuorelSettings& settings);

// How often the agent polls: both periods come from the settings unless the command line's
// --interval replaces them for this run. A stored period that is not a positive finite number
// falls back to its default rather than spinning or stopping the loop.
struct PollingIntervals {
  Seconds focused;
  Seconds idle;
  bool operator==(const PollingIntervals&) const = default;
};
PollingIntervals pollingIntervals(const QuorelSettings& settings,
                                  std::optional<Seconds> intervalOverride = std::nullopt);

}  // namespace quorel
