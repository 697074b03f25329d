#pragma once
// Reading ISO-8601 internet date-times, the counterpart of formatIso8601 in core/clock.hpp.

#include <optional>
#include <string_view>

#include "core/clock.hpp"

namespace quorel {

// "YYYY-MM-DDTHH:MM:SS[.fraction](Z|+HH:MM|-HH:MM)". A time without a zone is ambiguous and
// refused, as is a calendar date that does not exist (31 April, 29 February of a common year).
std::optional<TimePoint> parseIso8601(std::string_view text);

}  // namespace quorel
