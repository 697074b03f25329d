#pragma once
// How long the battery has sat at each charge level and temperature: 4 temperature bands of 7
// charge cells, hours per cell. A gauge that keeps a lifetime histogram gives it directly
// (SoCResidencyMatrix in core/power_snapshot.hpp decodes its block); Linux gauges keep none, so
// the same 28 cells are filled from the agent's own stored samples instead, counting only the
// time the sampler actually observed.
//
// The bands of the observed matrix. Each lower edge is inclusive, each upper edge exclusive:
//   temperature, degrees Celsius:  below 25 | 25 to 35 | 35 to 45 | 45 and above
//   charge, percent:  0-10 | 10-20 | 20-40 | 40-60 | 60-80 | 80-90 | 90-100 (100 included)
// So a sample at exactly 80 % and 35 °C counts in the 80-90 cell of the 35-45 band. 45 °C and the
// 20/80 % marks are where sitting starts to cost a cell its capacity, hence the edges there. All
// edges are whole numbers, which lets the store group samples by whole percent and whole degree
// without moving any of them across an edge.

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

#include "core/power_snapshot.hpp"
#include "store/history_read_records.hpp"
#include "store/history_records.hpp"

namespace quorel {

enum class ResidencySource { gauge, observed };

// "gauge" or "observed" (by this agent).
std::string_view toString(ResidencySource source);

struct SoCResidency {
  static constexpr std::size_t kTemperatureBands = 4;
  static constexpr std::size_t kChargeBands = 7;
  static constexpr std::size_t kCells = kTemperatureBands * kChargeBands;
  // Lower edges of bands 1...3 (°C) and of charge cells 1...6 (%).
  static constexpr std::array<double, kTemperatureBands - 1> kTemperatureEdges_C = {25, 35, 45};
  static constexpr std::array<double, kChargeBands - 1> kChargeEdges_pct = {10, 20, 40, 60, 80, 90};
  // Observed time a sample stands for at most: beyond it the sampler was not really watching.
  static constexpr double kMaximumSampleSeconds = 300.0;

  ResidencySource source = ResidencySource::observed;
  // Band-major: cell = temperatureBand * 7 + chargeBand.
  std::array<double, kCells> cellHours{};
  // Observed time that no cell could take (no temperature or no charge reading); 0 for a gauge.
  double unplacedHours = 0;

  // Sum of each temperature band's 7 cells, coldest first.
  std::array<double, kTemperatureBands> bandHours() const;
  double totalHours() const;

  // The gauge's own histogram; absent unless it holds exactly 28 cells.
  static std::optional<SoCResidency> fromGauge(const SoCResidencyMatrix& matrix);
  // The cell a reading falls in; absent for a reading that is not finite.
  static std::optional<std::size_t> cellIndex(double chargePct, double temperatureC);

  bool operator==(const SoCResidency&) const = default;
};

// Each sample counts for its observed duration (capped at kMaximumSampleSeconds); a sample
// without one was not collected time and counts for nothing.
SoCResidency observedResidency(const std::vector<PowerSample>& samples);
// The same from the store's totals per whole percent and whole degree.
SoCResidency observedResidency(const std::vector<ResidencyObservation>& observations);
// The gauge's histogram when the battery has one, else what the agent observed.
SoCResidency currentResidency(const std::optional<SoCResidencyMatrix>& gauge,
                              const std::vector<ResidencyObservation>& observations);

}  // namespace quorel
