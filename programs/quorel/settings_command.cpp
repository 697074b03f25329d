#include "settings_command.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "app/settings.hpp"
#include "app/settings_manager.hpp"
#include "core/file_preference_store.hpp"
#include "core/iso8601.hpp"
#include "core/serial_queue.hpp"

namespace quorel {

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

// Dates in the document count from 2001-01-01.
constexpr double kReferenceDateUnixSeconds = 978307200.0;

enum class Kind { boolean, integer, real, choice, text, uuid, date, list, object };

struct Choice {
  std::string_view name;  // the case name, easier to type than some raw texts ("°F")
  std::string_view raw;   // what the document stores
};

struct KeyRule {
  Kind kind = Kind::boolean;
  std::string allowed;  // what the setting takes, as the end of a sentence
  std::optional<std::pair<double, double>> range = std::nullopt;
  std::vector<Choice> choices = {};
};

template <class E, std::size_t N>
KeyRule choiceRule(const EnumTextTable<E, N>& table, const std::array<std::string_view, N>& names) {
  KeyRule rule{Kind::choice, "one of "};
  std::string cases;
  for (std::size_t i = 0; i < N; ++i) {
    rule.choices.push_back({names[i], table.entries[i].second});
    rule.allowed += (i == 0 ? "\"" : ", \"") + std::string(table.entries[i].second) + "\"";
    cases += (i == 0 ? "" : ", ") + std::string(names[i]);
  }
  rule.allowed += " (or " + cases + ")";
  return rule;
}

KeyRule rangeRule(Kind kind, double min, double max, std::string allowed) {
  return {kind, std::move(allowed), std::pair{min, max}};
}

// The settings that take more than their JSON type tells: enumerations, ranges, dates,
// identifiers and the structured values. Any other setting is described by its type alone.
const std::map<std::string, KeyRule, std::less<>>& specialKeys() {
  static const KeyRule date{Kind::date,
                            "an ISO-8601 time such as 2026-11-22T10:15:30Z, or seconds since "
                            "2001-01-01 as a number"};
  static const KeyRule sections{Kind::list,
                                "a JSON list of section names, e.g. [\"hero\",\"details\"]"};
  static const KeyRule rules{Kind::list, "a JSON list of rule objects"};
  static const std::map<std::string, KeyRule, std::less<>> keys = {
      {"pollingInterval", rangeRule(Kind::real, 0.5, 3600, "a number of seconds from 0.5 to 3600")},
      {"idlePollingInterval",
       rangeRule(Kind::real, 0.5, 3600, "a number of seconds from 0.5 to 3600")},
      {"appearanceMode", choiceRule(kAppearanceModeTexts, {"auto", "light", "dark"})},
      {"colorBlindMode", choiceRule(kColorBlindModeTexts, {"off", "deuteranopia", "tritanopia"})},
      {"temperatureUnit", choiceRule(kTemperatureUnitTexts, {"celsius", "fahrenheit"})},
      {"textScale", choiceRule(kTextScaleTexts, {"xxs", "xs", "s", "m", "l", "xl", "xxl"})},
      {"menuBarMode", choiceRule(kMenuBarModeTexts, {"auto", "wattage", "minimal", "gaugeBattery",
                                                     "gaugePowerIn", "percentage"})},
      {"popoverSectionOrder", sections},
      {"collapsedSections", sections},
      {"historyTimeScale",
       choiceRule(kHistoryTimeScaleTexts,
                  {"tenMinutes", "oneHour", "twelveHours", "today", "sevenDays", "thirtyDays"})},
      {"carbonRegion",
       choiceRule(kCarbonRegionTexts, {"usAverage", "euAverage", "ukAverage", "australiaAverage",
                                       "indiaAverage", "chinaAverage"})},
      {"customAlertThresholds",
       {Kind::list,
        "a JSON list of alerts such as {\"id\": \"<UUID>\", \"percentage\": 20, \"direction\": "
        "\"falling\", \"enabled\": true}, direction being rising or falling"}},
      {"lowPowerRules", rules},
      {"dashboardCardOrder", {Kind::list, "a JSON list of card names"}},
      {"dashboardCardPositions",
       {Kind::object, "a JSON object of card name to {\"x\": number, \"y\": number}"}},
      {"dashboardCardTiers",
       {Kind::object, "a JSON object of card name to \"s1x1\", \"s2x1\", \"s2x2\" or \"full\""}},
      {"dashboardPresets",
       {Kind::list,
        "a JSON list of preset objects with id, name, cardOrder, cardPositions, cardTiers and "
        "createdAt"}},
      {"activePresetId", {Kind::uuid, "a UUID such as 6F9619FF-8B86-D011-B42D-00C04FC964FF"}},
      {"dataRetentionDays", rangeRule(Kind::integer, 0, 3650,
                                      "a whole number of days from 0 (keep everything) to 3650")},
      {"processEnergySamplingInterval",
       rangeRule(Kind::real, 1, 3600, "a number of seconds from 1 to 3600")},
      {"processWattageThreshold", rangeRule(Kind::real, 0, 100, "a number of watts from 0 to 100")},
      {"chargeLimitLastBreadcrumbShownAt", date},
      {"calibrationToastLastFiredAt", date},
      {"batteryControlSailingBand",
       rangeRule(Kind::integer, 0, 20, "a whole number of percentage points from 0 to 20")},
      {"heatProtectionThresholdC",
       rangeRule(Kind::integer, 32, 45, "a whole number of degrees Celsius from 32 to 45")},
      {"heatProtectionHysteresisC",
       rangeRule(Kind::integer, 1, 10, "a whole number of degrees Celsius from 1 to 10")},
      {"smartTopOffRules", rules},
      {"chargeLimitAdvancedCTADismissedAt", date},
  };
  return keys;
}

KeyRule ruleFor(const std::string& key, const Json& sample) {
  if (auto it = specialKeys().find(key); it != specialKeys().end()) return it->second;
  if (sample.is_boolean()) return {Kind::boolean, "true or false"};
  if (sample.is_number()) return {Kind::real, "a number"};
  if (sample.is_array()) return {Kind::list, "a JSON list"};
  if (sample.is_object()) return {Kind::object, "a JSON object"};
  return {Kind::text, "text"};
}

std::string_view kindName(Kind kind) {
  switch (kind) {
    case Kind::boolean:
      return "a boolean";
    case Kind::integer:
      return "a whole number";
    case Kind::real:
    case Kind::date:
      return "a number";
    case Kind::list:
      return "a JSON list";
    case Kind::object:
      return "a JSON object";
    case Kind::choice:
    case Kind::text:
    case Kind::uuid:
      break;
  }
  return "text";
}

bool sameIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    return std::tolower(static_cast<unsigned char>(x)) ==
           std::tolower(static_cast<unsigned char>(y));
  });
}

// Every key the document can hold, in document order, each with a value of its type: the
// defaults with every optional key set.
const Json& fullSample() {
  static const Json sample = [] {
    QuorelSettings s;
    s.showIdleTimeOnGraphsStored = true;
    s.experimentalClamshellDischargeStored = false;
    s.activePresetId = "00000000-0000-0000-0000-000000000000";
    s.chargeLimitLastBreadcrumbShownAt = TimePoint{};
    s.calibrationToastLastFiredAt = TimePoint{};
    s.helperBundleCDHashAtLastConnect = "";
    s.chargeLimitAdvancedCTADismissedAt = TimePoint{};
    return Json::parse(*encodeSettings(s));
  }();
  return sample;
}

const Json& defaultDocument() {
  static const Json defaults = Json::parse(*encodeSettings(QuorelSettings{}));
  return defaults;
}

Json valueOf(const Json& document, const std::string& key) {
  auto it = document.find(key);
  return it == document.end() ? Json() : *it;
}

std::string shown(const Json& value, const KeyRule& rule) {
  if (value.is_null()) return "(not set)";
  if (value.is_string()) return value.get<std::string>();
  if (rule.kind == Kind::date && value.is_number()) {
    return formatIso8601(fromUnixSeconds(value.get<double>() + kReferenceDateUnixSeconds));
  }
  return value.dump();
}

// The command line's VALUE as JSON. Settings that hold text take the text as typed (an
// enumeration also by its case name, and either in any case); the others want JSON, and a date
// also an ISO-8601 time.
Json valueFromArgument(const std::string& argument, const KeyRule& rule) {
  Json parsed = Json::parse(argument, nullptr, /*allow_exceptions=*/false);
  if (rule.kind == Kind::choice || rule.kind == Kind::text || rule.kind == Kind::uuid) {
    const std::string text = parsed.is_string() ? parsed.get<std::string>() : argument;
    for (const auto& choice : rule.choices) {
      if (choice.raw == text) return Json(text);
    }
    for (const auto& choice : rule.choices) {
      if (sameIgnoringCase(choice.raw, text) || sameIgnoringCase(choice.name, text)) {
        return Json(choice.raw);
      }
    }
    return Json(text);
  }
  if (parsed.is_discarded() && rule.kind == Kind::date) {
    if (auto time = parseIso8601(argument)) {
      return toUnixSeconds(*time) - kReferenceDateUnixSeconds;
    }
  }
  return parsed.is_discarded() ? Json(argument) : parsed;
}

// Why `value` cannot be the setting's value, judged on the setting alone.
std::optional<std::string> problemWith(const Json& value, const KeyRule& rule) {
  const std::string text = value.dump();
  switch (rule.kind) {
    case Kind::boolean:
      if (value.is_boolean()) return std::nullopt;
      break;
    case Kind::integer:
    case Kind::real:
    case Kind::date: {
      if (!value.is_number()) break;
      const double number = value.get<double>();
      if (rule.kind == Kind::integer && std::trunc(number) != number) {
        return text + " is not a whole number";
      }
      if (rule.range && (number < rule.range->first || number > rule.range->second)) {
        return text + " is out of range";
      }
      return std::nullopt;
    }
    case Kind::choice:
      if (!value.is_string()) break;
      for (const auto& choice : rule.choices) {
        if (choice.raw == value.get<std::string>()) return std::nullopt;
      }
      return text + " is not one of its values";
    case Kind::text:
    case Kind::uuid:
      if (value.is_string()) return std::nullopt;
      break;
    case Kind::list:
      if (value.is_array()) return std::nullopt;
      break;
    case Kind::object:
      if (value.is_object()) return std::nullopt;
      break;
  }
  return text + " is not " + std::string(kindName(rule.kind));
}

std::string unknownKey(const std::string& key) {
  std::string known;
  std::string suggestion;
  for (const auto& [name, sample] : fullSample().items()) {
    known += (known.empty() ? "" : ", ") + name;
    if (sameIgnoringCase(name, key)) suggestion = " — did you mean " + name + "?";
  }
  return "\"" + key + "\" is not a setting" + suggestion + " The settings are: " + known + ".";
}

SettingsCommandResult refused(std::string sentence) {
  return {2, "", std::move(sentence)};
}

// The document an agent would be using now: the stored one when it decodes, else the defaults.
struct Current {
  Json document;
  bool undecodable = false;
};

Current currentDocument(const PreferenceStore& store, const Clock& clock) {
  const auto stored = store.dataValue(SettingsManager::key);
  if (!stored) return {defaultDocument()};
  const auto decoded = decodeSettings(*stored, clock);
  if (!decoded) return {defaultDocument(), true};
  return {Json::parse(*encodeSettings(*decoded))};
}

// Stores `settings` the way the agent does, so that the one-time migrations are marked done
// and cannot later undo what was set here. The store only logs a failed write, so the file is
// read afresh to tell whether the change landed.
bool store(FilePreferenceStore& preferences, const QuorelSettings& settings, const Clock& clock) {
  {
    SerialQueue queue("settings", clock);
    SettingsManager manager(preferences, queue, clock);
    manager.setSettings(settings);
    manager.save();
  }
  const FilePreferenceStore check(preferences.path());
  return check.dataValue(SettingsManager::key) == encodeSettings(settings);
}

std::string listText(const Json& document) {
  std::size_t width = 0;
  for (const auto& [key, sample] : fullSample().items()) width = std::max(width, key.size());
  std::string out;
  for (const auto& [key, sample] : fullSample().items()) {
    const KeyRule rule = ruleFor(key, sample);
    const Json value = valueOf(document, key);
    const Json fallback = valueOf(defaultDocument(), key);
    out += key + std::string(width + 2 - key.size(), ' ') + shown(value, rule);
    if (value != fallback) out += "  (default " + shown(fallback, rule) + ")";
    out += "\n";
  }
  return out;
}

}  // namespace

SettingsCommandResult runSettingsCommand(const SettingsCommandArguments& arguments,
                                         const fs::path& preferencesFile, const Clock& clock) {
  const std::string& action = arguments.action;
  if (action != "list" && action != "get" && action != "set" && action != "reset") {
    return refused("\"" + action + "\" is not a settings action — use list, get, set or reset.");
  }
  if (action != "list" && !arguments.key) {
    return refused("quorel settings " + action +
                   " needs the setting's name, e.g. quorel settings " + action + " carbonRegion.");
  }
  if (action == "set" && !arguments.value) {
    return refused(
        "quorel settings set needs a value, e.g. quorel settings set carbonRegion "
        "\"EU Average\".");
  }
  if (arguments.key && !fullSample().contains(*arguments.key)) {
    return refused(unknownKey(*arguments.key));
  }

  FilePreferenceStore preferences(preferencesFile);
  const Current current = currentDocument(preferences, clock);
  SettingsCommandResult result;
  if (current.undecodable) {
    result.error =
        "The stored settings do not decode, so the agent uses the defaults" +
        std::string(action == "set" || action == "reset" ? "; this change starts again from them.\n"
                                                         : ", shown here.\n");
  }
  if (action == "list") {
    if (!arguments.json) {
      result.output = listText(current.document);
      return result;
    }
    // Every key, absent optional ones as null, so a script need not know which may be missing.
    Json all = Json::object();
    for (const auto& [key, sample] : fullSample().items()) {
      all[key] = valueOf(current.document, key);
    }
    result.output = all.dump(2) + "\n";
    return result;
  }

  const std::string& key = *arguments.key;
  const KeyRule rule = ruleFor(key, fullSample().at(key));
  const Json before = valueOf(current.document, key);
  if (action == "get") {
    result.output =
        arguments.json
            ? Json{{"key", key}, {"value", before}, {"default", valueOf(defaultDocument(), key)}}
                      .dump() +
                  "\n"
            : shown(before, rule) + "\n";
    return result;
  }

  Json next = current.document;
  const bool optional = !defaultDocument().contains(key);
  Json value = action == "reset" ? valueOf(defaultDocument(), key)
                                 : valueFromArgument(*arguments.value, rule);
  if (value.is_null() && optional) {
    next.erase(key);
  } else if (auto problem = problemWith(value, rule)) {
    return refused(key + ": " + *problem + " — it takes " + rule.allowed + ".");
  } else {
    next[key] = value;
  }
  const auto decoded = decodeSettings(next.dump(), clock);
  if (!decoded) {
    return refused(key + ": " + value.dump() + " does not fit — it takes " + rule.allowed + ".");
  }
  const Json after = valueOf(Json::parse(*encodeSettings(*decoded)), key);
  if (after == before && !current.undecodable) {
    result.output = key + " is already " + shown(after, rule) + "; nothing changed.\n";
    return result;
  }
  if (!store(preferences, *decoded, clock)) {
    result.exitStatus = 1;
    result.error += "quorel: could not write the settings to " + preferencesFile.string() +
                    " — nothing changed.";
    return result;
  }
  result.output = key + ": " + shown(before, rule) + " → " + shown(after, rule) + "\n";
  return result;
}

}  // namespace quorel
