#pragma once
// Grams of CO2 behind the electricity drawn since local midnight, at a fixed grid intensity for
// the region the user chose. The day's samples are tallied from the time index at each call;
// while they only grew at their end, just the new ones are read and added to the day's energy,
// and the whole day is integrated again only when the tally shows anything else.
//
// Threading: todayCO2Grams may be called from any thread other than the store's queue; the
// cache is guarded.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

#include "core/clock.hpp"
#include "core/result.hpp"
#include "store/historical_energy_math.hpp"
#include "store/history_read_records.hpp"
#include "store/history_records.hpp"

namespace quorel {

class QuorelDatabase;

// A region by the raw text the settings store for it, and its grid's intensity.
struct CarbonRegionIntensity {
  std::string_view rawValue;
  double gramsCO2PerKWh = 0;

  bool operator==(const CarbonRegionIntensity&) const = default;
};

inline constexpr std::array<CarbonRegionIntensity, 6> kCarbonRegions{{
    {"US Average", 370},
    {"EU Average", 230},
    {"UK Average", 180},
    {"Australia", 510},
    {"India", 700},
    {"China", 540},
}};

// Absent for a text that names no region.
std::optional<CarbonRegionIntensity> carbonRegionNamed(std::string_view rawValue);

class CarbonFootprintService {
 public:
  // `database` must outlive the service.
  explicit CarbonFootprintService(QuorelDatabase& database);
  CarbonFootprintService(const CarbonFootprintService&) = delete;
  CarbonFootprintService& operator=(const CarbonFootprintService&) = delete;

  // Every sample of the local day of `now`, up to `now`, unthinned. A failed read is an error,
  // not zero grams, and leaves the cache as it was.
  Result<double> todayCO2Grams(const CarbonRegionIntensity& region, TimePoint now);

  // What the machine drew, in kWh: the input power beyond what went into the battery while a
  // reading of it exists, the battery's discharge otherwise. A connected adapter without a
  // reading is unknown, and a stretch touching it is left out rather than counted as 0 W.
  static double integratedKWh(const std::vector<PowerSample>& samples);

  // How many times the day's samples have been read and integrated, wholly or from where the
  // last reading ended (diagnostics and tests).
  std::uint64_t integrations() const { return integrations_.load(); }

 private:
  QuorelDatabase& database_;
  // The day integrated so far: what its samples were when read, the energy, and the last point,
  // which the next new sample pairs with.
  struct Day {
    TimePoint start;
    PowerSampleTally tally;
    // Of the tally, the samples at its last time, which a later read starting there sees again.
    std::size_t countAtLast = 0;
    std::optional<EnergyPoint> lastPoint;
    double wattHours = 0;
  };

  // The day as of `tally` from `previous`, or from nothing when that cannot be done.
  Result<Day> advance(const std::optional<Day>& previous, TimePoint start, TimePoint now,
                      const PowerSampleTally& tally);

  std::mutex cacheLock_;
  std::optional<Day> day_;
  std::atomic<std::uint64_t> integrations_{0};
};

}  // namespace quorel
