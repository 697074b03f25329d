#include "core/power_history.hpp"

#include <algorithm>

namespace quorel {

PowerHistory::PowerHistory(std::size_t capacity)
    : buffer_(std::max<std::size_t>(capacity, 1), TimestampedSample{distantPast(), 0.0}),
      capacity_(std::max<std::size_t>(capacity, 1)) {}

void PowerHistory::append(double value, TimePoint at) {
  buffer_[writeIndex_] = TimestampedSample{at, value};
  writeIndex_ = (writeIndex_ + 1) % capacity_;
  count_ = std::min(capacity_, count_ + 1);
}

std::vector<double> PowerHistory::last(std::ptrdiff_t n) const {
  std::vector<double> out;
  if (n < 1 || count_ == 0) return out;
  const std::size_t take = std::min(static_cast<std::size_t>(n), count_);
  out.reserve(take);
  // The newest sample sits just before writeIndex; walk back `take` slots and read forward.
  std::size_t index = (writeIndex_ + capacity_ - take) % capacity_;
  for (std::size_t i = 0; i < take; ++i) {
    out.push_back(buffer_[index].value);
    index = (index + 1) % capacity_;
  }
  return out;
}

void PowerHistory::fillSamples(std::vector<double>& values,
                               std::vector<TimePoint>& timestamps) const {
  values.clear();
  timestamps.clear();
  values.reserve(count_);
  timestamps.reserve(count_);
  auto copy = [&](std::size_t from, std::size_t to) {
    for (std::size_t i = from; i < to; ++i) {
      values.push_back(buffer_[i].value);
      timestamps.push_back(buffer_[i].timestamp);
    }
  };
  if (count_ == capacity_) {
    copy(writeIndex_, capacity_);
    copy(0, writeIndex_);
  } else {
    copy(0, count_);
  }
}

double ExponentialMovingAverage::update(double input, TimePoint at, Seconds maxDt) {
  if (lastUpdate_ && secondsBetween(*lastUpdate_, at) > maxDt.count()) value_.reset();
  const double result = value_ ? alpha_ * input + (1.0 - alpha_) * *value_ : input;
  value_ = result;
  lastUpdate_ = at;
  return result;
}

ChargerTier::Tier ChargerTier::classify(double watts) {
  if (watts < 0.5) return {"Not charging", ColorRole::muted};
  if (watts < 5) return {"Trickle", ColorRole::muted};
  if (watts < 15) return {"Weak", ColorRole::orange};
  if (watts < 30) return {"Slow", ColorRole::orange};
  if (watts < 60) return {"Standard", ColorRole::blue};
  if (watts < 96) return {"Fast", ColorRole::blue};
  if (watts < 140) return {"Full-rate", ColorRole::blue};
  return {"Max", ColorRole::blue};
}

}  // namespace quorel
