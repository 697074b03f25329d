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
using testing::calendarRule;
using testing::geofenceRule;
using Calls = std::vector<std::string>;

constexpr const char* kStandup = "1F0C7E52-3C1B-4E4B-9A55-0D7E3B1C2A01";
constexpr const char* kReview = "2A9B3C44-5D6E-4F70-8192-A3B4C5D6E7F8";
constexpr const char* kOffice = "3B1D2E3F-4A5B-4C6D-8E7F-901A2B3C4D5E";

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
  void event(std::string title, Seconds fromNow) {
    calendar_.events.push_back(
        {std::move(title),
         clock_.now() + std::chrono::duration_cast<std::chrono::system_clock::duration>(fromNow)});
  }
  // Lets a minute pass, so the poll timer runs once.
  void nextPoll() {
    clock_.advance(60s);
    main_.runPending();
  }
  void setCooldown(const char* id, TimePoint at) {
    defaults_.setValue(BatteryControlRulesEngine::cooldownKey(id), toReferenceDateSeconds(at));
  }

  ManualClock clock_;
  SerialQueue main_{"test.main", clock_};
  MemoryPreferenceStore defaults_;
  testing::FakeCalendar calendar_{clock_};
  testing::FakeLocationMonitor location_;
  testing::FakeRulesSource source_;
  BatteryControlRulesEngine engine_{source_, calendar_, location_, defaults_, clock_, main_};
  std::vector<std::string> fired_;
  testing::LogCapture logs_;
};

TEST_F(RulesEngineTest, TitleMatchIgnoresCaseAndSurroundingSpaceAndBlankRulesNeverFire) {
  struct Case {
    const char* rule;
    const char* event;
    bool fires;
  };
  const Case cases[] = {
      {"standup", "Daily STANDUP call", true},
      {"  Standup\n", "standup", true},
      {"réunion", "RÉUNION d'équipe", true},
      {"standup", "Stand up", false},
      {"   ", "   ", false},
      {"\n\t", "Daily standup", false},
  };
  startWith({});
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.rule) + " / " + c.event);
    fired_.clear();
    calendar_.events.clear();
    defaults_.removeValue(BatteryControlRulesEngine::cooldownKey(kStandup));
    event(c.event, 10min);
    source_.publish({calendarRule(kStandup, c.rule)});
    engine_.pollCalendarRules();
    EXPECT_EQ(fired_, c.fires ? Calls{kStandup} : Calls{});
  }
}

TEST_F(RulesEngineTest, LeadWindowReachesExactlyTheLeadAheadAndTwoMinutesBack) {
  struct Case {
    Seconds start;
    bool fires;
  };
  const Case cases[] = {
      {30min, true}, {31min, false}, {-90s, true}, {-3min, false}, {0s, true},
  };
  startWith({});
  for (const auto& c : cases) {
    SCOPED_TRACE(c.start.count());
    fired_.clear();
    calendar_.events.clear();
    defaults_.removeValue(BatteryControlRulesEngine::cooldownKey(kStandup));
    event("Standup", c.start);
    source_.publish({calendarRule(kStandup, "standup", 30)});
    engine_.pollCalendarRules();
    EXPECT_EQ(fired_, c.fires ? Calls{kStandup} : Calls{});
  }
}

TEST_F(RulesEngineTest, StoredLeadsOutsideADayLookADayAheadAndLeadsBelowOneAreSkipped) {
  startWith({calendarRule(kStandup, "standup", 2000), calendarRule(kReview, "review", 0)});
  // One poll at start: the day-long lead asks for 1440 minutes, the zero lead asks for nothing.
  EXPECT_EQ(calendar_.requestedMinutes, std::vector<int>{1440});
}

TEST_F(RulesEngineTest, PollsAtStartThenEveryMinuteAndOnlyOnceStarted) {
  event("Standup", 0s);
  source_.rules = {calendarRule(kStandup, "standup")};
  main_.runPending();
  clock_.advance(120s);
  main_.runPending();
  EXPECT_TRUE(calendar_.requestedMinutes.empty()) << "polled before start()";

  // The event began 100 s ago: only a poll at start can still catch it.
  engine_.start();
  engine_.start();
  EXPECT_EQ(fired_, Calls{kStandup});
  EXPECT_EQ(calendar_.requestedMinutes.size(), 1u);
  EXPECT_EQ(source_.subscriberCount(), 1u);
  nextPoll();
  nextPoll();
  EXPECT_EQ(calendar_.requestedMinutes.size(), 3u);
}

TEST_F(RulesEngineTest, AFiredRuleRestsSixHoursFromTheFiring) {
  event("Standup", 20min);
  event("Standup again", 25min);
  startWith({calendarRule(kStandup, "standup", 30)});
  // Two matching events in one poll still make one firing.
  ASSERT_EQ(fired_, Calls{kStandup});
  const auto stored = defaults_.value(BatteryControlRulesEngine::cooldownKey(kStandup));
  ASSERT_TRUE(stored && stored->is_number());
  EXPECT_DOUBLE_EQ(stored->get<double>(), toReferenceDateSeconds(clock_.now()));

  nextPoll();
  EXPECT_EQ(fired_.size(), 1u) << "the same event seen on the next poll fired again";

  const TimePoint firedAt = clock_.now() - 60s;
  const TopOffRule rule = calendarRule(kStandup, "standup");
  clock_.set(firedAt + std::chrono::seconds(21599));
  EXPECT_TRUE(engine_.isOnCooldown(rule));
  clock_.set(firedAt + std::chrono::seconds(21600));
  EXPECT_FALSE(engine_.isOnCooldown(rule));
}

TEST_F(RulesEngineTest, CooldownDatesThatCannotBeTheLastFiringDoNotHoldARule) {
  const TopOffRule rule = calendarRule(kStandup, "standup");
  setCooldown(kStandup, clock_.now() + 1h);
  EXPECT_FALSE(engine_.isOnCooldown(rule)) << "a clock set back silenced the rule";
  defaults_.setValue(BatteryControlRulesEngine::cooldownKey(kStandup), 1e300);
  EXPECT_FALSE(engine_.isOnCooldown(rule));
  defaults_.setValue(BatteryControlRulesEngine::cooldownKey(kStandup), "yesterday");
  EXPECT_FALSE(engine_.isOnCooldown(rule));
  setCooldown(kStandup, clock_.now());
  EXPECT_TRUE(engine_.isOnCooldown(rule));
}

TEST_F(RulesEngineTest, TheCooldownIsTakenBeforeHandlersRunSoAFailingHandlerCannotRetry) {
  bool restingWhenTold = false;
  engine_.addFireHandler([&](const TopOffRule& rule) {
    restingWhenTold = engine_.isOnCooldown(rule);
    throw std::runtime_error("helper unreachable");
  });
  event("Standup", 5min);
  source_.rules = {calendarRule(kStandup, "standup")};
  EXPECT_THROW(engine_.start(), std::runtime_error);
  EXPECT_TRUE(restingWhenTold);
  nextPoll();
  EXPECT_EQ(fired_, Calls{kStandup});
  EXPECT_TRUE(logs_.contains(std::string("topOffFires ") + kStandup));
}

TEST_F(RulesEngineTest, DeletedRulesLoseTheirCooldownKeyAndKeptRulesKeepTheirs) {
  startWith({calendarRule(kStandup, "standup"), calendarRule(kReview, "review")});
  setCooldown(kStandup, clock_.now());
  setCooldown(kReview, clock_.now());
  const auto standupKey = BatteryControlRulesEngine::cooldownKey(kStandup);
  const auto reviewKey = BatteryControlRulesEngine::cooldownKey(kReview);

  source_.publish({calendarRule(kStandup, "standup"), calendarRule(kReview, "review")});
  EXPECT_TRUE(defaults_.hasValue(standupKey) && defaults_.hasValue(reviewKey));

  source_.publish({calendarRule(kReview, "code review")});
  EXPECT_FALSE(defaults_.hasValue(standupKey));
  EXPECT_TRUE(defaults_.hasValue(reviewKey));

  // Re-created under the old id, it starts clean.
  event("Standup", 5min);
  source_.publish({calendarRule(kStandup, "standup"), calendarRule(kReview, "code review")});
  engine_.pollCalendarRules();
  EXPECT_EQ(fired_, Calls{kStandup});
}

TEST_F(RulesEngineTest, AsksForCalendarAndLocationOnlyWhenARuleNeedsThem) {
  location_.status = LocationAuthorization::notDetermined;
  startWith({calendarRule(kStandup, "standup")});
  EXPECT_EQ(calendar_.accessRequests, 1);
  EXPECT_EQ(location_.calls, Calls{});

  source_.publish({calendarRule(kStandup, "standup"), geofenceRule(kOffice)});
  EXPECT_EQ(location_.calls, Calls{"authorize"}) << "nothing may be watched before consent";

  location_.status = LocationAuthorization::denied;
  source_.publish({geofenceRule(kOffice, 300)});
  EXPECT_EQ(location_.calls, Calls{"authorize"}) << "a refusal is not asked again";
}

TEST_F(RulesEngineTest, RegionsFollowTheRulesAndTheAuthorization) {
  const std::string other = "4C2E3F40-5B6C-4D7E-9F80-A1B2C3D4E5F6";
  startWith({geofenceRule(kOffice, 200), geofenceRule(other, 500)});
  EXPECT_EQ(location_.calls,
            (Calls{"start " + std::string(kOffice) + " 200", "state " + std::string(kOffice),
                   "start " + other + " 500", "state " + other}));

  // Only the circle whose radius changed is replaced.
  location_.calls.clear();
  source_.publish({geofenceRule(kOffice, 400), geofenceRule(other, 500)});
  EXPECT_EQ(location_.calls,
            (Calls{"stop " + std::string(kOffice), "start " + std::string(kOffice) + " 400",
                   "state " + std::string(kOffice)}));
  EXPECT_EQ(engine_.monitoredRegions().at(kOffice).radiusMeters, 400);

  location_.calls.clear();
  location_.changeAuthorization(LocationAuthorization::denied);
  EXPECT_TRUE(location_.calls.empty()) << "state touched off the main queue";
  main_.runPending();
  EXPECT_EQ(location_.calls, (Calls{"stop " + std::string(kOffice), "stop " + other}));
  EXPECT_TRUE(engine_.monitoredRegions().empty());

  location_.calls.clear();
  location_.changeAuthorization(LocationAuthorization::authorizedAlways);
  main_.runPending();
  EXPECT_EQ(engine_.monitoredRegions().size(), 2u);
}

TEST_F(RulesEngineTest, ArrivalsFireOnceThroughTheMainQueueAndOnlyForAuthorizedKnownRules) {
  startWith({geofenceRule(kOffice)});
  const auto& callbacks = location_.callbacks;

  std::thread([&] { callbacks.onRegionEntry("3b1d2e3f-4a5b-4c6d-8e7f-901a2b3c4d5e"); }).join();
  EXPECT_TRUE(fired_.empty());
  main_.runPending();
  EXPECT_EQ(fired_, Calls{kOffice}) << "the identifier's case decided the rule";

  callbacks.onRegionEntry(kOffice);
  callbacks.onRegionEntry(kStandup);
  callbacks.onRegionEntry("not a uuid");
  main_.runPending();
  EXPECT_EQ(fired_, Calls{kOffice});

  defaults_.removeValue(BatteryControlRulesEngine::cooldownKey(kOffice));
  location_.status = LocationAuthorization::denied;
  callbacks.onRegionEntry(kOffice);
  main_.runPending();
  EXPECT_EQ(fired_, Calls{kOffice}) << "fired without location rights";

  callbacks.onMonitoringFailed(kOffice);
  main_.runPending();
  EXPECT_TRUE(logs_.contains(std::string("region monitoring failed id=") + kOffice));
}

TEST_F(RulesEngineTest, WakingInsideARegionCountsAsAnArrival) {
  event("Standup", 1min);
  startWith({geofenceRule(kOffice), calendarRule(kStandup, "standup")});
  location_.callbacks.onDetermineState(kOffice, RegionState::outside);
  main_.runPending();
  ASSERT_EQ(fired_, Calls{kStandup});

  location_.calls.clear();
  clock_.advance(8h);
  event("Standup", 1min);
  engine_.systemDidWake();
  EXPECT_TRUE(
      logs_.contains("system woke — running catch-up calendar poll + geofence state re-check"));
  EXPECT_EQ(location_.calls, Calls{"state " + std::string(kOffice)});
  EXPECT_EQ(fired_, (Calls{kStandup, kStandup}));

  location_.callbacks.onDetermineState(kOffice, RegionState::inside);
  main_.runPending();
  EXPECT_EQ(fired_, (Calls{kStandup, kStandup, kOffice}));
  EXPECT_TRUE(
      logs_.contains(std::string("requestState inside id=") + kOffice + " — synthetic entry"));
}

TEST_F(RulesEngineTest, CallbacksPostedBeforeTheEngineWentAwayDoNothing) {
  auto engine = std::make_unique<BatteryControlRulesEngine>(source_, calendar_, location_,
                                                            defaults_, clock_, main_);
  int fired = 0;
  engine->addFireHandler([&](const TopOffRule&) { ++fired; });
  source_.rules = {geofenceRule(kOffice)};
  engine->start();
  location_.callbacks.onRegionEntry(kOffice);
  engine.reset();
  EXPECT_EQ(source_.subscriberCount(), 0u);
  main_.runPending();
  clock_.advance(2min);
  main_.runPending();
  EXPECT_EQ(fired, 0);
}

}  // namespace
}  // namespace quorel
