#include "core/iso8601.hpp"

#include <chrono>
#include <cstdint>

namespace quorel {

namespace {

std::optional<int> digits(std::string_view text, std::size_t at, std::size_t count) {
  if (at + count > text.size()) return std::nullopt;
  int value = 0;
  for (std::size_t i = at; i < at + count; ++i) {
    if (text[i] < '0' || text[i] > '9') return std::nullopt;
    value = value * 10 + (text[i] - '0');
  }
  return value;
}

}  // namespace

std::optional<TimePoint> parseIso8601(std::string_view t) {
  const auto year = digits(t, 0, 4), month = digits(t, 5, 2), day = digits(t, 8, 2),
             hour = digits(t, 11, 2), minute = digits(t, 14, 2), second = digits(t, 17, 2);
  if (!year || !month || !day || !hour || !minute || !second || t[4] != '-' || t[7] != '-' ||
      (t[10] != 'T' && t[10] != 't') || t[13] != ':' || t[16] != ':') {
    return std::nullopt;
  }
  // A leap second (:60) reads as the first second of the next minute.
  if (*hour > 23 || *minute > 59 || *second > 60) return std::nullopt;
  const std::chrono::year_month_day date{std::chrono::year{*year},
                                         std::chrono::month{static_cast<unsigned>(*month)},
                                         std::chrono::day{static_cast<unsigned>(*day)}};
  if (!date.ok()) return std::nullopt;

  std::size_t at = 19;
  // The fraction is kept in whole nanoseconds apart from the seconds: added to a present-day
  // count of seconds in a double it would lose its last digits, and ".123" would write back
  // as ".122".
  std::int64_t fraction_ns = 0;
  if (at < t.size() && t[at] == '.') {
    std::int64_t scale = 100'000'000;
    const std::size_t start = ++at;
    while (at < t.size() && t[at] >= '0' && t[at] <= '9') {
      fraction_ns += (t[at] - '0') * scale;
      scale /= 10;
      ++at;
    }
    if (at == start) return std::nullopt;
  }
  if (at >= t.size()) return std::nullopt;
  int offsetSeconds = 0;
  if (t[at] == 'Z' || t[at] == 'z') {
    ++at;
  } else if (t[at] == '+' || t[at] == '-') {
    const auto oh = digits(t, at + 1, 2), om = digits(t, at + 4, 2);
    if (!oh || !om || t[at + 3] != ':' || *oh > 23 || *om > 59) return std::nullopt;
    offsetSeconds = (t[at] == '-' ? -1 : 1) * (*oh * 3600 + *om * 60);
    at += 6;
  } else {
    return std::nullopt;
  }
  if (at != t.size()) return std::nullopt;

  const std::int64_t days = std::chrono::sys_days(date).time_since_epoch().count();
  const std::int64_t utc = days * 86400 + *hour * 3600 + *minute * 60 + *second;
  return TimePoint{std::chrono::duration_cast<TimePoint::duration>(
      std::chrono::seconds(utc - offsetSeconds) + std::chrono::nanoseconds(fraction_ns))};
}

}  // namespace quorel
