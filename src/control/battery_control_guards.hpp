#pragma once
// The rules every battery write passes, whoever asks: a person at the terminal, an assistant over
// the loopback, the dashboard's cards. Pure functions of what the caller has read; each refusal
// carries the sentence shown as it stands.

#include <cstdint>
#include <optional>
#include <string>

namespace quorel {

namespace BatteryControlGuards {

struct GuardResult {
  bool allowed = false;
  std::optional<std::string> reason;

  static GuardResult allow() { return {true, std::nullopt}; }
  static GuardResult refuse(std::string why) { return {false, std::move(why)}; }
  bool operator==(const GuardResult&) const = default;
};

inline constexpr std::int64_t kMinimumChargeLimit = 20;
inline constexpr std::int64_t kMaximumChargeLimit = 100;

GuardResult canSetChargeLimit(std::int64_t percent);

struct ForceDischargeInputs {
  bool isDischargeActive = false;
  bool isLidClosed = false;
  bool isOnExternalPower = false;
  bool isTopUpInFlight = false;
  std::optional<std::int64_t> capacity;  // percent; absent when unknown
  std::int64_t limit = 80;               // percent
  bool hasExternalDisplay = false;
  bool experimentalClamshellEnabled = false;
};

// First match decides; a discharge already running is never refused, so it can always be
// stopped or repeated.
GuardResult canForceDischarge(const ForceDischargeInputs& in);

struct TopUpInputs {
  bool isTopUpInFlight = false;
  bool isTopUpAlreadyFilling = false;
  bool isOnExternalPower = false;
  bool isDischargeActive = false;
  std::optional<std::int64_t> capacity;  // percent; absent when unknown
  std::int64_t limit = 80;               // percent
};

GuardResult canTopUp(const TopUpInputs& in);

}  // namespace BatteryControlGuards

}  // namespace quorel
