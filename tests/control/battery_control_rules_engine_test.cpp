#include "control/battery_control_rules_engine.hpp"

#include <gtest/gtest.h>

#include <thread>

#include "control/helper_contract.hpp"
#include "core/memory_preference_store.hpp"
#include "fake_top_off_sources.hpp"
#include "support/log_capture.hpp"

namespace quorel {
namespace {

using namespace std::chrono_literals;
using Calls = std::vector<std::string>;

const std::string kStandup = "1F0C7E52-3C1B-4E4B-9A55-0D7E3B1C2A01";
const std::string kReview = "2A9B3C44-5D6E-4F70-8192-A3B4C5D6E7F8";
const std::string kOffice = "3B1D2E3F-4A5B-4C6D-8E7F-901A2B3C4D5E";
const std::string kHome = "4C2E3F40-5B6C-4D7E-9F80-A1B2C3D4E5F6";

TopOffRule calendar(const std::string& id, std::string title, std::int64_t lead = 30) {
  return TopOffRule{CalendarTopOffRule{id, std::move(title), lead}};
}
TopOffRule geofence(const std::string& id, double radius = 200) {
  return TopOffRule{GeofenceTopOffRule{id, 48.8566, 2.3522, radius, "Office"}};
}

class RulesEngineTest : public ::testing::Test {
 protected:
  RulesEngineTest() {
    engine_.addFireHandler([this](const TopOffRule& rule) { fired_.push_back(rule.id()); });
  }
  void startWith(std::vector<TopOffRule> rules) {
    source_.rules = std::move(rules);
    engine_.start();
    main_.runPending();
  }
  // Replaces the calendar and the rules, forgets every rest, and polls once.
  Calls pollWith(std::vector<TopOffRule> rules, const std::string& title, Seconds fromNow) {
    fired_.clear();
    for (const auto& r : rules)
      defaults_.removeValue(BatteryControlRulesEngine::cooldownKey(r.id()));
    calendar_.events = {{title, clock_.now() + std::chrono::duration_cast<Duration>(fromNow)}};
    source_.publish(std::move(rules));
    engine_.pollCalendarRules();
    return fired_;
  }
  void minutePasses() {
    clock_.advance(60s);
    main_.runPending();
  }
  using Duration = std::chrono::system_clock::duration;

  ManualClock clock_;
  SerialQueue main_{"test.main", clock_};
  MemoryPreferenceStore defaults_;
  testing::FakeCalendar calendar_{clock_};
  testing::FakeLocationMonitor location_;
  testing::FakeRulesSource source_;
  BatteryControlRulesEngine engine_{source_, calendar_, location_, defaults_, clock_, main_};
  Calls fired_;
  testing::LogCapture logs_;
};

TEST_F(RulesEngineTest, CalendarRulesMatchTitlesWithinTheLeadAndTwoMinutesBack) {
  startWith({});
  struct Case {
    const char* rule;
    const char* event;
    Seconds start;
    bool fires;
  };
  const Case cases[] = {
      {"standup", "Daily STANDUP call", 10min, true},
      {"  Standup\n", "standup", 10min, true},
      {"réunion", "RÉUNION d'équipe", 10min, true},
      {"standup", "Stand up", 10min, false},
      {"   ", "   ", 10min, false},
      {"\n\t", "Daily standup", 10min, false},
      {"standup", "Standup", 30min, true},
      {"standup", "Standup", 31min, false},
      {"standup", "Standup", -90s, true},
      {"standup", "Standup", -3min, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.rule) + " / " + c.event + " at " + std::to_string(c.start.count()));
    EXPECT_EQ(pollWith({calendar(kStandup, c.rule, 30)}, c.event, c.start),
              c.fires ? Calls{kStandup} : Calls{});
  }
  // Stored leads beyond a day look a day ahead; leads below one minute are not polled.
  calendar_.requestedMinutes.clear();
  pollWith({calendar(kStandup, "standup", 2000), calendar(kReview, "review", 0)}, "x", 0s);
  EXPECT_EQ(calendar_.requestedMinutes, std::vector<int>{1440});
}

TEST_F(RulesEngineTest, PollsOnceAtStartThenEveryMinuteAndRestsSixHoursAfterAFiring) {
  source_.rules = {calendar(kStandup, "standup")};
  calendar_.events = {{"Standup", clock_.now()}, {"Standup too", clock_.now() + 5min}};
  clock_.advance(100s);
  main_.runPending();
  EXPECT_TRUE(calendar_.requestedMinutes.empty()) << "polled before start()";
  // The event began 100 s ago, before anyone polled: only the poll at start can catch it.
  engine_.start();
  engine_.start();
  EXPECT_EQ(fired_, Calls{kStandup}) << "two matching events, one firing";
  const TimePoint firedAt = clock_.now();
  EXPECT_EQ(defaults_.value(BatteryControlRulesEngine::cooldownKey(kStandup)).value_or(0),
            toReferenceDateSeconds(firedAt));
  minutePasses();
  minutePasses();
  EXPECT_EQ(calendar_.requestedMinutes.size(), 3u);
  EXPECT_EQ(fired_.size(), 1u) << "the same event fired again on the next poll";

  const TopOffRule rule = calendar(kStandup, "standup");
  clock_.set(firedAt + 21599s);
  EXPECT_TRUE(engine_.isOnCooldown(rule));
  clock_.set(firedAt + 21600s);
  EXPECT_FALSE(engine_.isOnCooldown(rule));
  clock_.set(firedAt - 1h);
  EXPECT_FALSE(engine_.isOnCooldown(rule)) << "a clock set back silenced the rule";
  defaults_.setValue(BatteryControlRulesEngine::cooldownKey(kStandup), 1e300);
  EXPECT_FALSE(engine_.isOnCooldown(rule));
}

TEST_F(RulesEngineTest, TheRestIsTakenBeforeHandlersRunAndDeletedRulesLoseIt) {
  bool restingWhenTold = false;
  engine_.addFireHandler([&](const TopOffRule& r) { restingWhenTold = engine_.isOnCooldown(r); });
  startWith({calendar(kStandup, "standup"), calendar(kReview, "review")});
  EXPECT_EQ(pollWith(source_.rules, "Review", 1min), Calls{kReview});
  EXPECT_TRUE(restingWhenTold);
  defaults_.setValue(BatteryControlRulesEngine::cooldownKey(kStandup), 1.0);

  source_.publish({calendar(kReview, "code review")});
  EXPECT_FALSE(defaults_.hasValue(BatteryControlRulesEngine::cooldownKey(kStandup)));
  EXPECT_TRUE(defaults_.hasValue(BatteryControlRulesEngine::cooldownKey(kReview)));
}

TEST_F(RulesEngineTest, RegionsFollowTheRulesAndTheAuthorization) {
  location_.status = LocationAuthorization::notDetermined;
  startWith({calendar(kStandup, "standup")});
  EXPECT_EQ(calendar_.accessRequests, 1);
  source_.publish({geofence(kOffice)});
  EXPECT_EQ(location_.calls, Calls{"authorize"}) << "watched before consent";

  location_.calls.clear();
  location_.status = LocationAuthorization::authorizedAlways;
  location_.callbacks.onAuthorizationChange(location_.status);
  EXPECT_TRUE(location_.calls.empty()) << "engine state touched off the main queue";
  main_.runPending();
  source_.publish({geofence(kOffice), geofence(kHome, 500)});
  // Only the circle whose radius changed is replaced.
  source_.publish({geofence(kOffice, 400), geofence(kHome, 500)});
  EXPECT_EQ(location_.calls, (Calls{"start " + kOffice + " 200", "state " + kOffice,
                                    "start " + kHome + " 500", "state " + kHome, "stop " + kOffice,
                                    "start " + kOffice + " 400", "state " + kOffice}));

  location_.calls.clear();
  location_.status = LocationAuthorization::denied;
  location_.callbacks.onAuthorizationChange(location_.status);
  main_.runPending();
  EXPECT_EQ(location_.calls, (Calls{"stop " + kOffice, "stop " + kHome}));
  EXPECT_TRUE(engine_.monitoredRegions().empty());
}

TEST_F(RulesEngineTest, ArrivalsAndWakingInsideFireOnceForAuthorizedKnownRules) {
  startWith({geofence(kOffice)});
  const auto& callbacks = location_.callbacks;
  std::thread([&] { callbacks.onDetermineState(kOffice, RegionState::outside); }).join();
  std::thread([&] { callbacks.onRegionEntry("3b1d2e3f-4a5b-4c6d-8e7f-901a2b3c4d5e"); }).join();
  EXPECT_TRUE(fired_.empty());
  main_.runPending();
  EXPECT_EQ(fired_, Calls{kOffice});
  callbacks.onRegionEntry(kOffice);
  callbacks.onRegionEntry(kStandup);
  main_.runPending();
  EXPECT_EQ(fired_, Calls{kOffice});

  clock_.advance(7h);
  location_.calls.clear();
  engine_.systemDidWake();
  EXPECT_EQ(location_.calls, Calls{"state " + kOffice});
  location_.status = LocationAuthorization::denied;
  callbacks.onDetermineState(kOffice, RegionState::inside);
  main_.runPending();
  EXPECT_EQ(fired_, Calls{kOffice}) << "fired without location rights";
  location_.status = LocationAuthorization::authorizedAlways;
  callbacks.onDetermineState(kOffice, RegionState::inside);
  main_.runPending();
  EXPECT_EQ(fired_, (Calls{kOffice, kOffice}));
  for (const auto& line : std::vector<std::string>{
           "system woke — running catch-up calendar poll + geofence state re-check",
           "requestState inside id=" + kOffice + " — synthetic entry", "topOffFires " + kOffice}) {
    EXPECT_TRUE(logs_.contains(line)) << line;
  }
}

}  // namespace
}  // namespace quorel
