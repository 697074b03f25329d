#pragma once
// Turns a stream of instantaneous watts per name into energy: each pair of consecutive batches is
// integrated by the trapezoid rule, so a name that appears rises from 0 over its first interval
// and one that vanishes falls to 0 over its last. Shared by the process and the agent trackers;
// each supplies its own batches and writes the records to its own table.
//
// A plain value: not thread-safe. The trackers hold it under their lock.

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/clock.hpp"
#include "store/history_records.hpp"

namespace quorel {

struct EnergySampleValue {
  double watts = 0;
  // Percent of one core.
  double cpu = 0;
  // What the watts are an estimate of; stored with the record.
  std::string source;

  bool operator==(const EnergySampleValue&) const = default;
};

struct EnergyBatch {
  std::map<std::string, EnergySampleValue> entries;
  // The share of the package power, 0...1, that the batch's named entries account for.
  double coverage = 0;
  // The watts of the shares added so far.
  double attributed_W = 0;

  // Adds a share of the package under `name` (entries of one name merge); one without an
  // estimate, taken while the package was not measured, adds nothing.
  void addShare(const std::string& name, std::optional<double> watts, double cpu,
                const std::string& source);
  // What the shares hold of `packageWatts`, 0 when it is unknown or not above 0.
  void settleCoverage(std::optional<double> packageWatts);
};

class EnergyIntegrator {
 public:
  // Two batches further apart than this are not joined by a trapezoid: the time between them
  // (a sleep, a stalled queue) is booked as missing.
  static constexpr double kMaxIntegrationGap_s = 300.0;
  static constexpr double kMaxBufferAge_s = 660.0;
  static constexpr double kPruneInterval_s = 30.0;

  struct Accumulator {
    double energyWh = 0;
    double weightedCpuSeconds = 0;
    double peakWatts = 0;
    double observedSeconds = 0;
    double missingSeconds = 0;
    double weightedCoverageSeconds = 0;
    int count = 0;
    std::string source;

    bool operator==(const Accumulator&) const = default;
  };
  using Accumulators = std::map<std::string, Accumulator>;
  // Per name, the (time, watts) it had in each batch of the last 11 minutes, oldest first.
  using RecentBuffer = std::map<std::string, std::vector<std::pair<TimePoint, double>>>;

  // `selfCoveredName` names the entry that stands for the unattributed rest of the package
  // ("Other"): by construction it covers itself wholly, whatever the batch's coverage. Empty when
  // the tracker has no such entry.
  explicit EnergyIntegrator(std::string selfCoveredName = {});

  // Integrates from the previous batch to this one, taken at `now`. The first batch only
  // becomes the previous one.
  void add(const EnergyBatch& batch, TimePoint now);

  // Hands over what has accumulated since the last take and starts afresh.
  Accumulators takeAccumulators() { return std::exchange(accumulators_, {}); }

  // One record per accumulator that observed time, stamped `now`. Missing time of an accumulator
  // without observed time has no row to go in and is dropped with it.
  static std::vector<TrackedEnergyRecord> makeRecords(const Accumulators& accumulators,
                                                      TimePoint now);

  const Accumulators& accumulators() const { return accumulators_; }
  const RecentBuffer& recentBuffer() const { return recentBuffer_; }

 private:
  void prune(TimePoint now);

  std::string selfCoveredName_;
  Accumulators accumulators_;
  std::map<std::string, EnergySampleValue> previousBatch_;
  std::optional<TimePoint> previousBatchTime_;
  RecentBuffer recentBuffer_;
  TimePoint lastPrune_ = distantPast();
};

}  // namespace quorel
