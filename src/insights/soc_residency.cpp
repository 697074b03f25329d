#include "insights/soc_residency.hpp"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "core/enum_text.hpp"

namespace quorel {

namespace {

constexpr EnumTextTable<ResidencySource, 2> kSourceNames{{{
    {ResidencySource::gauge, "gauge"},
    {ResidencySource::observed, "observed"},
}}};

// The band of `value` among lower edges: the count of edges at or below it.
template <std::size_t N>
std::size_t bandOf(double value, const std::array<double, N>& edges) {
  return static_cast<std::size_t>(std::upper_bound(edges.begin(), edges.end(), value) -
                                  edges.begin());
}

// Files observed seconds into a matrix, keeping what has no cell apart so that nothing collected
// is lost from the total.
class ObservedAccumulator {
 public:
  void add(std::optional<double> chargePct, std::optional<double> temperatureC, double seconds) {
    if (!(seconds > 0) || !std::isfinite(seconds)) return;
    const auto cell = chargePct && temperatureC ? SoCResidency::cellIndex(*chargePct, *temperatureC)
                                                : std::nullopt;
    if (cell) {
      seconds_[*cell] += seconds;
    } else {
      unplaced_ += seconds;
    }
  }

  SoCResidency result() const {
    SoCResidency out;
    out.source = ResidencySource::observed;
    for (std::size_t i = 0; i < SoCResidency::kCells; ++i) out.cellHours[i] = seconds_[i] / 3600;
    out.unplacedHours = unplaced_ / 3600;
    return out;
  }

 private:
  std::array<double, SoCResidency::kCells> seconds_{};
  double unplaced_ = 0;
};

}  // namespace

std::string_view toString(ResidencySource source) {
  return kSourceNames.text(source, "observed");
}

std::array<double, SoCResidency::kTemperatureBands> SoCResidency::bandHours() const {
  std::array<double, kTemperatureBands> bands{};
  for (std::size_t band = 0; band < kTemperatureBands; ++band) {
    const auto first = cellHours.begin() + static_cast<std::ptrdiff_t>(band * kChargeBands);
    bands[band] = std::accumulate(first, first + kChargeBands, 0.0);
  }
  return bands;
}

double SoCResidency::totalHours() const {
  return std::accumulate(cellHours.begin(), cellHours.end(), 0.0) + unplacedHours;
}

std::optional<SoCResidency> SoCResidency::fromGauge(const SoCResidencyMatrix& matrix) {
  if (matrix.hours.size() != kCells) return std::nullopt;
  SoCResidency out;
  out.source = ResidencySource::gauge;
  for (std::size_t i = 0; i < kCells; ++i) out.cellHours[i] = static_cast<double>(matrix.hours[i]);
  return out;
}

std::optional<std::size_t> SoCResidency::cellIndex(double chargePct, double temperatureC) {
  if (!std::isfinite(chargePct) || !std::isfinite(temperatureC)) return std::nullopt;
  return bandOf(temperatureC, kTemperatureEdges_C) * kChargeBands +
         bandOf(chargePct, kChargeEdges_pct);
}

SoCResidency observedResidency(const std::vector<PowerSample>& samples) {
  ObservedAccumulator accumulator;
  for (const auto& s : samples) {
    if (!s.observedDurationS) continue;
    accumulator.add(s.batteryPct, s.temperatureC,
                    std::min(*s.observedDurationS, SoCResidency::kMaximumSampleSeconds));
  }
  return accumulator.result();
}

SoCResidency observedResidency(const std::vector<ResidencyObservation>& observations) {
  ObservedAccumulator accumulator;
  const auto real = [](std::optional<std::int64_t> v) -> std::optional<double> {
    if (!v) return std::nullopt;
    return static_cast<double>(*v);
  };
  for (const auto& o : observations) {
    accumulator.add(real(o.chargePct), real(o.temperatureC), o.observedSeconds);
  }
  return accumulator.result();
}

SoCResidency currentResidency(const std::optional<SoCResidencyMatrix>& gauge,
                              const std::vector<ResidencyObservation>& observations) {
  if (gauge) {
    if (auto fromGauge = SoCResidency::fromGauge(*gauge)) return *fromGauge;
  }
  return observedResidency(observations);
}

}  // namespace quorel
