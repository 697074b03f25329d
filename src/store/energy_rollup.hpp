#pragma once
// The energy ranking kept in memory beside one energy table, so that ranking a month does not
// read a month of rows. Whole days of the window come from per-day totals, whole hours at its
// ends from per-hour totals of those two days, and the minutes left over from the rows.
//
// It is derived data, never stored: the owner rebuilds it whenever it cannot vouch for it
// (another connection wrote, rows were deleted) and folds in its own committed rows. Not
// thread-safe; the owner calls it from its database queue only.

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "store/history_read_records.hpp"

namespace quorel {

// A floating sum carried with its rounding error (two-sum), so that the total does not depend
// on the order in which rows and buckets are added: a bucketed sum and a row-by-row sum of the
// same values round to the same double.
class ExactSum {
 public:
  void add(double x);
  void add(const ExactSum& other);
  double value() const;

 private:
  double high_ = 0;
  double low_ = 0;
};

class EnergyRollup {
 public:
  // One row as the table holds it.
  struct Row {
    double timestamp = 0;
    std::string_view identifier;
    double energyWh = 0;
    double observed_s = 0;
    double missing_s = 0;
    std::optional<double> peakWatts;
    std::optional<double> coverage;
    std::string_view quality;
  };
  using RowVisitor = std::function<void(const Row&)>;
  // Visits the rows with from <= timestamp < to (<= to when `includeTo`); false when the rows
  // could not be read.
  using RowSource =
      std::function<bool(double from, double to, bool includeTo, const RowVisitor& visit)>;

  // Forget everything. `latestRow` is the table's latest timestamp (absent when it is empty):
  // days after it are known to be empty, so rows committed from now on fold into them.
  void reset(std::optional<double> latestRow);
  // False until the first reset.
  bool isReady() const { return ready_; }
  // A row this connection committed.
  void add(const Row& row);
  // Rows before `cutoff` were deleted: drop every bucket that held any of them.
  void forgetBefore(double cutoff);
  // The summaries of [from, to] ordered by energy, then by identifier; at most `limit` of them
  // (all when negative). Absent when the rows behind it could not be read.
  std::optional<std::vector<TrackedEnergySummary>> rank(double from, double to, int limit,
                                                        const RowSource& rows);

 private:
  struct Totals {
    ExactSum energy, observed, missing, covered, coverageBase;
    double peak = 0;
    bool hasPeak = false;
    std::uint8_t qualities = 0;  // a bit per quality word seen
    void add(const Row& row);
    void add(const Totals& other);
  };
  using Bucket = std::vector<std::pair<std::uint32_t, Totals>>;  // sorted by name id
  struct HourBlock {
    std::vector<Bucket> hours = std::vector<Bucket>(24);
    std::uint64_t lastUse = 0;
  };
  struct StringHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
  };

  std::uint32_t idOf(std::string_view identifier);
  Totals& slot(Bucket& bucket, std::string_view identifier);
  bool ensureDays(std::int64_t firstDay, const RowSource& rows);
  HourBlock* hourBlock(std::int64_t day, const RowSource& rows);

  bool ready_ = false;
  // Days from here on are complete; earlier ones are built from the rows when asked for.
  std::int64_t completeFromDay_ = 0;
  std::map<std::int64_t, Bucket> days_;
  // Only the days at the ends of recent windows; the least recently used goes first.
  std::map<std::int64_t, HourBlock> hourBlocks_;
  std::uint64_t uses_ = 0;
  std::vector<std::string> names_;
  std::unordered_map<std::string, std::uint32_t, StringHash, std::equal_to<>> ids_;
};

}  // namespace quorel
