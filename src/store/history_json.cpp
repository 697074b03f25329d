#include "store/history_json.hpp"

#include <algorithm>
#include <cmath>
#include <string>

namespace quorel::history_json {

namespace {

JSONValue number(std::optional<double> value) {
  if (!value || !std::isfinite(*value)) return nullptr;
  return *value;
}

JSONValue text(const std::optional<std::string>& value) {
  if (!value) return nullptr;
  return *value;
}

}  // namespace

double coverageConfidence(const HistoricalCoverageSummary& s) {
  if (!(s.collectedSeconds > 0)) return 0;
  const double confidence = s.coverageRatio() -
                            std::min(0.5, 0.01 * static_cast<double>(s.rejectedCount)) -
                            std::min(0.25, 0.002 * static_cast<double>(s.estimatedCount));
  return std::clamp(confidence, 0.0, 1.0);
}

std::optional<double> componentSum(const PowerSample& s) {
  std::optional<double> sum;
  for (const auto& part : {s.ecpuW, s.pcpuW, s.gpuW, s.aneW, s.dramW}) {
    if (part) sum = sum.value_or(0) + *part;
  }
  return sum;
}

double sessionCoverageRatio(const SessionRecord& s) {
  const double seen = s.collectedDuration_s + s.missingDuration_s;
  return seen > 0 ? s.collectedDuration_s / seen : 0;
}

JSONValue coverage(const HistoricalCoverageSummary& s) {
  return JSONValue::object({{"ratio", number(s.coverageRatio())},
                            {"confidence", number(coverageConfidence(s))},
                            {"collected_s", number(s.collectedSeconds)},
                            {"sleep_s", number(s.sleepingSeconds)},
                            {"missing_s", number(s.missingSeconds)},
                            {"rejected_values", static_cast<double>(s.rejectedCount)},
                            {"estimated_values", static_cast<double>(s.estimatedCount)}});
}

JSONValue sample(const PowerSample& s) {
  return JSONValue::object({{"t", formatIso8601(s.timestamp)},
                            {"watts", number(s.wattage)},
                            {"battery_pct", number(s.batteryPct)},
                            {"ecpu_w", number(s.ecpuW)},
                            {"pcpu_w", number(s.pcpuW)},
                            {"gpu_w", number(s.gpuW)},
                            {"ane_w", number(s.aneW)},
                            {"dram_w", number(s.dramW)},
                            {"component_sum_w", number(componentSum(s))},
                            {"component_quality", toString(s.componentQuality)},
                            {"component_rejection_reason", text(s.componentRejectionReason)},
                            {"power_in_w", number(s.powerInW)},
                            {"system_power_quality", toString(s.systemPowerQuality)},
                            {"apple_wall_energy_estimate_raw_w", number(s.wallPowerW)},
                            {"wall_estimate_quality", toString(s.wallEstimateQuality)},
                            {"observed_duration_s", number(s.observedDurationS)},
                            {"system_total_rail_w", number(s.systemTotalW)},
                            {"battery_rail_w", number(s.batteryRailW)},
                            {"dc_in_rail_w", number(s.dcInW)},
                            {"thunderbolt_left_rail_w", number(s.thunderboltLeftW)},
                            {"thunderbolt_right_rail_w", number(s.thunderboltRightW)},
                            {"pd_brightness_rail_w", number(s.pdBrightnessW)},
                            {"charging", s.isCharging},
                            {"external_connected", s.externalConnected},
                            {"temperature_c", number(s.temperatureC)}});
}

JSONValue session(const SessionRecord& s) {
  return JSONValue::object(
      {{"start", formatIso8601(s.startTime)},
       {"end", formatIso8601(s.endTime)},
       {"duration_min", number(std::round(secondsBetween(s.startTime, s.endTime) / 60.0))},
       {"start_pct", number(s.startPct)},
       {"end_pct", number(s.endPct)},
       {"charging", s.isCharging},
       {"mode", toString(s.mode)},
       {"avg_watts", number(s.avgWattage)},
       {"total_wh", number(s.totalWh)},
       {"battery_energy_wh", number(s.totalWh)},
       {"collected_duration_s", number(s.collectedDuration_s)},
       {"missing_duration_s", number(s.missingDuration_s)},
       {"coverage_ratio", number(sessionCoverageRatio(s))},
       {"confidence", number(s.confidence)},
       {"quality", toString(s.quality)},
       {"energy_definition", "absolute battery-side energy over collected intervals"}});
}

JSONValue dailyMetric(const DailyBatteryMetric& m) {
  return JSONValue::object({{"t", formatIso8601(m.dayStart)},
                            {"nominal_mah", m.nominalCapacity_mAh},
                            {"design_mah", m.designCapacity_mAh},
                            {"cycle_count", m.cycleCount},
                            {"health_pct", number(m.healthPct)},
                            {"average_temperature_c", number(m.averageTemperature_C)},
                            {"max_observed_temperature_c", number(m.maxObservedTemperature_C)},
                            {"capacity_sample_count", m.capacitySampleCount},
                            {"temperature_observed_s", number(m.temperatureObservedDuration_s)},
                            {"temperature_sample_count", m.temperatureSampleCount},
                            {"quality", toString(m.quality)}});
}

JSONValue trackedEnergy(const TrackedEnergySummary& s, double currentWatts,
                        const char* identifierKey) {
  return JSONValue::object({{identifierKey, s.identifier},
                            {"wh", number(s.energyWh)},
                            {"avg_w", number(s.averageWatts)},
                            {"peak_w", number(s.peakWatts)},
                            {"current_w", number(currentWatts)},
                            {"observed_duration_s", number(s.observedDuration_s)},
                            {"missing_duration_s", number(s.missingDuration_s)},
                            {"coverage_ratio", number(s.coverageRatio)},
                            {"quality", toString(s.quality)},
                            {"source", "cpu_package_apportionment"}});
}

JSONValue epoch(const BatteryEpoch& e) {
  auto integer = [](std::optional<std::int64_t> v) -> JSONValue {
    if (!v) return nullptr;
    return *v;
  };
  return JSONValue::object({{"first_seen", formatIso8601(e.firstSeen)},
                            {"source", toString(e.source)},
                            {"serial", text(e.serial)},
                            {"baseline_cycle_count", integer(e.baselineCycleCount)},
                            {"baseline_design_mah", integer(e.baselineDesign_mAh)},
                            {"baseline_nominal_mah", integer(e.baselineNominal_mAh)}});
}

}  // namespace quorel::history_json
