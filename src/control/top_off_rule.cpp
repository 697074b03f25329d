#include "control/top_off_rule.hpp"

#include <cctype>
#include <cmath>
#include <optional>
#include <string_view>

#include "core/uuid.hpp"

namespace quorel {
namespace {

// Where in the list a member lies, as the decoder reports it: "Index 2.leadMinutes".
class CodingPath {
 public:
  CodingPath(std::size_t index, std::string_view key = {}) {
    text_ = "Index " + std::to_string(index);
    if (!key.empty()) text_ += "." + std::string(key);
  }
  std::string suffix() const { return " at `" + text_ + "`"; }

 private:
  std::string text_;
};

struct DecodeFailure {
  std::string detail;
};

template <class T>
using Decoded = std::variant<T, DecodeFailure>;

std::string numberText(double value) {
  if (!std::isfinite(value)) return std::isnan(value) ? "nan" : (value > 0 ? "inf" : "-inf");
  if (value == std::trunc(value) && std::fabs(value) < 1e15) {
    return std::to_string(static_cast<std::int64_t>(value)) + ".0";
  }
  return JSONValue(value).write().value_or("nan");
}

class ObjectReader {
 public:
  ObjectReader(const JSONValue::Object& object, std::size_t index)
      : object_(object), index_(index) {}

  Decoded<const JSONValue*> member(std::string_view key, std::string_view typeName) const {
    const auto found = object_.find(key);
    if (found == object_.end()) {
      return DecodeFailure{"missing key `" + std::string(key) + "`" + CodingPath(index_).suffix()};
    }
    if (found->second.isNull()) {
      return DecodeFailure{"missing " + std::string(typeName) + " value" +
                           CodingPath(index_, key).suffix()};
    }
    return &found->second;
  }

  Decoded<std::string> string(std::string_view key) const {
    auto found = member(key, "String");
    if (auto* failure = std::get_if<DecodeFailure>(&found)) return *failure;
    const auto* text = std::get<const JSONValue*>(found)->stringValue();
    if (text == nullptr) return typeMismatch(key, "String");
    return *text;
  }

  Decoded<double> number(std::string_view key) const {
    auto found = member(key, "Double");
    if (auto* failure = std::get_if<DecodeFailure>(&found)) return *failure;
    const auto value = std::get<const JSONValue*>(found)->numberValue();
    if (!value) return typeMismatch(key, "Double");
    return *value;
  }

  Decoded<std::int64_t> integer(std::string_view key) const {
    auto found = member(key, "Int");
    if (auto* failure = std::get_if<DecodeFailure>(&found)) return *failure;
    const auto value = std::get<const JSONValue*>(found)->numberValue();
    if (!value) return typeMismatch(key, "Int");
    if (*value != std::trunc(*value) || std::fabs(*value) >= 9.2233720368547758e18) {
      return corrupted(key, "Parsed JSON number <" + numberText(*value) + "> does not fit in Int.");
    }
    return static_cast<std::int64_t>(*value);
  }

  Decoded<std::string> uuid(std::string_view key) const {
    auto text = string(key);
    if (auto* failure = std::get_if<DecodeFailure>(&text)) return *failure;
    auto normalized = normalizeUuid(std::get<std::string>(text));
    if (!normalized) return corrupted(key, "Attempted to decode UUID from invalid UUID string.");
    return *normalized;
  }

  DecodeFailure corrupted(std::string_view key, const std::string& description) const {
    return DecodeFailure{description + CodingPath(index_, key).suffix()};
  }

 private:
  DecodeFailure typeMismatch(std::string_view key, std::string_view typeName) const {
    return DecodeFailure{"wrong type (expected " + std::string(typeName) + ")" +
                         CodingPath(index_, key).suffix()};
  }

  const JSONValue::Object& object_;
  std::size_t index_;
};

// Unwraps a decoded member into `out`, or returns its failure from the enclosing function.
#define QUOREL_TAKE(out, expression)                          \
  do {                                                        \
    auto taken = (expression);                                \
    if (auto* failure = std::get_if<DecodeFailure>(&taken)) { \
      return *failure;                                        \
    }                                                         \
    out = std::move(std::get<0>(taken));                      \
  } while (false)

Decoded<TopOffRule> decodeCalendar(const ObjectReader& reader, std::string id) {
  CalendarTopOffRule rule{std::move(id), {}, 0};
  QUOREL_TAKE(rule.eventTitleSubstring, reader.string("eventTitleSubstring"));
  if (!hasVisibleText(rule.eventTitleSubstring)) {
    return reader.corrupted("eventTitleSubstring",
                            "eventTitleSubstring must contain non-whitespace characters");
  }
  QUOREL_TAKE(rule.leadMinutes, reader.integer("leadMinutes"));
  if (rule.leadMinutes < kMinimumTopOffLeadMinutes ||
      rule.leadMinutes > kMaximumTopOffLeadMinutes) {
    return reader.corrupted("leadMinutes",
                            "leadMinutes " + std::to_string(rule.leadMinutes) + " outside 5...120");
  }
  return TopOffRule{rule};
}

Decoded<TopOffRule> decodeGeofence(const ObjectReader& reader, std::string id) {
  GeofenceTopOffRule rule{std::move(id), 0, 0, 0, {}};
  QUOREL_TAKE(rule.latitude, reader.number("latitude"));
  if (!(std::fabs(rule.latitude) <= 90)) {
    return reader.corrupted(
        "latitude", "latitude " + numberText(rule.latitude) + " outside [-90, 90] or non-finite");
  }
  QUOREL_TAKE(rule.longitude, reader.number("longitude"));
  if (!(std::fabs(rule.longitude) <= 180)) {
    return reader.corrupted("longitude", "longitude " + numberText(rule.longitude) +
                                             " outside [-180, 180] or non-finite");
  }
  QUOREL_TAKE(rule.radiusMeters, reader.number("radiusMeters"));
  if (!(rule.radiusMeters >= kMinimumGeofenceRadiusMeters &&
        rule.radiusMeters <= kMaximumGeofenceRadiusMeters)) {
    return reader.corrupted("radiusMeters", "radiusMeters " + numberText(rule.radiusMeters) +
                                                " outside 100.0...1000.0 or non-finite");
  }
  QUOREL_TAKE(rule.label, reader.string("label"));
  if (!hasVisibleText(rule.label)) {
    return reader.corrupted("label", "label must contain non-whitespace characters");
  }
  return TopOffRule{rule};
}

Decoded<TopOffRule> decodeRule(const JSONValue& value, std::size_t index) {
  const auto* object = value.objectValue();
  if (object == nullptr) {
    return DecodeFailure{"wrong type (expected Dictionary<String, Any>)" +
                         CodingPath(index).suffix()};
  }
  const ObjectReader reader(*object, index);
  std::string type;
  QUOREL_TAKE(type, reader.string("type"));
  std::string id;
  QUOREL_TAKE(id, reader.uuid("id"));
  if (type == "calendar") return decodeCalendar(reader, std::move(id));
  if (type == "geofence") return decodeGeofence(reader, std::move(id));
  return reader.corrupted(
      "type", "Unknown rule type \"" + type + "\"; expected \"calendar\" or \"geofence\".");
}

#undef QUOREL_TAKE

}  // namespace

const std::string& TopOffRule::id() const {
  return std::visit([](const auto& r) -> const std::string& { return r.id; }, rule);
}

std::string TopOffRule::displayLabel() const {
  if (const auto* calendar = std::get_if<CalendarTopOffRule>(&rule)) {
    return "Calendar: \"" + calendar->eventTitleSubstring + "\" \u2014 " +
           std::to_string(calendar->leadMinutes) + " min before";
  }
  return "Geofence: " + std::get<GeofenceTopOffRule>(rule).label;
}

JSONValue TopOffRule::toJSON() const {
  if (const auto* calendar = std::get_if<CalendarTopOffRule>(&rule)) {
    return JSONValue::object({{"type", "calendar"},
                              {"id", calendar->id},
                              {"eventTitleSubstring", calendar->eventTitleSubstring},
                              {"leadMinutes", calendar->leadMinutes}});
  }
  const auto& geofence = std::get<GeofenceTopOffRule>(rule);
  return JSONValue::object({{"type", "geofence"},
                            {"id", geofence.id},
                            {"latitude", geofence.latitude},
                            {"longitude", geofence.longitude},
                            {"radiusMeters", geofence.radiusMeters},
                            {"label", geofence.label}});
}

Result<std::vector<TopOffRule>> decodeTopOffRules(const JSONValue& list) {
  const auto* elements = list.arrayValue();
  if (elements == nullptr) return Error{"wrong type (expected Array<Any>)"};
  std::vector<TopOffRule> rules;
  rules.reserve(elements->size());
  for (std::size_t i = 0; i < elements->size(); ++i) {
    auto decoded = decodeRule((*elements)[i], i);
    if (auto* failure = std::get_if<DecodeFailure>(&decoded)) return Error{failure->detail};
    rules.push_back(std::move(std::get<TopOffRule>(decoded)));
  }
  return rules;
}

JSONValue encodeTopOffRules(const std::vector<TopOffRule>& rules) {
  JSONValue::Array out;
  out.reserve(rules.size());
  for (const auto& rule : rules) out.push_back(rule.toJSON());
  return out;
}

bool hasVisibleText(const std::string& text) {
  for (const unsigned char c : text) {
    if (!std::isspace(c)) return true;
  }
  return false;
}

}  // namespace quorel
