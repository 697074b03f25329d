#include "control/low_power_rules_engine.hpp"

#include <gtest/gtest.h>

#include "control/low_power_rule.hpp"
#include "core/memory_preference_store.hpp"
#include "fake_helper_link.hpp"

namespace quorel {
namespace {

using testing::FakeHelperLink;
constexpr const char* kActive = LowPowerRulesEngine::kHeatPauseActiveKey;
constexpr const char* kLimit = LowPowerRulesEngine::kPrePauseChargeLimitKey;

class FakeRuleSettings final : public LowPowerRuleSettings {
 public:
  std::vector<LowPowerRule> rules;
  std::int64_t thresholdC = 40;
  std::int64_t hysteresisC = 3;
  std::vector<LowPowerRule> lowPowerRules() const override { return rules; }
  std::int64_t heatProtectionThresholdC() const override { return thresholdC; }
  std::int64_t heatProtectionHysteresisC() const override { return hysteresisC; }
  void storeLastFiredAt(const std::string& id, TimePoint at) override {
    for (auto& rule : rules) {
      if (rule.id == id) rule.lastFiredAt = at;
    }
  }
};

class RecordingPoster final : public NoticePoster {
 public:
  std::vector<Notice> posted;
  void post(Notice notice) override { posted.push_back(std::move(notice)); }
};

LowPowerRule rule(LowPowerRule::Kind kind, std::string id) {
  LowPowerRule r;
  r.id = std::move(id);
  r.kind = kind;
  return r;
}

PowerState reading(double percent, double tempC, bool charging = false, bool external = false) {
  PowerState s;
  s.batteryPercentage = percent;
  s.temperature_C = tempC;
  s.isCharging = charging;
  s.externalConnected = external || charging;
  return s;
}

class LowPowerRulesEngineTest : public ::testing::Test {
 protected:
  LowPowerRulesEngineTest() {
    link.state->chargeLimit = 80;
    link.state->sailingBand = 5;
  }
  LowPowerRulesEngine& engine() {
    if (!engine_) {
      engine_ = std::make_unique<LowPowerRulesEngine>(
          settings, preferences, poster, [this] { return powerSaver; }, queue, clock);
      engine_->setHelperLink(&link);
    }
    return *engine_;
  }
  void feed(const PowerState& state) {
    engine().evaluate(state);
    queue.runPending();
  }
  void restart() { engine_.reset(); }
  std::vector<std::string> titles() const {
    std::vector<std::string> out;
    for (const auto& n : poster.posted) out.push_back(n.title);
    return out;
  }

  ManualClock clock;
  SerialQueue queue{"test.main", clock};
  FakeRuleSettings settings;
  MemoryPreferenceStore preferences;
  RecordingPoster poster;
  FakeHelperLink link;
  bool powerSaver = false;
  std::unique_ptr<LowPowerRulesEngine> engine_;
};

TEST_F(LowPowerRulesEngineTest, ThresholdFiresOnlyOnTheDownwardCrossingOnBattery) {
  settings.rules = {rule(LowPowerRule::Kind::batteryThreshold, "T")};
  struct Case {
    const char* name;
    std::vector<PowerState> states;
    std::vector<std::string> expected;
  } cases[] = {
      {"21 to 19.8 fires, percent truncated",
       {reading(21, 30), reading(19.8, 30)},
       {"Battery at 19%"}},
      {"20 to 19 is past the crossing", {reading(20, 30), reading(19, 30)}, {}},
      {"first sample at the threshold", {reading(20, 30)}, {}},
      {"on external power", {reading(21, 30, false, true), reading(20, 30, false, true)}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    restart();
    poster.posted.clear();
    settings.rules[0].lastFiredAt.reset();
    for (const auto& s : c.states) feed(s);
    EXPECT_EQ(titles(), c.expected);
  }
}

TEST_F(LowPowerRulesEngineTest, ThresholdNoticeCarriesItsActionsAndCooldownHoldsARecharge) {
  settings.rules = {rule(LowPowerRule::Kind::batteryThreshold, "T")};
  powerSaver = true;
  feed(reading(21, 30));
  feed(reading(20, 30));
  ASSERT_EQ(poster.posted.size(), 1u);
  const Notice first = poster.posted[0];
  EXPECT_EQ(first.category, "com.quorel.lowpower");
  EXPECT_EQ(first.body, "Consider switching to the power saver profile to extend remaining time.");
  EXPECT_EQ(first.actions,
            (std::vector<NoticeAction>{{"OPEN_BATTERY_SETTINGS", "Open Battery Settings"},
                                       {"SWITCH_TO_POWER_SAVER", "Switch to Power Saver"}}));
  const auto firedAt = settings.rules[0].lastFiredAt;
  ASSERT_EQ(firedAt, clock.now());

  // Recharged and drained through the threshold again 29 minutes later: held back.
  clock.advance(Seconds{29 * 60});
  powerSaver = false;
  for (double p : {50.0, 21.0, 20.0}) feed(reading(p, 30));
  EXPECT_EQ(poster.posted.size(), 1u);
  EXPECT_EQ(settings.rules[0].lastFiredAt, firedAt);

  clock.advance(Seconds{60});
  for (double p : {21.0, 20.0}) feed(reading(p, 30));
  ASSERT_EQ(poster.posted.size(), 2u);
  EXPECT_EQ(poster.posted[1].body,
            "Consider switching to Low Power Mode to extend remaining time.");
  EXPECT_EQ(poster.posted[1].actions.size(), 1u);
  EXPECT_NE(poster.posted[1].identifier, first.identifier);

  // A last firing dated in the future (the clock was set back) does not hold the rule.
  settings.rules[0].lastFiredAt = clock.now() + std::chrono::hours(2);
  for (double p : {21.0, 20.0}) feed(reading(p, 30));
  EXPECT_EQ(poster.posted.size(), 3u);
}

TEST_F(LowPowerRulesEngineTest, HotChargingLowersTheCeilingUnderTheBand) {
  settings.rules = {rule(LowPowerRule::Kind::batteryHot, "H")};
  struct Case {
    double percent;
    std::int64_t limit;
    std::string expectedCall;
  } cases[] = {
      {78.9, 80, "setChargeLimit(72)"},
      {60, 50, "setChargeLimit(50)"},  // never above the person's own limit
      {24, 80, "setChargeLimit(20)"},  // the helper's floor
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expectedCall);
    restart();
    link.fakeProxy.calls.clear();
    poster.posted.clear();
    preferences.removeValue(kActive);
    link.state->chargeLimit = c.limit;
    settings.rules[0].lastFiredAt.reset();
    // Already hot at the first reading of the run.
    feed(reading(c.percent, 41, true));
    EXPECT_EQ(link.fakeProxy.calls, std::vector<std::string>{c.expectedCall});
    EXPECT_TRUE(engine().heatPauseActive());
    EXPECT_EQ(preferences.value(kActive), nlohmann::json(true));
    EXPECT_EQ(preferences.value(kLimit), nlohmann::json(c.limit));
    ASSERT_EQ(titles(), std::vector<std::string>{"Battery at 41°C while charging"});
    EXPECT_EQ(poster.posted[0].body,
              "Heat accelerates battery aging — consider unplugging for a while.");
  }
  // Staying hot is no new trigger.
  feed(reading(24, 42, true));
  EXPECT_EQ(poster.posted.size(), 1u);
  EXPECT_EQ(link.fakeProxy.calls.size(), 1u);
}

TEST_F(LowPowerRulesEngineTest, PauseEndsOnlyBelowThresholdMinusHysteresisEvenAfterARestart) {
  settings.rules = {rule(LowPowerRule::Kind::batteryHot, "H")};
  feed(reading(78, 39, true));
  feed(reading(78, 41, true));
  ASSERT_TRUE(engine().heatPauseActive());

  restart();  // the pause is adopted from the preference store
  EXPECT_TRUE(engine().heatPauseActive());
  EXPECT_EQ(engine().prePauseChargeLimit(), 80);
  feed(reading(78, 37.5, false, true));
  EXPECT_EQ(link.fakeProxy.calls, std::vector<std::string>{"setChargeLimit(72)"});
  EXPECT_TRUE(engine().heatPauseActive());

  feed(reading(78, 36.9, false, true));
  EXPECT_EQ(link.fakeProxy.calls.back(), "setChargeLimit(80)");
  EXPECT_FALSE(engine().heatPauseActive());
  EXPECT_EQ(preferences.value(kActive), nlohmann::json(false));
  EXPECT_FALSE(preferences.hasValue(kLimit));
}

TEST_F(LowPowerRulesEngineTest, CooldownSilencesTheNoticeButNotThePause) {
  auto hot = rule(LowPowerRule::Kind::batteryHot, "H");
  hot.lastFiredAt = clock.now() - std::chrono::minutes(10);
  settings.rules = {hot};
  feed(reading(78, 41, true));
  EXPECT_TRUE(poster.posted.empty());
  EXPECT_EQ(settings.rules[0].lastFiredAt, hot.lastFiredAt);
  EXPECT_EQ(link.fakeProxy.calls, std::vector<std::string>{"setChargeLimit(72)"});
}

TEST_F(LowPowerRulesEngineTest, PauseIsClearedWhenItCannotBeKept) {
  settings.rules = {rule(LowPowerRule::Kind::batteryHot, "H")};
  // The helper refuses the lowered ceiling: nothing to undo later.
  link.fakeProxy.immediateAnswer =
      QuorelHelperError{QuorelHelperErrorCode::codeSMCWriteFailed, "x"};
  feed(reading(78, 41, true));
  EXPECT_FALSE(engine().heatPauseActive());
  EXPECT_EQ(preferences.value(kActive), nlohmann::json(false));
  EXPECT_FALSE(preferences.hasValue(kLimit));

  // Without the helper's state the trigger asks for it and pauses nothing.
  link.fakeProxy.immediateAnswer.reset();
  link.state.reset();
  restart();
  feed(reading(78, 41, true));
  EXPECT_EQ(link.refreshes, 1);
  EXPECT_FALSE(engine().heatPauseActive());

  // A helper in error keeps an adopted pause; one switched off drops it without a write.
  LowPowerRulesEngine::writeHeatPauseState(true, 80, preferences);
  restart();
  link.linkStatus = HelperStatus::error("broken");
  feed(reading(78, 30));
  EXPECT_TRUE(engine().heatPauseActive());
  link.linkStatus = HelperStatus::disabled();
  link.fakeProxy.calls.clear();
  feed(reading(78, 30));
  EXPECT_FALSE(engine().heatPauseActive());
  EXPECT_TRUE(link.fakeProxy.calls.empty());
}

TEST_F(LowPowerRulesEngineTest, AdoptedPauseWithNoHotRuleLeftRestoresAtOnce) {
  LowPowerRulesEngine::writeHeatPauseState(true, 85, preferences);
  settings.rules = {rule(LowPowerRule::Kind::batteryThreshold, "T")};
  feed(reading(78, 44, true));
  EXPECT_EQ(link.fakeProxy.calls, std::vector<std::string>{"setChargeLimit(85)"});
  EXPECT_FALSE(engine().heatPauseActive());
}

TEST_F(LowPowerRulesEngineTest, AppLaunchMatchesEntryOrExecutableOnBatteryOnly) {
  auto app = rule(LowPowerRule::Kind::appLaunch, "A");
  app.bundleID = "org.example.Video.desktop";
  app.displayName = "Video";
  auto browser = rule(LowPowerRule::Kind::appLaunch, "B");
  browser.bundleID = "browser";
  browser.displayName = "Browser";
  settings.rules = {app, browser};
  feed(reading(60, 30));
  engine().handleAppLaunch({"org.example.Video", "video-player", ""});
  engine().handleAppLaunch({std::nullopt, "browser", "Web Browser"});
  engine().handleAppLaunch({"org.example.Video", "video-player", "Video Player"});  // cooldown
  engine().handleAppLaunch({"org.example.Other", "browserx", "Other"});
  EXPECT_EQ(titles(), (std::vector<std::string>{"Video launched", "Web Browser launched"}));
  EXPECT_EQ(poster.posted[0].body, "This app tends to drain battery — consider Low Power Mode.");

  settings.rules = {browser};
  feed(reading(60, 30, false, true));
  clock.advance(Seconds{3600});
  engine().handleAppLaunch({std::nullopt, "browser", "Web Browser"});
  EXPECT_EQ(poster.posted.size(), 2u);
}

}  // namespace
}  // namespace quorel
