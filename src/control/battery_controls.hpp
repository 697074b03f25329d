#pragma once
// The battery's own controls as the privileged helper sees them: what it can read and the few
// attributes it may write. One implementation per machine (the simulated battery, the kernel's
// power_supply attributes); the helper's logic sits above and never names a file.
//
// Every write is read back before it returns: the value reported is the one the firmware holds,
// which may be rounded from the one asked for.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "control/helper_contract.hpp"
#include "core/result.hpp"

namespace quorel {

enum class ChargeBehaviour { automatic, inhibitCharge, forceDischarge };

std::string_view chargeBehaviourText(ChargeBehaviour behaviour);
std::optional<ChargeBehaviour> parseChargeBehaviour(std::string_view text);

// Percentages. `start_percent` is absent where the firmware has only an end threshold.
struct ChargeThresholds {
  std::int64_t end_percent = 100;
  std::optional<std::int64_t> start_percent;

  bool operator==(const ChargeThresholds&) const = default;
};

struct BatteryReading {
  // Absent when the gauge or the adapter could not be read.
  std::optional<std::int64_t> capacity_percent;
  std::optional<bool> externalConnected;
  // The firmware says the battery is full, whatever the percentage shows.
  bool full = false;
  std::optional<ChargeThresholds> thresholds;
  std::optional<ChargeBehaviour> behaviour;
};

// One cumulative energy counter, as only root may read it.
struct EnergyCounterValue {
  std::string zone;  // e.g. "intel-rapl:0"
  std::string name;  // e.g. "package-0"
  std::uint64_t energy_uJ = 0;

  bool operator==(const EnergyCounterValue&) const = default;
};

class BatteryControls {
 public:
  virtual ~BatteryControls() = default;

  // What the controls allow, probed once when they were made.
  virtual HelperCapabilities capabilities() const = 0;
  virtual bool hasStartThreshold() const = 0;

  virtual BatteryReading read() = 0;
  // Error messages are sentence fragments naming what failed ("charge_control_end_threshold:
  // Invalid argument").
  virtual Result<ChargeThresholds> writeThresholds(const ChargeThresholds& wanted) = 0;
  virtual Result<ChargeBehaviour> writeBehaviour(ChargeBehaviour wanted) = 0;
  // Holds the machine awake with its lid closed while enabled.
  virtual Result<bool> setKeepAwake(bool enable) = 0;
  virtual Result<std::vector<EnergyCounterValue>> readEnergyCounters() = 0;
};

}  // namespace quorel
