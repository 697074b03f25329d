#pragma once
// The power daemon's charge-threshold switch, asked over the system bus: its battery devices
// (EnumerateDevices; Type 2 and PowerSupply true) and each one's ChargeThresholdEnabled. The
// desktop's "preserve battery health" switch is this property.
//
// One short-lived connection per question, every call bounded by a timeout, so a silent bus
// costs the caller at most that long and the connection never outlives the question. Not
// thread-safe; meant for one queue.

#include <chrono>
#include <optional>
#include <string>

#include "platform/linux/charge_limit_conflict_detector.hpp"

namespace quorel {

class UPowerBusChargeThresholds final : public UPowerChargeThresholds {
 public:
  // `busAddress` such as "unix:path=/tmp/bus"; absent means the system bus.
  explicit UPowerBusChargeThresholds(
      std::optional<std::string> busAddress = std::nullopt,
      std::chrono::milliseconds callTimeout = std::chrono::seconds(1));

  std::optional<std::vector<UPowerBatteryThreshold>> batteryThresholds() override;

 private:
  std::optional<std::string> busAddress_;
  std::chrono::milliseconds callTimeout_;
};

}  // namespace quorel
