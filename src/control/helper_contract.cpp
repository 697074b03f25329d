#include "control/helper_contract.hpp"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <vector>

namespace quorel {

namespace {

// 2001-01-01T00:00:00Z in Unix seconds.
constexpr double kReferenceDateUnixSeconds = 978'307'200.0;

std::optional<bool> boolMember(const JSONValue& object, std::string_view key) {
  const JSONValue* v = object.find(key);
  return v ? v->boolValue() : std::nullopt;
}

std::optional<std::int64_t> integerMember(const JSONValue& object, std::string_view key) {
  const JSONValue* v = object.find(key);
  auto n = v ? v->numberValue() : std::nullopt;
  if (!n || *n != static_cast<double>(static_cast<std::int64_t>(*n))) return std::nullopt;
  return static_cast<std::int64_t>(*n);
}

std::optional<double> numberMember(const JSONValue& object, std::string_view key) {
  const JSONValue* v = object.find(key);
  return v ? v->numberValue() : std::nullopt;
}

// Absent when the member is missing or null; `malformed` set when it holds another kind.
std::optional<std::string> optionalString(const JSONValue& object, std::string_view key,
                                          bool& malformed) {
  const JSONValue* v = object.find(key);
  if (v == nullptr || v->isNull()) return std::nullopt;
  if (!v->isString()) malformed = true;
  return v->isString() ? std::optional<std::string>(*v->stringValue()) : std::nullopt;
}

std::vector<std::int64_t> versionParts(std::string_view text) {
  std::vector<std::int64_t> parts;
  while (!text.empty()) {
    const auto dot = text.find('.');
    const auto part = text.substr(0, dot);
    if (!part.empty()) {
      std::int64_t value = 0;
      const auto [end, ec] = std::from_chars(part.data(), part.data() + part.size(), value);
      parts.push_back(ec == std::errc() && end == part.data() + part.size() ? value : 0);
    }
    if (dot == std::string_view::npos) break;
    text.remove_prefix(dot + 1);
  }
  return parts;
}

}  // namespace

double toReferenceDateSeconds(TimePoint t) {
  return toUnixSeconds(t) - kReferenceDateUnixSeconds;
}

TimePoint fromReferenceDateSeconds(double seconds) {
  return fromUnixSeconds(seconds + kReferenceDateUnixSeconds);
}

JSONValue HelperCapabilities::toJSON() const {
  return JSONValue::object({{"tahoeCharging", tahoeCharging},
                            {"preTahoeCharging", preTahoeCharging},
                            {"tahoeDischarge", tahoeDischarge},
                            {"preTahoeDischarge", preTahoeDischarge},
                            {"nativeCharging", nativeCharging}});
}

std::optional<HelperCapabilities> HelperCapabilities::fromJSON(const JSONValue& value) {
  auto a = boolMember(value, "tahoeCharging");
  auto b = boolMember(value, "preTahoeCharging");
  auto c = boolMember(value, "tahoeDischarge");
  auto d = boolMember(value, "preTahoeDischarge");
  auto e = boolMember(value, "nativeCharging");
  if (!a || !b || !c || !d || !e) return std::nullopt;
  return HelperCapabilities{*a, *b, *c, *d, *e};
}

JSONValue HelperState::toJSON() const {
  JSONValue::Object o{
      {"chargeLimit", JSONValue(chargeLimit)},
      {"sailingBand", JSONValue(sailingBand)},
      {"forceDischargeActive", JSONValue(forceDischargeActive)},
      {"heatPauseActive", JSONValue(heatPauseActive)},
      {"lastWriteAt", JSONValue(toReferenceDateSeconds(lastWriteAt))},
      {"lastWriteVerified", JSONValue(lastWriteVerified)},
      {"topUpActive", JSONValue(topUpActive)},
      {"sleepDisabledByQuorel", JSONValue(sleepDisabledByQuorel)},
  };
  if (lastDischargeAbortReason) {
    o.emplace("lastDischargeAbortReason", JSONValue(*lastDischargeAbortReason));
  }
  if (lastDischargeAbortAt) {
    o.emplace("lastDischargeAbortAt", JSONValue(toReferenceDateSeconds(*lastDischargeAbortAt)));
  }
  if (helperVersion) o.emplace("helperVersion", JSONValue(*helperVersion));
  return JSONValue(std::move(o));
}

std::optional<HelperState> HelperState::fromJSON(const JSONValue& value) {
  auto limit = integerMember(value, "chargeLimit");
  auto band = integerMember(value, "sailingBand");
  auto discharging = boolMember(value, "forceDischargeActive");
  auto heat = boolMember(value, "heatPauseActive");
  auto writeAt = numberMember(value, "lastWriteAt");
  if (!limit || !band || !discharging || !heat || !writeAt) return std::nullopt;

  HelperState s;
  s.chargeLimit = *limit;
  s.sailingBand = *band;
  s.forceDischargeActive = *discharging;
  s.heatPauseActive = *heat;
  s.lastWriteAt = fromReferenceDateSeconds(*writeAt);
  s.lastWriteVerified = boolMember(value, "lastWriteVerified").value_or(true);
  s.topUpActive = boolMember(value, "topUpActive").value_or(false);
  s.sleepDisabledByQuorel = boolMember(value, "sleepDisabledByQuorel").value_or(false);
  bool malformed = false;
  s.lastDischargeAbortReason = optionalString(value, "lastDischargeAbortReason", malformed);
  s.helperVersion = optionalString(value, "helperVersion", malformed);
  if (auto at = numberMember(value, "lastDischargeAbortAt")) {
    s.lastDischargeAbortAt = fromReferenceDateSeconds(*at);
  }
  if (malformed) return std::nullopt;
  return s;
}

bool versionAtLeast(const std::optional<std::string>& version, std::string_view floor) {
  if (!version) return false;
  auto have = versionParts(*version);
  auto need = versionParts(floor);
  const auto length = std::max(have.size(), need.size());
  have.resize(length, 0);
  need.resize(length, 0);
  return !std::lexicographical_compare(have.begin(), have.end(), need.begin(), need.end());
}

}  // namespace quorel
