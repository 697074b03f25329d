#pragma once
// What crosses between the agent and the privileged helper: the two JSON payloads, the error
// domain and its codes, and the version floor. Both sides build from these, so a change here is
// a change of the wire.

#include <optional>
#include <string>
#include <string_view>

#include "core/clock.hpp"
#include "core/json_value.hpp"

namespace quorel {

// Dates on the wire are seconds since 2001-01-01T00:00:00Z as a JSON number.
double toReferenceDateSeconds(TimePoint t);
TimePoint fromReferenceDateSeconds(double seconds);

struct HelperCapabilities {
  bool tahoeCharging = false;
  bool preTahoeCharging = false;
  bool tahoeDischarge = false;
  bool preTahoeDischarge = false;
  bool nativeCharging = false;

  bool canControlCharging() const { return tahoeCharging || preTahoeCharging || nativeCharging; }
  bool canForceDischarge() const { return tahoeDischarge || preTahoeDischarge; }

  JSONValue toJSON() const;
  // Absent unless every one of the five members is present and boolean.
  static std::optional<HelperCapabilities> fromJSON(const JSONValue& value);
  bool operator==(const HelperCapabilities&) const = default;
};

struct HelperState {
  std::int64_t chargeLimit = 80;
  std::int64_t sailingBand = 5;
  bool forceDischargeActive = false;
  bool heatPauseActive = false;
  TimePoint lastWriteAt = distantPast();
  bool lastWriteVerified = true;
  std::optional<std::string> lastDischargeAbortReason;
  std::optional<TimePoint> lastDischargeAbortAt;
  bool topUpActive = false;
  bool sleepDisabledByQuorel = false;
  std::optional<std::string> helperVersion;

  // The state assumed before the helper has answered.
  static HelperState empty() { return {}; }

  JSONValue toJSON() const;
  // Absent when a required member is missing or of the wrong kind; optional members missing
  // take their defaults.
  static std::optional<HelperState> fromJSON(const JSONValue& value);
  bool operator==(const HelperState&) const = default;
};

inline constexpr std::string_view kQuorelHelperErrorDomain = "QuorelHelperError";

enum class QuorelHelperErrorCode : int {
  codeOutOfRange = 400,
  codeSMCWriteFailed = 500,
  codePMAssertionFailed = 501,
  codePersistenceFailed = 502,
  codeUnsupportedCapability = 503,
};

// A refused or failed command: the code the caller compares and a sentence a person can read.
struct QuorelHelperError {
  QuorelHelperErrorCode code = QuorelHelperErrorCode::codeSMCWriteFailed;
  std::string message;

  bool operator==(const QuorelHelperError&) const = default;
};

inline constexpr std::string_view kHelperVersionFloor = "2.0.7";
// What the helper reports as its `helperVersion`: the version of this wire, not of the package,
// so that an agent can tell a helper that speaks an older wire. Raise it (and the floor, when the
// agent cannot do without the change) whenever a method, a parameter or a payload changes.
inline constexpr std::string_view kHelperWireVersion = "2.0.7";

// Dotted versions compared part by part as integers; a part that does not parse counts as 0 and
// the shorter list is padded with zeros. An absent version is never at least the floor.
bool versionAtLeast(const std::optional<std::string>& version, std::string_view floor);

}  // namespace quorel
