#include "store/history_records.hpp"

#include <fmt/format.h>

#include <cmath>

#include "core/enum_text.hpp"

namespace quorel {

namespace {

constexpr EnumTextTable<CollectionIntervalStatus, 4> kStatuses{{{
    {CollectionIntervalStatus::collected, "collected"},
    {CollectionIntervalStatus::sleep, "sleep"},
    {CollectionIntervalStatus::missing, "missing"},
    {CollectionIntervalStatus::rejected, "rejected"},
}}};

}  // namespace

std::string_view toString(CollectionIntervalStatus status) {
  return kStatuses.text(status, "missing");
}

std::optional<CollectionIntervalStatus> collectionIntervalStatusFromString(std::string_view s) {
  return kStatuses.parse(s);
}

std::string SessionRecord::durationText() const {
  // A reversed or non-finite span cannot come from a stored session; it reads as no time at all
  // rather than as a negative duration.
  const double seconds = secondsBetween(startTime, endTime);
  const long minutes =
      std::isfinite(seconds) && seconds > 0 ? static_cast<long>(std::trunc(seconds / 60.0)) : 0;
  if (minutes < 60) return fmt::format("{}m", minutes);
  return fmt::format("{}h {}m", minutes / 60, minutes % 60);
}

}  // namespace quorel
