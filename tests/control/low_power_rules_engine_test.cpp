#include "control/low_power_rules_engine.hpp"

#include <gtest/gtest.h>

#include "core/memory_preference_store.hpp"
#include "fake_helper_link.hpp"

namespace quorel {
namespace {

using Kind = LowPowerRule::Kind;
using testing::FakeHelperLink;
using Strings = std::vector<std::string>;
constexpr const char* kActive = LowPowerRulesEngine::kHeatPauseActiveKey;
constexpr const char* kLimit = LowPowerRulesEngine::kPrePauseChargeLimitKey;

class FakeRuleSettings final : public LowPowerRuleSettings {
 public:
  std::vector<LowPowerRule> rules;
  std::vector<LowPowerRule> lowPowerRules() const override { return rules; }
  std::int64_t heatProtectionThresholdC() const override { return 40; }
  std::int64_t heatProtectionHysteresisC() const override { return 3; }
  void storeLastFiredAt(const std::string& id, TimePoint at) override {
    for (auto& rule : rules) rule.lastFiredAt = rule.id == id ? at : rule.lastFiredAt;
  }
};

class RecordingPoster final : public NoticePoster {
 public:
  std::vector<Notice> posted;
  void post(Notice notice) override { posted.push_back(std::move(notice)); }
};

LowPowerRule rule(Kind kind, std::string bundleID = "") {
  return {.id = bundleID + "ID", .kind = kind, .bundleID = bundleID, .displayName = "Video"};
}

// Charging implies external power.
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
  LowPowerRulesEngine& engine() {
    if (!engine_) {
      engine_ = std::make_unique<LowPowerRulesEngine>(
          settings, preferences, poster, [this] { return powerSaver; }, queue, clock);
      engine_->setHelperLink(&link);
    }
    return *engine_;
  }
  // The engine is off the queue's thread here, so each reading also checks the hop.
  void feed(std::initializer_list<PowerState> states) {
    for (const auto& state : states) {
      engine().evaluate(state);
      queue.runPending();
    }
  }
  void restart() { engine_.reset(); }
  Strings titles() const {
    Strings out;
    for (const auto& n : poster.posted) out.push_back(n.title);
    return out;
  }
  Strings& calls() { return link.fakeProxy.calls; }

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
  struct Case {
    std::vector<PowerState> states;
    Strings expected;
  } cases[] = {
      {{reading(21, 30), reading(19.8, 30)}, {"Battery at 19%"}},
      {{reading(20, 30), reading(19, 30)}, {}},  // the crossing has passed
      {{reading(20, 30)}, {}},                   // first sample of the run
      {{reading(21, 30, false, true), reading(20, 30, false, true)}, {}},
  };
  for (const Case& c : cases) {
    restart();
    poster.posted.clear();
    settings.rules = {rule(Kind::batteryThreshold)};
    for (const auto& s : c.states) feed({s});
    EXPECT_EQ(titles(), c.expected) << c.states.size();
  }
}

TEST_F(LowPowerRulesEngineTest, ThresholdNoticeActionsAndCooldown) {
  settings.rules = {rule(Kind::batteryThreshold)};
  powerSaver = true;
  feed({reading(21, 30), reading(20, 30)});
  ASSERT_EQ(titles(), Strings{"Battery at 20%"});
  const Notice first = poster.posted[0];
  EXPECT_EQ(first.category, "com.quorel.lowpower");
  EXPECT_EQ(first.body, "Consider switching to the power saver profile to extend remaining time.");
  EXPECT_EQ(first.actions,
            (std::vector<NoticeAction>{{"OPEN_BATTERY_SETTINGS", "Open Battery Settings"},
                                       {"SWITCH_TO_POWER_SAVER", "Switch to Power Saver"}}));
  const auto firedAt = settings.rules[0].lastFiredAt;
  EXPECT_EQ(firedAt, clock.now());

  // Recharged and through the threshold again within the half hour: held, the date kept.
  clock.advance(Seconds{1799});
  powerSaver = false;
  feed({reading(50, 30), reading(21, 30), reading(20, 30)});
  EXPECT_EQ(poster.posted.size(), 1u);
  EXPECT_EQ(settings.rules[0].lastFiredAt, firedAt);
  clock.advance(Seconds{1});
  feed({reading(21, 30), reading(20, 30)});
  ASSERT_EQ(poster.posted.size(), 2u);
  EXPECT_EQ(poster.posted[1].body,
            "Consider switching to Low Power Mode to extend remaining time.");
  EXPECT_NE(poster.posted[1].identifier, first.identifier);
  // A firing dated in the future (the clock was set back) holds nothing.
  settings.rules[0].lastFiredAt = clock.now() + std::chrono::hours(2);
  feed({reading(21, 30), reading(20, 30)});
  EXPECT_EQ(poster.posted.size(), 3u);
}

TEST_F(LowPowerRulesEngineTest, HotChargingLowersTheCeilingUnderTheBand) {
  struct Case {
    double percent;
    std::int64_t limit;
    std::string call;
  } cases[] = {{78.9, 80, "setChargeLimit(72)"},  // 78 - band 5 - 1
               {60, 50, "setChargeLimit(50)"},    // never above the person's limit
               {24, 80, "setChargeLimit(20)"}};   // the helper's floor
  for (const Case& c : cases) {
    restart();
    calls().clear();
    poster.posted.clear();
    preferences.removeValue(kActive);
    settings.rules = {rule(Kind::batteryHot)};
    link.state->chargeLimit = c.limit;
    feed({reading(c.percent, 41, true)});  // already hot at the run's first reading
    EXPECT_EQ(calls(), Strings{c.call});
    EXPECT_TRUE(engine().heatPauseActive());
    EXPECT_EQ(preferences.value(kLimit), nlohmann::json(c.limit));
    ASSERT_EQ(titles(), Strings{"Battery at 41°C while charging"});
    EXPECT_EQ(poster.posted[0].body,
              "Heat accelerates battery aging — consider unplugging for a while.");
  }
  feed({reading(24, 42, true)});  // staying hot is no new trigger
  EXPECT_EQ(poster.posted.size() + calls().size(), 2u);
}

TEST_F(LowPowerRulesEngineTest, PauseSurvivesARestartAndEndsBelowThresholdMinusHysteresis) {
  settings.rules = {rule(Kind::batteryHot)};
  settings.rules[0].lastFiredAt = clock.now() - std::chrono::minutes(10);
  feed({reading(78, 39, true), reading(78, 41, true)});
  EXPECT_TRUE(poster.posted.empty());  // the notice rests, the pause does not
  EXPECT_EQ(calls(), Strings{"setChargeLimit(72)"});

  restart();
  EXPECT_EQ(engine().prePauseChargeLimit(), 80);
  feed({reading(78, 37.5, false, true)});
  EXPECT_EQ(calls().size(), 1u);
  EXPECT_TRUE(engine().heatPauseActive());
  feed({reading(78, 36.9, false, true)});
  EXPECT_EQ(calls().back(), "setChargeLimit(80)");
  EXPECT_FALSE(engine().heatPauseActive());
  EXPECT_EQ(preferences.value(kActive), nlohmann::json(false));
  EXPECT_FALSE(preferences.hasValue(kLimit));

  // With no hot rule left, an adopted pause is undone at once, however hot.
  LowPowerRulesEngine::writeHeatPauseState(true, 85, preferences);
  settings.rules = {rule(Kind::batteryThreshold)};
  restart();
  feed({reading(78, 44, true)});
  EXPECT_EQ(calls().back(), "setChargeLimit(85)");
  EXPECT_FALSE(engine().heatPauseActive());
}

TEST_F(LowPowerRulesEngineTest, PauseIsDroppedWhenItCannotBeKept) {
  settings.rules = {rule(Kind::batteryHot)};
  link.fakeProxy.immediateAnswer = QuorelHelperError{QuorelHelperErrorCode::codeSMCWriteFailed, ""};
  feed({reading(78, 41, true)});
  EXPECT_FALSE(engine().heatPauseActive());
  EXPECT_EQ(preferences.value(kActive), nlohmann::json(false));
  EXPECT_FALSE(preferences.hasValue(kLimit));

  link.fakeProxy.immediateAnswer.reset();
  link.state.reset();  // without the helper's state: ask for it, pause nothing
  restart();
  feed({reading(78, 41, true)});
  EXPECT_EQ(link.refreshes, 1);
  EXPECT_FALSE(engine().heatPauseActive());

  // A helper in error keeps an adopted pause; one switched off drops it with no write.
  LowPowerRulesEngine::writeHeatPauseState(true, 80, preferences);
  restart();
  link.linkStatus = HelperStatus::error("broken");
  feed({reading(78, 30)});
  EXPECT_TRUE(engine().heatPauseActive());
  link.linkStatus = HelperStatus::disabled();
  calls().clear();
  feed({reading(78, 30)});
  EXPECT_FALSE(engine().heatPauseActive());
  EXPECT_TRUE(calls().empty());
}

TEST_F(LowPowerRulesEngineTest, AppLaunchMatchesEntryOrExecutableOnBatteryOnly) {
  settings.rules = {rule(Kind::appLaunch, "org.example.Video.desktop"),
                    rule(Kind::appLaunch, "web")};
  feed({reading(60, 30)});
  engine().handleAppLaunch({"org.example.Video", "video-player", ""});
  engine().handleAppLaunch({std::nullopt, "web", "Web Browser"});
  engine().handleAppLaunch({"org.example.Video", "video-player", "Video Player"});  // resting
  engine().handleAppLaunch({"org.example.Web", "webx", "Other"});
  EXPECT_EQ(titles(), (Strings{"Video launched", "Web Browser launched"}));
  EXPECT_EQ(poster.posted[0].body, "This app tends to drain battery — consider Low Power Mode.");

  settings.rules = {rule(Kind::appLaunch, "web")};
  feed({reading(60, 30, false, true)});
  engine().handleAppLaunch({std::nullopt, "web", "Web Browser"});
  EXPECT_EQ(poster.posted.size(), 2u);
}

}  // namespace
}  // namespace quorel
