#pragma once
// Fixed-capacity rings for live series, and the exponential average used for all smoothing.

#include <cstddef>
#include <optional>
#include <vector>

#include "core/clock.hpp"

namespace quorel {

struct TimestampedSample {
  TimePoint timestamp;
  double value = 0;
  bool operator==(const TimestampedSample&) const = default;
};

// A ring preallocated to its capacity, so appending never allocates.
class PowerHistory {
 public:
  static constexpr std::size_t kDefaultCapacity = 600;  // five hours at the 30-second cadence

  explicit PowerHistory(std::size_t capacity = kDefaultCapacity);

  void append(double value, TimePoint at);
  // The newest min(n, count) values, oldest first; empty for n < 1.
  std::vector<double> last(std::ptrdiff_t n) const;
  // Clears both lists, keeping their storage, and fills them with every held sample, oldest
  // first. The caller owns the lists so that repeated copies reuse the same storage.
  void fillSamples(std::vector<double>& values, std::vector<TimePoint>& timestamps) const;

  std::size_t count() const { return count_; }
  std::size_t capacity() const { return capacity_; }
  std::size_t writeIndex() const { return writeIndex_; }
  bool empty() const { return count_ == 0; }

 private:
  std::vector<TimestampedSample> buffer_;
  std::size_t writeIndex_ = 0;
  std::size_t count_ = 0;
  std::size_t capacity_;
};

class ExponentialMovingAverage {
 public:
  explicit ExponentialMovingAverage(double alpha) : alpha_(alpha) {}

  // Blends `input` in, unless the last update is more than `maxDt` old, in which case the
  // average restarts from `input`.
  double update(double input, TimePoint at, Seconds maxDt);
  void reset() {
    value_.reset();
    lastUpdate_.reset();
  }

  double alpha() const { return alpha_; }
  std::optional<double> value() const { return value_; }
  std::optional<TimePoint> lastUpdate() const { return lastUpdate_; }

 private:
  double alpha_;
  std::optional<double> value_;
  std::optional<TimePoint> lastUpdate_;
};

// Adapter rating bands, for the readout's label and colour.
struct ChargerTier {
  enum class ColorRole { muted, orange, blue };
  struct Tier {
    const char* label;
    ColorRole color;
  };
  static Tier classify(double watts);
};

}  // namespace quorel
