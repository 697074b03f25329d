#include "control/charge_gate_reader.hpp"

#include "core/enum_text.hpp"

namespace quorel {
namespace {

constexpr EnumTextTable<ChargeGateState, 4> kGateWords{{{
    {ChargeGateState::charging, "charging"},
    {ChargeGateState::paused, "paused"},
    {ChargeGateState::unknown, "unknown"},
    {ChargeGateState::unsupported, "unsupported"},
}}};

}  // namespace

std::string_view chargeGateStateText(ChargeGateState state) {
  return kGateWords.text(state, "unknown");
}

ChargeGateState ChargeGateReader::state(const std::optional<BatteryChargeReading>& battery) {
  if (!battery) return ChargeGateState::unsupported;
  if (battery->behaviour == ChargeBehaviour::inhibitCharge ||
      battery->behaviour == ChargeBehaviour::forceDischarge) {
    return ChargeGateState::paused;
  }
  if (battery->status == BatteryChargeStatus::charging ||
      battery->status == BatteryChargeStatus::full) {
    return ChargeGateState::charging;
  }
  if (battery->status == BatteryChargeStatus::notCharging) {
    return battery->externalConnected == false ? ChargeGateState::unknown : ChargeGateState::paused;
  }
  return battery->behaviour == ChargeBehaviour::automatic ? ChargeGateState::charging
                                                          : ChargeGateState::unknown;
}

}  // namespace quorel
