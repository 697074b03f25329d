#include "store/energy_rollup.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <unordered_map>
#include <utility>

namespace quorel {

namespace {

constexpr double kHour = 3600;
constexpr double kDay = 86400;
constexpr std::int64_t kHoursPerDay = 24;
// Windows beyond this (about 30,000 years either side of 1970) are answered from the rows alone;
// row times beyond the wider bound are pinned to it, so no bucket a window can use holds them.
constexpr double kWindowBound = 1e12;
constexpr double kRowBound = 2e12;
// Days whose hours are kept: the two ends of a few windows.
constexpr std::size_t kHourBlocksKept = 8;

// The bucket of `width` seconds that holds t; exact at the boundaries, where t / width may round.
std::int64_t bucketOf(double t, double width) {
  t = std::clamp(t, -kRowBound, kRowBound);
  auto k = static_cast<std::int64_t>(std::floor(t / width));
  if (static_cast<double>(k) * width > t) --k;
  if (static_cast<double>(k + 1) * width <= t) ++k;
  return k;
}

// The first boundary at or after t.
std::int64_t boundaryAtOrAfter(double t, double width) {
  const std::int64_t k = bucketOf(t, width);
  return static_cast<double>(k) * width == t ? k : k + 1;
}

std::int64_t floorDiv(std::int64_t a, std::int64_t b) {
  return a / b - (a % b != 0 && (a < 0) != (b < 0));
}

// Precedence of the quality words, worst first, as the ranking reports them.
constexpr HistoricalValueQuality kWorstFirst[] = {
    HistoricalValueQuality::rejected, HistoricalValueQuality::legacy,
    HistoricalValueQuality::estimated, HistoricalValueQuality::inferred,
    HistoricalValueQuality::measured};

std::uint8_t qualityBit(std::string_view word) {
  for (std::size_t i = 0; i < std::size(kWorstFirst); ++i) {
    if (word == toString(kWorstFirst[i])) return static_cast<std::uint8_t>(1U << i);
  }
  return 0;  // 'unavailable' or an unknown word: only the absence of the others reports it
}

}  // namespace

void ExactSum::add(double x) {
  const double sum = high_ + x;
  const double xPart = sum - high_;
  low_ += (high_ - (sum - xPart)) + (x - xPart);
  high_ = sum;
}

void ExactSum::add(const ExactSum& other) {
  add(other.high_);
  low_ += other.low_;
}

double ExactSum::value() const {
  return std::isfinite(high_) ? high_ + low_ : high_;
}

void EnergyRollup::Totals::add(const Row& row) {
  energy.add(row.energyWh);
  observed.add(row.observed_s);
  missing.add(row.missing_s);
  if (row.coverage) {
    covered.add(*row.coverage * row.observed_s);
    coverageBase.add(row.observed_s);
  }
  if (row.peakWatts && (!hasPeak || *row.peakWatts > peak)) {
    peak = *row.peakWatts;
    hasPeak = true;
  }
  qualities |= qualityBit(row.quality);
}

void EnergyRollup::Totals::add(const Totals& other) {
  energy.add(other.energy);
  observed.add(other.observed);
  missing.add(other.missing);
  covered.add(other.covered);
  coverageBase.add(other.coverageBase);
  if (other.hasPeak && (!hasPeak || other.peak > peak)) {
    peak = other.peak;
    hasPeak = true;
  }
  qualities |= other.qualities;
}

void EnergyRollup::reset(std::optional<double> latestRow) {
  ready_ = true;
  completeFromDay_ =
      latestRow ? bucketOf(*latestRow, kDay) + 1 : std::numeric_limits<std::int64_t>::min();
  days_.clear();
  hourBlocks_.clear();
}

std::uint32_t EnergyRollup::idOf(std::string_view identifier) {
  if (const auto found = ids_.find(identifier); found != ids_.end()) return found->second;
  const auto id = static_cast<std::uint32_t>(names_.size());
  names_.emplace_back(identifier);
  ids_.emplace(names_.back(), id);
  return id;
}

EnergyRollup::Totals& EnergyRollup::slot(Bucket& bucket, std::string_view identifier) {
  const std::uint32_t id = idOf(identifier);
  auto at =
      std::lower_bound(bucket.begin(), bucket.end(), id,
                       [](const auto& entry, std::uint32_t key) { return entry.first < key; });
  if (at == bucket.end() || at->first != id) at = bucket.insert(at, {id, Totals{}});
  return at->second;
}

void EnergyRollup::add(const Row& row) {
  if (!ready_) return;
  const std::int64_t day = bucketOf(row.timestamp, kDay);
  if (day >= completeFromDay_) slot(days_[day], row.identifier).add(row);
  if (const auto block = hourBlocks_.find(day); block != hourBlocks_.end()) {
    const std::int64_t hour = bucketOf(row.timestamp, kHour) - day * kHoursPerDay;
    slot(block->second.hours[static_cast<std::size_t>(hour)], row.identifier).add(row);
  }
}

void EnergyRollup::forgetBefore(double cutoff) {
  if (!ready_ || std::isnan(cutoff)) return;
  const std::int64_t firstKept = boundaryAtOrAfter(cutoff, kDay);
  days_.erase(days_.begin(), days_.lower_bound(firstKept));
  hourBlocks_.erase(hourBlocks_.begin(), hourBlocks_.lower_bound(firstKept));
  completeFromDay_ = std::max(completeFromDay_, firstKept);
}

bool EnergyRollup::ensureDays(std::int64_t firstDay, const RowSource& rows) {
  if (firstDay >= completeFromDay_) return true;
  const double from = static_cast<double>(firstDay) * kDay;
  const double to = static_cast<double>(completeFromDay_) * kDay;
  const bool read = rows(from, to, false, [&](const Row& row) {
    slot(days_[bucketOf(row.timestamp, kDay)], row.identifier).add(row);
  });
  if (!read) {
    days_.erase(days_.lower_bound(firstDay), days_.lower_bound(completeFromDay_));
    return false;
  }
  completeFromDay_ = firstDay;
  return true;
}

EnergyRollup::HourBlock* EnergyRollup::hourBlock(std::int64_t day, const RowSource& rows) {
  if (auto found = hourBlocks_.find(day); found != hourBlocks_.end()) {
    found->second.lastUse = ++uses_;
    return &found->second;
  }
  HourBlock block;
  const double start = static_cast<double>(day) * kDay;
  const bool read = rows(start, start + kDay, false, [&](const Row& row) {
    const std::int64_t hour = bucketOf(row.timestamp, kHour) - day * kHoursPerDay;
    slot(block.hours[static_cast<std::size_t>(std::clamp<std::int64_t>(hour, 0, 23))],
         row.identifier)
        .add(row);
  });
  if (!read) return nullptr;
  if (hourBlocks_.size() >= kHourBlocksKept) {
    hourBlocks_.erase(
        std::min_element(hourBlocks_.begin(), hourBlocks_.end(),
                         [](auto& a, auto& b) { return a.second.lastUse < b.second.lastUse; }));
  }
  block.lastUse = ++uses_;
  return &hourBlocks_.insert_or_assign(day, std::move(block)).first->second;
}

std::optional<std::vector<TrackedEnergySummary>> EnergyRollup::rank(double from, double to,
                                                                    int limit,
                                                                    const RowSource& rows) {
  std::vector<TrackedEnergySummary> ranked;
  if (!(from <= to)) return ranked;  // BETWEEN of an inverted window holds nothing
  std::unordered_map<std::uint32_t, Totals> totals;
  bool ok = true;
  const auto fromRows = [&](double a, double b, bool includeB) {
    ok = ok && rows(a, b, includeB, [&](const Row& row) { totals[idOf(row.identifier)].add(row); });
  };
  const auto merge = [&](const Bucket& bucket) {
    for (const auto& [id, t] : bucket) totals[id].add(t);
  };
  const auto fromHours = [&](std::int64_t first, std::int64_t end) {
    for (std::int64_t hour = first; ok && hour < end;) {
      const std::int64_t day = floorDiv(hour, kHoursPerDay);
      const std::int64_t dayEnd = std::min(end, (day + 1) * kHoursPerDay);
      const HourBlock* block = hourBlock(day, rows);
      ok = block != nullptr;
      for (; ok && hour < dayEnd; ++hour) {
        merge(block->hours[static_cast<std::size_t>(hour - day * kHoursPerDay)]);
      }
    }
  };

  const std::int64_t firstHour = boundaryAtOrAfter(from, kHour);
  const std::int64_t endHour = bucketOf(to, kHour);
  if (from < -kWindowBound || to > kWindowBound || firstHour >= endHour) {
    fromRows(from, to, true);
  } else {
    fromRows(from, static_cast<double>(firstHour) * kHour, false);
    fromRows(static_cast<double>(endHour) * kHour, to, true);
    const std::int64_t firstDay = floorDiv(firstHour + kHoursPerDay - 1, kHoursPerDay);
    const std::int64_t endDay = floorDiv(endHour, kHoursPerDay);
    if (firstDay < endDay) {
      fromHours(firstHour, firstDay * kHoursPerDay);
      ok = ok && ensureDays(firstDay, rows);
      for (auto day = days_.lower_bound(firstDay); ok && day != days_.end() && day->first < endDay;
           ++day) {
        merge(day->second);
      }
      fromHours(endDay * kHoursPerDay, endHour);
    } else {
      fromHours(firstHour, endHour);
    }
  }
  if (!ok) return std::nullopt;

  ranked.reserve(totals.size());
  for (const auto& [id, t] : totals) {
    TrackedEnergySummary s;
    s.identifier = names_[id];
    s.energyWh = t.energy.value();
    s.observedDuration_s = t.observed.value();
    s.missingDuration_s = t.missing.value();
    s.averageWatts = s.observedDuration_s > 0 ? s.energyWh * 3600.0 / s.observedDuration_s : 0;
    s.peakWatts = t.hasPeak ? t.peak : 0;
    const double seen = s.observedDuration_s + s.missingDuration_s;
    if (const double base = t.coverageBase.value(); base > 0) {
      s.coverageRatio = std::min(t.covered.value() / base, 1.0);
    } else {
      s.coverageRatio = seen > 0 ? s.observedDuration_s / seen : 0;
    }
    s.quality = HistoricalValueQuality::unavailable;
    for (std::size_t i = 0; i < std::size(kWorstFirst); ++i) {
      if (t.qualities & (1U << i)) {
        s.quality = kWorstFirst[i];
        break;
      }
    }
    ranked.push_back(std::move(s));
  }
  // Equal energies are ordered by identifier, so that a limit cuts the same names every time.
  const auto before = [](const TrackedEnergySummary& a, const TrackedEnergySummary& b) {
    return a.energyWh != b.energyWh ? a.energyWh > b.energyWh : a.identifier < b.identifier;
  };
  const std::size_t kept =
      limit < 0 ? ranked.size() : std::min(ranked.size(), static_cast<std::size_t>(limit));
  std::partial_sort(ranked.begin(), ranked.begin() + static_cast<std::ptrdiff_t>(kept),
                    ranked.end(), before);
  ranked.resize(kept);
  return ranked;
}

}  // namespace quorel
