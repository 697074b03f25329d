#pragma once
// The charge limit in force, whoever holds it. The firmware's own end threshold answers when the
// driver shows one; otherwise a battery held flat while its gate is paused on the adapter is
// taken as held at a limit, once enough readings agree: a limit set in the firmware's setup
// screen or by a tool that leaves no threshold behind is still recognised.
//
// Not thread-safe; one owner feeds it readings in order.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string_view>

#include "control/battery_charge_reading.hpp"
#include "control/charge_gate_reader.hpp"

namespace quorel {

enum class ChargeLimitSource {
  none,       // no limit is known
  threshold,  // charge_control_end_threshold below 100
  plateau,    // the charge held flat while paused on the adapter
};

// "none", "threshold", "plateau".
std::string_view chargeLimitSourceText(ChargeLimitSource source);

struct InferredLimit {
  std::optional<std::int64_t> percent;  // absent exactly when the source is none
  ChargeLimitSource source = ChargeLimitSource::none;

  bool operator==(const InferredLimit&) const = default;
};

class ChargeLimitInferrer {
 public:
  // Readings kept, and how many must be in hand before a plateau counts.
  static constexpr std::size_t kWindowMax = 12;
  static constexpr std::size_t kMinimumSamples = 6;

  // Feeds one reading and the gate state read from it; returns the limit now inferred.
  // Leaving the paused state empties the window: a plateau must be seen whole.
  InferredLimit update(const std::optional<BatteryChargeReading>& battery, ChargeGateState gate);
  const InferredLimit& limit() const { return limit_; }
  std::size_t samples() const { return window_.size(); }

  // The end threshold when it holds the charge below full.
  static std::optional<std::int64_t> fromThresholds(const BatteryChargeReading& battery);
  // The limit a plateau at `percent` shows: the nearest of 50, 55, ... 95 within 1.0. Firmware
  // limits come in steps of five; a battery resting near 100 is full, not limited.
  static std::optional<std::int64_t> snapToBucket(double percent);
  // The median of the readings; the mean of the middle two for an even count.
  static std::optional<double> median(const std::deque<std::int64_t>& readings);

 private:
  std::deque<std::int64_t> window_;
  InferredLimit limit_;
};

}  // namespace quorel
