#include "core/local_time.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <thread>
#include <vector>

#include "core/iso8601.hpp"
#include "support/zone_guard.hpp"

namespace quorel {
namespace {

using testing::ZoneGuard;

// 2026-03-01T20:00:00Z
const TimePoint kEvening = fromUnixSeconds(1'772'395'200);
constexpr double kMarchFirstUtc = 1'772'323'200;

TEST(LocalTimeTest, DaysAndFieldsAreLocalAndFollowAChangeOfZone) {
  ZoneGuard zone("UTC0");
  EXPECT_EQ(dayIdentity(kEvening), (DayIdentity{"2026-03-01", kMarchFirstUtc}));
  EXPECT_EQ(localDateTime(kEvening), (LocalDateTime{2026, 3, 1, 20, 0, 0}));
  // Ten hours east it is already the next morning, and that day began at 14:00 UTC.
  zone.set("XST-10");
  EXPECT_EQ(dayIdentity(kEvening), (DayIdentity{"2026-03-02", kMarchFirstUtc + 14 * 3600}));
  EXPECT_EQ(localDateTime(kEvening), (LocalDateTime{2026, 3, 2, 6, 0, 0}));
  // Five hours west, the same evening is still the first.
  zone.set("YST5");
  EXPECT_EQ(dayIdentity(kEvening), (DayIdentity{"2026-03-01", kMarchFirstUtc + 5 * 3600}));
  EXPECT_EQ(localDateTime(fromUnixSeconds(1'772'395'200.999)),
            (LocalDateTime{2026, 3, 1, 15, 0, 0}))
      << "fractions of a second are dropped, not rounded";
}

TEST(LocalTimeTest, StartOfADayWithADaylightSavingChangeIsItsLocalMidnight) {
  ZoneGuard zone("EST5EDT,M3.2.0,M11.1.0");
  // 2026-03-08 is the change to summer time; at 23:00 local (EDT) it is 03:00Z next day, and the
  // day began at 05:00Z, midnight EST.
  EXPECT_EQ(dayIdentity(fromUnixSeconds(1'773'025'200)),
            (DayIdentity{"2026-03-08", 1'772'946'000}));
}

TEST(LocalTimeTest, ZoneChangesRaceNoReader) {
  // Run under ThreadSanitizer: the readers and the writer of TZ share one lock.
  ZoneGuard zone("UTC0");
  std::vector<std::thread> readers;
  for (int r = 0; r < 3; ++r) {
    readers.emplace_back([] {
      for (int i = 0; i < 300; ++i) {
        const auto key = dayIdentity(kEvening).key;
        ASSERT_TRUE(key == "2026-03-01" || key == "2026-03-02") << key;
      }
    });
  }
  for (int i = 0; i < 300; ++i) {
    setTimeZone(i % 2 == 0 ? "XST-10" : "UTC0");
  }
  for (auto& t : readers) t.join();
  setTimeZone("XST-10");
  EXPECT_EQ(dayIdentity(kEvening).key, "2026-03-02");
}

TEST(Iso8601Test, ReadsFractionsAndOffsetsAndRefusesWhatIsNoInstant) {
  constexpr double kT0 = 1'800'000'000;  // 2027-01-15T08:00:00Z
  EXPECT_EQ(parseIso8601("2027-01-15T08:00:00Z"), fromUnixSeconds(kT0));
  EXPECT_EQ(parseIso8601("2027-01-15t08:00:00.250z"), fromUnixSeconds(kT0 + 0.25));
  EXPECT_EQ(parseIso8601("2027-01-15T09:30:00+01:30"), fromUnixSeconds(kT0));
  EXPECT_EQ(parseIso8601("2027-01-15T03:00:00-05:00"), fromUnixSeconds(kT0));
  EXPECT_EQ(parseIso8601("2028-02-29T00:00:00Z"), fromUnixSeconds(1'835'395'200));
  EXPECT_EQ(parseIso8601("1969-12-31T23:59:59Z"), fromUnixSeconds(-1));
  EXPECT_EQ(parseIso8601("2027-01-15T07:59:60Z"), fromUnixSeconds(kT0)) << "a leap second";
  for (const char* bad :
       {"", "2027-01-15T08:00:00", "2027-01-15T08:00:00.Z", "2027-01-15 08:00:00Z",
        "2027-02-29T08:00:00Z", "2027-04-31T08:00:00Z", "2027-13-01T08:00:00Z",
        "2027-01-15T24:00:00Z", "2027-01-15T08:00:00+0100", "2027-01-15T08:00:00+01:00x",
        "2027-01-15T08:00:00+24:00", "2027-1-15T08:00:00Z"}) {
    EXPECT_FALSE(parseIso8601(bad)) << bad;
  }
  // What formatIso8601 writes, it reads back, every millisecond of a present-day second.
  for (int ms = 0; ms < 1000; ++ms) {
    char text[32];
    std::snprintf(text, sizeof text, "2026-11-23T22:29:12.%03dZ", ms);
    const auto parsed = parseIso8601(text);
    ASSERT_TRUE(parsed) << text;
    EXPECT_EQ(formatIso8601(*parsed), text);
  }
  EXPECT_EQ(formatIso8601(*parseIso8601("2027-01-15T08:00:00.1239999999Z")),
            "2027-01-15T08:00:00.123Z")
      << "digits past the nanosecond are dropped, not rounded up";
}

}  // namespace
}  // namespace quorel
