#include "app/settings.hpp"

#include <cctype>
#include <cmath>
#include <limits>
#include <random>
#include <stdexcept>

namespace quorel {

using Json = nlohmann::ordered_json;

DynamicTypeSize dynamicTypeSize(TextScale scale) {
  switch (scale) {
    case TextScale::xxs:
      return DynamicTypeSize::xSmall;
    case TextScale::xs:
      return DynamicTypeSize::small;
    case TextScale::s:
      return DynamicTypeSize::medium;
    case TextScale::m:
      return DynamicTypeSize::large;
    case TextScale::l:
      return DynamicTypeSize::xLarge;
    case TextScale::xl:
      return DynamicTypeSize::xxLarge;
    case TextScale::xxl:
      return DynamicTypeSize::xxxLarge;
  }
  return DynamicTypeSize::large;
}

namespace {

// Dates in the document count from 2001-01-01, the platform codec's reference date.
constexpr double kReferenceDateUnixSeconds = 978307200.0;

constexpr EnumTextTable<CustomAlert::Direction, 2> kDirectionTexts{{{
    {CustomAlert::Direction::rising, "rising"},
    {CustomAlert::Direction::falling, "falling"},
}}};

// Thrown inside this file only: decoding stops at the first problem and the caller gets
// nothing, as the document is all or nothing.
struct DecodeError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

[[noreturn]] void fail(const std::string& what) {
  throw DecodeError(what);
}

std::optional<std::string> normalizedUuid(const std::string& text) {
  if (text.size() != 36) return std::nullopt;
  std::string out = text;
  for (std::size_t i = 0; i < out.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash) {
      if (out[i] != '-') return std::nullopt;
      continue;
    }
    if (!std::isxdigit(static_cast<unsigned char>(out[i]))) return std::nullopt;
    out[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(out[i])));
  }
  return out;
}

double asReal(const Json& v, const char* key) {
  if (!v.is_number()) fail(std::string(key) + " is not a number");
  return v.get<double>();
}

int asInt(const Json& v, const char* key) {
  if (v.is_number_integer()) {
    const auto n = v.get<std::int64_t>();
    if (n >= std::numeric_limits<int>::min() && n <= std::numeric_limits<int>::max()) {
      return static_cast<int>(n);
    }
  } else if (v.is_number_float()) {
    const double d = v.get<double>();
    if (std::trunc(d) == d && d >= std::numeric_limits<int>::min() &&
        d <= std::numeric_limits<int>::max()) {
      return static_cast<int>(d);
    }
  }
  fail(std::string(key) + " is not an integer");
}

bool asBool(const Json& v, const char* key) {
  if (!v.is_boolean()) fail(std::string(key) + " is not a boolean");
  return v.get<bool>();
}

std::string asString(const Json& v, const char* key) {
  if (!v.is_string()) fail(std::string(key) + " is not text");
  return v.get<std::string>();
}

std::string asUuid(const Json& v, const char* key) {
  auto id = normalizedUuid(asString(v, key));
  if (!id) fail(std::string(key) + " is not a UUID");
  return *id;
}

TimePoint asDate(const Json& v, const char* key) {
  return fromUnixSeconds(asReal(v, key) + kReferenceDateUnixSeconds);
}

template <class E, std::size_t N>
E asEnum(const Json& v, const char* key, const EnumTextTable<E, N>& texts) {
  auto e = texts.parse(asString(v, key));
  if (!e) fail(std::string(key) + " has an unknown value");
  return *e;
}

std::vector<std::string> asStringList(const Json& v, const char* key) {
  if (!v.is_array()) fail(std::string(key) + " is not a list");
  std::vector<std::string> out;
  for (const auto& item : v) out.push_back(asString(item, key));
  return out;
}

std::map<std::string, std::string> asStringMap(const Json& v, const char* key) {
  if (!v.is_object()) fail(std::string(key) + " is not a map");
  std::map<std::string, std::string> out;
  for (const auto& [k, item] : v.items()) out[k] = asString(item, key);
  return out;
}

CardPosition asCardPosition(const Json& v, const char* key) {
  if (!v.is_object() || !v.contains("x") || !v.contains("y")) {
    fail(std::string(key) + " is not a card position");
  }
  return {asReal(v.at("x"), "x"), asReal(v.at("y"), "y")};
}

std::map<std::string, CardPosition> asPositionMap(const Json& v, const char* key) {
  if (!v.is_object()) fail(std::string(key) + " is not a map");
  std::map<std::string, CardPosition> out;
  for (const auto& [k, item] : v.items()) out[k] = asCardPosition(item, key);
  return out;
}

std::vector<Json> asObjectList(const Json& v, const char* key) {
  if (!v.is_array()) fail(std::string(key) + " is not a list");
  std::vector<Json> out;
  for (const auto& item : v) {
    if (!item.is_object()) fail(std::string(key) + " holds something that is not an object");
    out.push_back(item);
  }
  return out;
}

const Json& required(const Json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end() || it->is_null()) fail(std::string("missing ") + key);
  return *it;
}

const Json* optionalKey(const Json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end() || it->is_null()) return nullptr;
  return &*it;
}

CustomAlert asCustomAlert(const Json& v) {
  if (!v.is_object()) fail("custom alert is not an object");
  CustomAlert a;
  a.id = asUuid(required(v, "id"), "id");
  a.percentage = asInt(required(v, "percentage"), "percentage");
  a.direction = asEnum(required(v, "direction"), "direction", kDirectionTexts);
  a.enabled = asBool(required(v, "enabled"), "enabled");
  return a;
}

// Presets must survive schema drift: every key may be missing and takes a fresh default.
DashboardPreset asPreset(const Json& v, const Clock& clock) {
  if (!v.is_object()) fail("dashboard preset is not an object");
  DashboardPreset p;
  const Json* id = optionalKey(v, "id");
  p.id = id ? asUuid(*id, "id") : makeUuid();
  if (const Json* name = optionalKey(v, "name")) p.name = asString(*name, "name");
  if (const Json* order = optionalKey(v, "cardOrder"))
    p.cardOrder = asStringList(*order, "cardOrder");
  if (const Json* positions = optionalKey(v, "cardPositions")) {
    p.cardPositions = asPositionMap(*positions, "cardPositions");
  }
  if (const Json* tiers = optionalKey(v, "cardTiers"))
    p.cardTiers = asStringMap(*tiers, "cardTiers");
  const Json* created = optionalKey(v, "createdAt");
  p.createdAt = created ? asDate(*created, "createdAt") : clock.now();
  return p;
}

QuorelSettings decodeObject(const Json& d, const Clock& clock) {
  if (!d.is_object()) fail("document is not an object");
  QuorelSettings s;
  s.pollingInterval = asReal(required(d, "pollingInterval"), "pollingInterval");
  s.idlePollingInterval = asReal(required(d, "idlePollingInterval"), "idlePollingInterval");
  s.launchAtLogin = asBool(required(d, "launchAtLogin"), "launchAtLogin");
  s.showInDock = asBool(required(d, "showInDock"), "showInDock");
  s.showInMenuBar = asBool(required(d, "showInMenuBar"), "showInMenuBar");
  s.openDashboardOnLaunch = asBool(required(d, "openDashboardOnLaunch"), "openDashboardOnLaunch");
  s.appearanceMode = asEnum(required(d, "appearanceMode"), "appearanceMode", kAppearanceModeTexts);
  s.colorBlindMode = asEnum(required(d, "colorBlindMode"), "colorBlindMode", kColorBlindModeTexts);
  s.temperatureUnit =
      asEnum(required(d, "temperatureUnit"), "temperatureUnit", kTemperatureUnitTexts);
  s.textScale = asEnum(required(d, "textScale"), "textScale", kTextScaleTexts);
  s.showContainerBorders = asBool(required(d, "showContainerBorders"), "showContainerBorders");
  s.chartSmoothing = asBool(required(d, "chartSmoothing"), "chartSmoothing");
  s.chartStackedComponents =
      asBool(required(d, "chartStackedComponents"), "chartStackedComponents");
  if (const Json* v = optionalKey(d, "showIdleTimeOnGraphsStored")) {
    s.showIdleTimeOnGraphsStored = asBool(*v, "showIdleTimeOnGraphsStored");
  }
  if (const Json* v = optionalKey(d, "experimentalClamshellDischargeStored")) {
    s.experimentalClamshellDischargeStored = asBool(*v, "experimentalClamshellDischargeStored");
  }
  // Lenient, so that a document naming a retired style stays readable.
  s.menuBarMode = kMenuBarModeTexts.parse(asString(required(d, "menuBarMode"), "menuBarMode"))
                      .value_or(MenuBarMode::wattage);
  s.menuBarColorEnabled = asBool(required(d, "menuBarColorEnabled"), "menuBarColorEnabled");
  s.popoverSectionOrder = asStringList(required(d, "popoverSectionOrder"), "popoverSectionOrder");
  const auto collapsed = asStringList(required(d, "collapsedSections"), "collapsedSections");
  s.collapsedSections = {collapsed.begin(), collapsed.end()};
  s.historyTimeScale =
      asEnum(required(d, "historyTimeScale"), "historyTimeScale", kHistoryTimeScaleTexts);
  s.showCarbonFootprint = asBool(required(d, "showCarbonFootprint"), "showCarbonFootprint");
  s.carbonRegion = asEnum(required(d, "carbonRegion"), "carbonRegion", kCarbonRegionTexts);
  s.calendarPredictionEnabled =
      asBool(required(d, "calendarPredictionEnabled"), "calendarPredictionEnabled");
  const Json& alerts = required(d, "customAlertThresholds");
  if (!alerts.is_array()) fail("customAlertThresholds is not a list");
  for (const auto& a : alerts) s.customAlertThresholds.push_back(asCustomAlert(a));
  s.lowPowerRules = asObjectList(required(d, "lowPowerRules"), "lowPowerRules");
  s.showHabitScore = asBool(required(d, "showHabitScore"), "showHabitScore");
  s.dashboardCardOrder = asStringList(required(d, "dashboardCardOrder"), "dashboardCardOrder");
  s.dashboardCardPositions =
      asPositionMap(required(d, "dashboardCardPositions"), "dashboardCardPositions");
  s.dashboardCardTiers = asStringMap(required(d, "dashboardCardTiers"), "dashboardCardTiers");
  const Json& presets = required(d, "dashboardPresets");
  if (!presets.is_array()) fail("dashboardPresets is not a list");
  for (const auto& p : presets) s.dashboardPresets.push_back(asPreset(p, clock));
  if (const Json* v = optionalKey(d, "activePresetId"))
    s.activePresetId = asUuid(*v, "activePresetId");
  s.dataRetentionDays = asInt(required(d, "dataRetentionDays"), "dataRetentionDays");
  s.processEnergySamplingInterval =
      asReal(required(d, "processEnergySamplingInterval"), "processEnergySamplingInterval");
  s.processWattageThreshold =
      asReal(required(d, "processWattageThreshold"), "processWattageThreshold");
  s.hasCompletedOnboarding =
      asBool(required(d, "hasCompletedOnboarding"), "hasCompletedOnboarding");
  s.calibrationToastEnabled =
      asBool(required(d, "calibrationToastEnabled"), "calibrationToastEnabled");
  s.chargeLimitCardShowConflicts =
      asBool(required(d, "chargeLimitCardShowConflicts"), "chargeLimitCardShowConflicts");
  if (const Json* v = optionalKey(d, "chargeLimitLastBreadcrumbShownAt")) {
    s.chargeLimitLastBreadcrumbShownAt = asDate(*v, "chargeLimitLastBreadcrumbShownAt");
  }
  if (const Json* v = optionalKey(d, "calibrationToastLastFiredAt")) {
    s.calibrationToastLastFiredAt = asDate(*v, "calibrationToastLastFiredAt");
  }
  s.batteryControlEnabled = asBool(required(d, "batteryControlEnabled"), "batteryControlEnabled");
  s.batteryControlSailingBand =
      asInt(required(d, "batteryControlSailingBand"), "batteryControlSailingBand");
  s.heatProtectionThresholdC =
      asInt(required(d, "heatProtectionThresholdC"), "heatProtectionThresholdC");
  s.heatProtectionHysteresisC =
      asInt(required(d, "heatProtectionHysteresisC"), "heatProtectionHysteresisC");
  s.smartTopOffRules = asObjectList(required(d, "smartTopOffRules"), "smartTopOffRules");
  s.userHasApprovedHelperBefore =
      asBool(required(d, "userHasApprovedHelperBefore"), "userHasApprovedHelperBefore");
  if (const Json* v = optionalKey(d, "helperBundleCDHashAtLastConnect")) {
    s.helperBundleCDHashAtLastConnect = asString(*v, "helperBundleCDHashAtLastConnect");
  }
  if (const Json* v = optionalKey(d, "chargeLimitAdvancedCTADismissedAt")) {
    s.chargeLimitAdvancedCTADismissedAt = asDate(*v, "chargeLimitAdvancedCTADismissedAt");
  }
  return s;
}

double dateValue(TimePoint t) {
  return toUnixSeconds(t) - kReferenceDateUnixSeconds;
}

Json positionsJson(const std::map<std::string, CardPosition>& positions) {
  Json out = Json::object();
  for (const auto& [k, p] : positions) out[k] = Json{{"x", p.x}, {"y", p.y}};
  return out;
}

Json stringMapJson(const std::map<std::string, std::string>& map) {
  Json out = Json::object();
  for (const auto& [k, v] : map) out[k] = v;
  return out;
}

Json encodeObject(const QuorelSettings& s) {
  Json d = Json::object();
  d["pollingInterval"] = s.pollingInterval;
  d["idlePollingInterval"] = s.idlePollingInterval;
  d["launchAtLogin"] = s.launchAtLogin;
  d["showInDock"] = s.showInDock;
  d["showInMenuBar"] = s.showInMenuBar;
  d["openDashboardOnLaunch"] = s.openDashboardOnLaunch;
  d["appearanceMode"] = kAppearanceModeTexts.text(s.appearanceMode);
  d["colorBlindMode"] = kColorBlindModeTexts.text(s.colorBlindMode);
  d["temperatureUnit"] = kTemperatureUnitTexts.text(s.temperatureUnit);
  d["textScale"] = kTextScaleTexts.text(s.textScale);
  d["showContainerBorders"] = s.showContainerBorders;
  d["chartSmoothing"] = s.chartSmoothing;
  d["chartStackedComponents"] = s.chartStackedComponents;
  if (s.showIdleTimeOnGraphsStored) d["showIdleTimeOnGraphsStored"] = *s.showIdleTimeOnGraphsStored;
  if (s.experimentalClamshellDischargeStored) {
    d["experimentalClamshellDischargeStored"] = *s.experimentalClamshellDischargeStored;
  }
  d["menuBarMode"] = kMenuBarModeTexts.text(s.menuBarMode);
  d["menuBarColorEnabled"] = s.menuBarColorEnabled;
  d["popoverSectionOrder"] = s.popoverSectionOrder;
  d["collapsedSections"] = s.collapsedSections;
  d["historyTimeScale"] = kHistoryTimeScaleTexts.text(s.historyTimeScale);
  d["showCarbonFootprint"] = s.showCarbonFootprint;
  d["carbonRegion"] = kCarbonRegionTexts.text(s.carbonRegion);
  d["calendarPredictionEnabled"] = s.calendarPredictionEnabled;
  Json alerts = Json::array();
  for (const auto& a : s.customAlertThresholds) {
    alerts.push_back(Json{{"id", a.id},
                          {"percentage", a.percentage},
                          {"direction", kDirectionTexts.text(a.direction)},
                          {"enabled", a.enabled}});
  }
  d["customAlertThresholds"] = std::move(alerts);
  d["lowPowerRules"] = s.lowPowerRules;
  d["showHabitScore"] = s.showHabitScore;
  d["dashboardCardOrder"] = s.dashboardCardOrder;
  d["dashboardCardPositions"] = positionsJson(s.dashboardCardPositions);
  d["dashboardCardTiers"] = stringMapJson(s.dashboardCardTiers);
  Json presets = Json::array();
  for (const auto& p : s.dashboardPresets) {
    presets.push_back(Json{{"id", p.id},
                           {"name", p.name},
                           {"cardOrder", p.cardOrder},
                           {"cardPositions", positionsJson(p.cardPositions)},
                           {"cardTiers", stringMapJson(p.cardTiers)},
                           {"createdAt", dateValue(p.createdAt)}});
  }
  d["dashboardPresets"] = std::move(presets);
  if (s.activePresetId) d["activePresetId"] = *s.activePresetId;
  d["dataRetentionDays"] = s.dataRetentionDays;
  d["processEnergySamplingInterval"] = s.processEnergySamplingInterval;
  d["processWattageThreshold"] = s.processWattageThreshold;
  d["hasCompletedOnboarding"] = s.hasCompletedOnboarding;
  d["calibrationToastEnabled"] = s.calibrationToastEnabled;
  d["chargeLimitCardShowConflicts"] = s.chargeLimitCardShowConflicts;
  if (s.chargeLimitLastBreadcrumbShownAt) {
    d["chargeLimitLastBreadcrumbShownAt"] = dateValue(*s.chargeLimitLastBreadcrumbShownAt);
  }
  if (s.calibrationToastLastFiredAt) {
    d["calibrationToastLastFiredAt"] = dateValue(*s.calibrationToastLastFiredAt);
  }
  d["batteryControlEnabled"] = s.batteryControlEnabled;
  d["batteryControlSailingBand"] = s.batteryControlSailingBand;
  d["heatProtectionThresholdC"] = s.heatProtectionThresholdC;
  d["heatProtectionHysteresisC"] = s.heatProtectionHysteresisC;
  d["smartTopOffRules"] = s.smartTopOffRules;
  d["userHasApprovedHelperBefore"] = s.userHasApprovedHelperBefore;
  if (s.helperBundleCDHashAtLastConnect) {
    d["helperBundleCDHashAtLastConnect"] = *s.helperBundleCDHashAtLastConnect;
  }
  if (s.chargeLimitAdvancedCTADismissedAt) {
    d["chargeLimitAdvancedCTADismissedAt"] = dateValue(*s.chargeLimitAdvancedCTADismissedAt);
  }
  return d;
}

Seconds positiveOr(double value, double fallback) {
  return Seconds{std::isfinite(value) && value > 0 ? value : fallback};
}

}  // namespace

std::optional<QuorelSettings> decodeSettings(std::string_view document, const Clock& clock) {
  const Json parsed = Json::parse(document, nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded()) return std::nullopt;
  try {
    return decodeObject(parsed, clock);
  } catch (const DecodeError&) {
    return std::nullopt;
  }
}

std::optional<std::string> encodeSettings(const QuorelSettings& settings) {
  try {
    return encodeObject(settings).dump();
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;  // text that is not valid UTF-8
  }
}

PollingIntervals pollingIntervals(const QuorelSettings& settings,
                                  std::optional<Seconds> intervalOverride) {
  const QuorelSettings defaults;
  if (intervalOverride && std::isfinite(intervalOverride->count()) &&
      intervalOverride->count() > 0) {
    return {*intervalOverride, *intervalOverride};
  }
  return {positiveOr(settings.pollingInterval, defaults.pollingInterval),
          positiveOr(settings.idlePollingInterval, defaults.idlePollingInterval)};
}

}  // namespace quorel
