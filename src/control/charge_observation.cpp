#include "control/charge_observation.hpp"

#include "control/charging_reason_mapper.hpp"
#include "core/enum_text.hpp"

namespace quorel {
namespace {

constexpr EnumTextTable<ChargeLimitManager, 5> kManagerNames{{{
    {ChargeLimitManager::tlp, "TLP"},
    {ChargeLimitManager::upower, "UPower"},
    {ChargeLimitManager::desktopPowerManager, "Plasma power management"},
    {ChargeLimitManager::asusd, "asusd"},
    {ChargeLimitManager::autoCpufreq, "auto-cpufreq"},
}}};

}  // namespace

std::string_view chargeLimitManagerName(ChargeLimitManager manager) {
  return kManagerNames.text(manager, "another charge-limit manager");
}

ChargeObservation composeChargeObservation(const std::optional<BatteryChargeReading>& battery,
                                           ChargeLimitInferrer& inferrer,
                                           BatteryControlAvailability availability,
                                           ConflictReport conflicts, TimePoint observedAt) {
  ChargeObservation o;
  o.gate = ChargeGateReader::state(battery);
  o.limit = inferrer.update(battery, o.gate);
  if (battery) {
    o.notChargingReason = ChargingReasonMapper::notChargingReason(*battery);
    o.slowChargingReason = ChargingReasonMapper::slowChargingReason(*battery);
    o.systemHealth_percent = systemHealthPercent(*battery);
  }
  o.availability = availability;
  o.conflicts = std::move(conflicts);
  o.observedAt = observedAt;
  return o;
}

}  // namespace quorel
