#include "store/history_read_records.hpp"

#include <algorithm>
#include <array>
#include <utility>

namespace quorel {

double HistoricalCoverageSummary::coverageRatio() const {
  const double collected = std::max(collectedSeconds, 0.0);
  const double missing = std::max(missingSeconds, 0.0);
  const double sum = collected + missing;
  if (!(sum > 0)) return 0;
  return std::min(collected / sum, 1.0);
}

}  // namespace quorel
