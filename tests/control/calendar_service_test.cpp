#include "control/calendar_service.hpp"

#include <gtest/gtest.h>

#include <chrono>

namespace quorel {
namespace {

using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;

// Serves a fixed list the way a real source would: only the events within the asked window.
class ScriptedSource final : public CalendarEventSource {
 public:
  std::vector<BatteryControlCalendarEvent> events(TimePoint from, TimePoint to) override {
    ++fetches;
    std::vector<BatteryControlCalendarEvent> out;
    for (const auto& e : listed) {
      if (e.startDate >= from && e.startDate <= to) out.push_back(e);
    }
    return out;
  }
  CalendarAuthorization authorization() const override { return access; }
  bool refresh() override {
    ++refreshes;
    return false;
  }

  std::vector<BatteryControlCalendarEvent> listed;
  CalendarAuthorization access = CalendarAuthorization::fullAccess;
  int fetches = 0;
  int refreshes = 0;
};

struct Fixture {
  ManualClock clock;
  ScriptedSource source;
  CalendarService service{source, clock};
  TimePoint in(std::chrono::system_clock::duration d) const { return clock.now() + d; }
};

TEST(CalendarService, PredictsTheBatteryAtTheFirstEventAheadWithinEightHours) {
  struct Case {
    const char* name;
    std::vector<std::pair<std::string, std::chrono::system_clock::duration>> events;
    double currentPct;
    double drainRatePerHour;
    CalendarAuthorization access;
    std::optional<std::pair<std::string, double>> expected;
  };
  const auto full = CalendarAuthorization::fullAccess;
  const std::vector<Case> cases = {
      {"two hours at ten an hour",
       {{"Review", hours(2)}},
       80,
       10,
       full,
       std::pair<std::string, double>{"Review", 60}},
      {"exactly eight hours counts",
       {{"Late", hours(8)}},
       80,
       5,
       full,
       std::pair<std::string, double>{"Late", 40}},
      {"an event already started is passed over",
       {{"Now", -seconds(60)}, {"Next", hours(1)}},
       50,
       10,
       full,
       std::pair<std::string, double>{"Next", 40}},
      {"never below empty",
       {{"Far", hours(6)}},
       30,
       10,
       full,
       std::pair<std::string, double>{"Far", 0}},
      {"an untitled event gets a name",
       {{"", minutes(30)}},
       50,
       20,
       full,
       std::pair<std::string, double>{CalendarService::kUntitledEventTitle, 40}},
      {"just past eight hours", {{"Too late", hours(8) + seconds(1)}}, 90, 5, full, std::nullopt},
      {"no drain", {{"Review", hours(2)}}, 80, 0, full, std::nullopt},
      {"charging", {{"Review", hours(2)}}, 80, -12, full, std::nullopt},
      {"not readable", {{"Review", hours(2)}}, 80, 10, CalendarAuthorization::denied, std::nullopt},
      {"nothing ahead", {{"Done", -minutes(1)}}, 80, 10, full, std::nullopt},
  };
  for (const auto& c : cases) {
    Fixture f;
    for (const auto& [title, offset] : c.events) f.source.listed.push_back({title, f.in(offset)});
    f.source.access = c.access;
    const auto predicted = f.service.predictBatteryAtNextEvent(c.currentPct, c.drainRatePerHour);
    ASSERT_EQ(predicted.has_value(), c.expected.has_value()) << c.name;
    if (!predicted) continue;
    EXPECT_EQ(predicted->eventName, c.expected->first) << c.name;
    EXPECT_NEAR(predicted->predictedPct, c.expected->second, 1e-9) << c.name;
  }
}

TEST(CalendarService, KeepsEventsFifteenMinutesUnlessInvalidated) {
  Fixture f;
  f.source.listed = {{"B", f.in(hours(3))}, {"A", f.in(hours(1))}};
  const auto first = f.service.getUpcomingEvents();
  ASSERT_EQ(first.size(), 2u);
  EXPECT_EQ(first[0].title, "A") << "in start order";

  f.source.listed.push_back({"C", f.in(hours(2))});
  f.clock.advance(Seconds{899});
  EXPECT_EQ(f.service.getUpcomingEvents().size(), 2u);
  EXPECT_EQ(f.source.fetches, 1);
  f.clock.advance(Seconds{1});
  EXPECT_EQ(f.service.getUpcomingEvents().size(), 3u);
  EXPECT_EQ(f.source.fetches, 2);

  f.source.listed.clear();
  f.service.invalidate();
  EXPECT_TRUE(f.service.getUpcomingEvents().empty());
  EXPECT_EQ(f.source.fetches, 3);

  // Setting the wall clock back does not make the cache look fresh for longer.
  f.source.listed = {{"D", f.in(hours(1))}};
  f.clock.set(f.clock.now() - hours(24));
  f.clock.advance(Seconds{900});
  EXPECT_EQ(f.service.getUpcomingEvents().size(), 0u) << "D is a day ahead of the new wall time";
  EXPECT_EQ(f.source.fetches, 4);
}

TEST(BatteryDrainRatePerHour, ComesFromTheWattsOnBatteryOnly) {
  PowerState draining;
  draining.batteryInstalled = true;
  draining.smoothedWattage = -11.4;
  draining.maxCapacity_mAh = 5000;
  draining.voltage_mV = 11400;  // 57 Wh
  draining.batteryPercentage = 60;
  ASSERT_TRUE(batteryDrainRatePerHour(draining).has_value());
  EXPECT_NEAR(*batteryDrainRatePerHour(draining), 20.0, 1e-9);

  PowerState unknownCapacity = draining;
  unknownCapacity.maxCapacity_mAh = 0;
  unknownCapacity.timeRemaining_min = 180;
  EXPECT_NEAR(batteryDrainRatePerHour(unknownCapacity).value_or(-1), 20.0, 1e-9);
  unknownCapacity.timeRemaining_min.reset();
  unknownCapacity.calculatedTimeRemaining_min = -120;
  EXPECT_NEAR(batteryDrainRatePerHour(unknownCapacity).value_or(-1), 30.0, 1e-9);
  unknownCapacity.calculatedTimeRemaining_min = 120;  // time to full: no drain to speak of
  EXPECT_EQ(batteryDrainRatePerHour(unknownCapacity), std::nullopt);

  PowerState plugged = draining;
  plugged.externalConnected = true;
  EXPECT_EQ(batteryDrainRatePerHour(plugged), std::nullopt);
}

}  // namespace
}  // namespace quorel
