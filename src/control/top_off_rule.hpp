#pragma once
// A smart top-off rule: lift the charge limit once before a matching calendar event, or on
// arrival inside a circle. Stored as a JSON list; decoding checks every bound, so a stored or
// offered list that breaks one is refused whole, and the failure says which member and why.

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "core/json_value.hpp"
#include "core/result.hpp"

namespace quorel {

struct CalendarTopOffRule {
  std::string id;  // upper-case UUID text
  std::string eventTitleSubstring;
  std::int64_t leadMinutes = 30;
  bool operator==(const CalendarTopOffRule&) const = default;
};

struct GeofenceTopOffRule {
  std::string id;
  double latitude = 0;
  double longitude = 0;
  double radiusMeters = 200;
  std::string label;
  bool operator==(const GeofenceTopOffRule&) const = default;
};

struct TopOffRule {
  enum class Kind { calendar, geofence };

  std::variant<CalendarTopOffRule, GeofenceTopOffRule> rule;

  Kind kind() const {
    return std::holds_alternative<CalendarTopOffRule>(rule) ? Kind::calendar : Kind::geofence;
  }
  const std::string& id() const;
  // "Calendar: \"Standup\" — 15 min before" or "Geofence: Office".
  std::string displayLabel() const;

  // The stored form: {"type":"calendar","id":…,"eventTitleSubstring":…,"leadMinutes":…} or
  // {"type":"geofence","id":…,"latitude":…,"longitude":…,"radiusMeters":…,"label":…}.
  JSONValue toJSON() const;

  bool operator==(const TopOffRule&) const = default;
};

inline constexpr std::int64_t kMinimumTopOffLeadMinutes = 5;
inline constexpr std::int64_t kMaximumTopOffLeadMinutes = 120;
inline constexpr double kMinimumGeofenceRadiusMeters = 100;
inline constexpr double kMaximumGeofenceRadiusMeters = 1000;

// Reads a list of rules. On failure the error's message is the detail an assistant is shown,
// naming the member by its path: "missing key `type` at `Index 0`",
// "wrong type (expected Int) at `Index 1.leadMinutes`",
// "leadMinutes 200 outside 5...120 at `Index 0.leadMinutes`".
Result<std::vector<TopOffRule>> decodeTopOffRules(const JSONValue& list);
JSONValue encodeTopOffRules(const std::vector<TopOffRule>& rules);

// Text with anything but white space and newlines in it.
bool hasVisibleText(const std::string& text);

}  // namespace quorel
