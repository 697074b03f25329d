#include "energy/energy_integrator.hpp"

#include <algorithm>
#include <set>

namespace quorel {

void EnergyBatch::addShare(const std::string& name, std::optional<double> watts, double cpu,
                           const std::string& source) {
  if (!watts) return;
  EnergySampleValue& value = entries[name];
  value.watts += *watts;
  value.cpu += cpu;
  value.source = source;
  attributed_W += *watts;
}

void EnergyBatch::settleCoverage(std::optional<double> packageWatts) {
  coverage =
      packageWatts && *packageWatts > 0 ? std::clamp(attributed_W / *packageWatts, 0.0, 1.0) : 0.0;
}

EnergyIntegrator::EnergyIntegrator(std::string selfCoveredName)
    : selfCoveredName_(std::move(selfCoveredName)) {}

void EnergyIntegrator::add(const EnergyBatch& batch, TimePoint now) {
  std::set<std::string> names;
  for (const auto& [name, value] : batch.entries) names.insert(name);
  for (const auto& [name, value] : previousBatch_) names.insert(name);
  const double dt = previousBatchTime_ ? secondsBetween(*previousBatchTime_, now) : 0.0;
  static const EnergySampleValue kAbsent;

  for (const std::string& name : names) {
    const auto curIt = batch.entries.find(name);
    const auto prevIt = previousBatch_.find(name);
    const bool hasCur = curIt != batch.entries.end();
    const bool hasPrev = prevIt != previousBatch_.end();
    const EnergySampleValue& cur = hasCur ? curIt->second : kAbsent;
    const EnergySampleValue& prev = hasPrev ? prevIt->second : kAbsent;

    if (hasCur) recentBuffer_[name].emplace_back(now, cur.watts);
    if (!previousBatchTime_) continue;

    Accumulator& acc = accumulators_[name];
    if (hasCur) ++acc.count;
    if (hasCur) {
      acc.source = cur.source;
    } else if (hasPrev) {
      acc.source = prev.source;
    }
    if (dt > 0 && dt <= kMaxIntegrationGap_s) {
      acc.energyWh += dt * ((cur.watts + prev.watts) * 0.5) / 3600.0;
      acc.weightedCpuSeconds += dt * ((cur.cpu + prev.cpu) * 0.5);
      acc.observedSeconds += dt;
      acc.peakWatts = std::max({acc.peakWatts, cur.watts, prev.watts});
      const bool selfCovered = !selfCoveredName_.empty() && name == selfCoveredName_;
      acc.weightedCoverageSeconds += dt * (selfCovered ? 1.0 : batch.coverage);
    } else if (dt > kMaxIntegrationGap_s) {
      acc.missingSeconds += dt;
    }
  }

  previousBatch_ = batch.entries;
  previousBatchTime_ = now;
  if (secondsBetween(lastPrune_, now) >= kPruneInterval_s) prune(now);
}

void EnergyIntegrator::prune(TimePoint now) {
  const TimePoint cutoff =
      now - std::chrono::duration_cast<TimePoint::duration>(Seconds{kMaxBufferAge_s});
  for (auto it = recentBuffer_.begin(); it != recentBuffer_.end();) {
    auto& series = it->second;
    std::erase_if(series, [&](const auto& point) { return point.first < cutoff; });
    it = series.empty() ? recentBuffer_.erase(it) : std::next(it);
  }
  lastPrune_ = now;
}

std::vector<TrackedEnergyRecord> EnergyIntegrator::makeRecords(const Accumulators& accumulators,
                                                               TimePoint now) {
  std::vector<TrackedEnergyRecord> records;
  for (const auto& [name, acc] : accumulators) {
    if (acc.observedSeconds <= 0) continue;
    records.push_back(TrackedEnergyRecord{
        .timestamp = now,
        .identifier = name,
        .averageCPU = acc.weightedCpuSeconds / acc.observedSeconds,
        .averageWatts = acc.energyWh * 3600.0 / acc.observedSeconds,
        .peakWatts = acc.peakWatts,
        .sampleCount = acc.count,
        .observedDuration_s = acc.observedSeconds,
        .missingDuration_s = acc.missingSeconds,
        .energyWh = acc.energyWh,
        .coverageRatio = acc.weightedCoverageSeconds / acc.observedSeconds,
        .quality = HistoricalValueQuality::estimated,
        .source = acc.source,
    });
  }
  return records;
}

}  // namespace quorel
