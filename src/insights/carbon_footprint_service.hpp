#pragma once
// Grams of CO2 behind the electricity drawn since local midnight, at a fixed grid intensity for
// the region the user chose. The day's energy is integrated again only when the day's samples
// changed, which the refresh loop mostly finds they have not.
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
  // What identifies a day's sample set without reading it twice: samples are only appended,
  // so the same count and last time mean the same energy.
  struct Signature {
    TimePoint startOfDay;
    std::size_t count = 0;
    std::optional<TimePoint> lastTimestamp;

    bool operator==(const Signature&) const = default;
  };

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

  // How many times the day's energy has been integrated (diagnostics and tests).
  std::uint64_t integrations() const { return integrations_.load(); }

 private:
  QuorelDatabase& database_;
  std::mutex cacheLock_;
  std::optional<Signature> cachedSignature_;
  double cachedKWh_ = 0;
  std::atomic<std::uint64_t> integrations_{0};
};

}  // namespace quorel
