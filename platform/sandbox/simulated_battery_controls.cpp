#include "platform/sandbox/simulated_battery_controls.hpp"

#include <algorithm>
#include <string>

namespace quorel {

namespace {
// The simulated package draws a steady 7 W.
constexpr double kPackagePower_W = 7.0;
}  // namespace

SimulatedBatteryControls::SimulatedBatteryControls(const Clock& clock,
                                                   SimulatedBatteryOptions options)
    : clock_(clock),
      options_(options),
      lastAdvance_(clock.monotonicNow()),
      capacity_(options.capacity_percent),
      end_(options.end_percent),
      start_(options.start_percent) {}

HelperCapabilities SimulatedBatteryControls::capabilities() const {
  HelperCapabilities caps;
  caps.nativeCharging = options_.endThreshold;
  caps.tahoeCharging = caps.preTahoeCharging = options_.inhibitCharge;
  caps.tahoeDischarge = caps.preTahoeDischarge = options_.forceDischarge;
  return caps;
}

bool SimulatedBatteryControls::charging() const {
  if (!options_.adapterConnected || behaviour_ != ChargeBehaviour::automatic) return false;
  if (options_.endThreshold && (capacity_ >= static_cast<double>(end_) || waitingForStart_)) {
    return false;
  }
  return capacity_ < 100;
}

void SimulatedBatteryControls::advance() {
  const MonotonicTime now = clock_.monotonicNow();
  double minutes = Seconds(now - lastAdvance_).count() / 60.0;
  lastAdvance_ = now;
  energy_uJ_ += minutes * 60.0 * kPackagePower_W * 1e6;
  // In steps of a tenth of a percent, so that thresholds are met where a real battery meets them.
  while (minutes > 0) {
    const bool draining =
        !options_.adapterConnected || behaviour_ == ChargeBehaviour::forceDischarge;
    const double rate = draining     ? -options_.drainRate_percentPerMinute
                        : charging() ? options_.chargeRate_percentPerMinute
                                     : 0.0;
    if (rate == 0) break;
    const double step = std::min(minutes, 0.1 / std::abs(rate));
    capacity_ = std::clamp(capacity_ + rate * step, 0.0, 100.0);
    minutes -= step;
    if (options_.endThreshold && capacity_ >= static_cast<double>(end_)) waitingForStart_ = true;
    if (options_.startThreshold && capacity_ < static_cast<double>(start_)) {
      waitingForStart_ = false;
    }
    if (!options_.startThreshold && capacity_ < static_cast<double>(end_)) {
      waitingForStart_ = false;
    }
  }
}

BatteryReading SimulatedBatteryControls::read() {
  std::lock_guard lock(mutex_);
  advance();
  BatteryReading r;
  r.capacity_percent = static_cast<std::int64_t>(capacity_);
  r.externalConnected = options_.adapterConnected;
  r.full = capacity_ >= 100;
  if (options_.endThreshold) {
    r.thresholds = ChargeThresholds{
        end_, options_.startThreshold ? std::optional<std::int64_t>(start_) : std::nullopt};
  }
  if (options_.inhibitCharge || options_.forceDischarge) r.behaviour = behaviour_;
  return r;
}

Result<ChargeThresholds> SimulatedBatteryControls::writeThresholds(const ChargeThresholds& wanted) {
  std::lock_guard lock(mutex_);
  advance();
  if (!options_.endThreshold) return Error{"charge_control_end_threshold: not supported"};
  if (failWrites_) return Error{"charge_control_end_threshold: Input/output error"};
  if (wanted.end_percent < 0 || wanted.end_percent > 100) {
    return Error{"charge_control_end_threshold: Invalid argument"};
  }
  writes_.push_back("end=" + std::to_string(wanted.end_percent));
  end_ = wanted.end_percent;
  if (options_.startThreshold && wanted.start_percent) {
    if (*wanted.start_percent >= end_) {
      return Error{"charge_control_start_threshold: Invalid argument"};
    }
    writes_.push_back("start=" + std::to_string(*wanted.start_percent));
    start_ = *wanted.start_percent;
  }
  waitingForStart_ = capacity_ >= static_cast<double>(end_);
  return ChargeThresholds{
      end_, options_.startThreshold ? std::optional<std::int64_t>(start_) : std::nullopt};
}

Result<ChargeBehaviour> SimulatedBatteryControls::writeBehaviour(ChargeBehaviour wanted) {
  std::lock_guard lock(mutex_);
  advance();
  const bool supported = wanted == ChargeBehaviour::automatic ||
                         (wanted == ChargeBehaviour::inhibitCharge && options_.inhibitCharge) ||
                         (wanted == ChargeBehaviour::forceDischarge && options_.forceDischarge);
  if (!supported) return Error{"charge_behaviour: Invalid argument"};
  if (failWrites_) return Error{"charge_behaviour: Input/output error"};
  writes_.push_back("behaviour=" + std::string(chargeBehaviourText(wanted)));
  behaviour_ = wanted;
  return behaviour_;
}

Result<bool> SimulatedBatteryControls::setKeepAwake(bool enable) {
  std::lock_guard lock(mutex_);
  keepAwake_ = enable;
  return enable;
}

Result<std::vector<EnergyCounterValue>> SimulatedBatteryControls::readEnergyCounters() {
  std::lock_guard lock(mutex_);
  advance();
  return std::vector<EnergyCounterValue>{
      {"intel-rapl:0", "package-0", static_cast<std::uint64_t>(energy_uJ_)}};
}

void SimulatedBatteryControls::setAdapterConnected(bool connected) {
  std::lock_guard lock(mutex_);
  advance();
  options_.adapterConnected = connected;
}

void SimulatedBatteryControls::setCapacity(double percent) {
  std::lock_guard lock(mutex_);
  advance();
  capacity_ = std::clamp(percent, 0.0, 100.0);
  waitingForStart_ = false;
}

void SimulatedBatteryControls::forgetFirmwareSettings() {
  std::lock_guard lock(mutex_);
  advance();
  end_ = options_.end_percent;
  start_ = options_.start_percent;
  behaviour_ = ChargeBehaviour::automatic;
  waitingForStart_ = false;
}

void SimulatedBatteryControls::failWrites(bool fail) {
  std::lock_guard lock(mutex_);
  failWrites_ = fail;
}

std::vector<std::string> SimulatedBatteryControls::writes() const {
  std::lock_guard lock(mutex_);
  return writes_;
}

bool SimulatedBatteryControls::keepingAwake() const {
  std::lock_guard lock(mutex_);
  return keepAwake_;
}

}  // namespace quorel
