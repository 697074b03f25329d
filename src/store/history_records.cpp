#include "store/history_records.hpp"

#include <fmt/format.h>

#include <array>
#include <cmath>
#include <utility>

namespace quorel {

namespace {

constexpr std::array<std::pair<CollectionIntervalStatus, std::string_view>, 4> kStatuses{{
    {CollectionIntervalStatus::collected, "collected"},
    {CollectionIntervalStatus::sleep, "sleep"},
    {CollectionIntervalStatus::missing, "missing"},
    {CollectionIntervalStatus::rejected, "rejected"},
}};

}  // namespace

std::string_view toString(CollectionIntervalStatus status) {
  for (const auto& [s, name] : kStatuses) {
    if (s == status) return name;
  }
  return "missing";
}

std::optional<CollectionIntervalStatus> collectionIntervalStatusFromString(std::string_view s) {
  for (const auto& [status, name] : kStatuses) {
    if (name == s) return status;
  }
  return std::nullopt;
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
