#pragma once
// Stores the energy of the busiest processes: their shares of the CPU package's power,
// integrated and written once a minute to the process table of the history. What no listed
// process accounts for is booked under "Other", so the rows of a minute add up to the package's
// energy over that minute.

#include <optional>
#include <vector>

#include "energy/energy_tracker.hpp"
#include "energy/energy_usage_source.hpp"

namespace quorel {

class ProcessEnergyTracker final : public EnergyTracker {
 public:
  static constexpr const char* kOtherName = "Other";
  static constexpr const char* kApportionedSource = "cpu_package_apportionment";
  static constexpr const char* kUnattributedSource = "cpu_package_unattributed";
  // A smaller rest is rounding between the shares and the package, not energy worth a row.
  static constexpr double kMinimumUnattributed_W = 0.0001;

  // The source, the queue and the clock must outlive the tracker.
  ProcessEnergyTracker(EnergyUsageSource& source, SerialQueue& queue, const Clock& clock);

  // One batch: per process name (several processes of one name merge), its watts and CPU, and
  // "Other" for the rest of `packageWatts`. Processes without an estimate are left out.
  static EnergyBatch makeBatch(const std::vector<TopProcess>& processes,
                               std::optional<double> packageWatts);
};

}  // namespace quorel
