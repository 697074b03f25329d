#include "control/battery_control_command_service.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "control/fake_helper_link.hpp"

namespace quorel {
namespace {

using testing::FakeHelperLink;
using testing::FakeMachine;
using testing::MemoryBatteryControlSettings;

constexpr const char* kIdA = "0B7C3F52-1D2E-4A6B-9C8D-0123456789AB";
constexpr const char* kIdB = "1B7C3F52-1D2E-4A6B-9C8D-0123456789AB";
constexpr const char* kIdC = "2B7C3F52-1D2E-4A6B-9C8D-0123456789AB";
constexpr const char* kIdD = "3B7C3F52-1D2E-4A6B-9C8D-0123456789AB";

using testing::FakeHelperProxy;

class BatteryControlCommandServiceTest : public ::testing::Test {
 public:
  ManualClock clock;
  SerialQueue main{"test.main", clock};
  FakeHelperLink link;
  MemoryBatteryControlSettings settings;
  FakeMachine machine;
  BatteryControlCommandService service{link, main, settings, machine.environment()};

  std::vector<BatteryCommandResult> results;
  BatteryCommandCompletion collect() {
    return [this](BatteryCommandResult r) { results.push_back(std::move(r)); };
  }
  // The one result so far as an error; an empty error (failing the comparison) otherwise.
  MCPToolError onlyError() {
    EXPECT_EQ(results.size(), 1u);
    const auto* error = results.size() == 1 ? std::get_if<MCPToolError>(&results[0]) : nullptr;
    return error ? *error : MCPToolError{0, {}};
  }
  const FakeHelperProxy& proxy() const { return link.fakeProxy; }
  void onBattery() { machine.power->externalConnected = false; }
};

TEST_F(BatteryControlCommandServiceTest, RefusalsSendNothingToTheHelper) {
  const std::string notEnabled = kBatteryControlNotEnabledText;
  const struct {
    const char* what;
    std::function<void(BatteryControlCommandServiceTest&)> arrange;
    std::function<void(BatteryControlCommandService&, BatteryCommandCompletion)> act;
    std::string message;
  } cases[] = {
      {"limit below range", [](auto&) {}, [](auto& s, auto done) { s.setChargeLimit(19, done); },
       "Charge limit must be between 20 and 100 percent."},
      {"limit on a battery without charge control",
       [](auto& t) { t.machine.availability = BatteryControlAvailability::noChargeControl; },
       [](auto& s, auto done) { s.setChargeLimit(80, done); }, notEnabled},
      {"limit while the helper is outdated", [](auto& t) { t.link.available = false; },
       [](auto& s, auto done) { s.setChargeLimit(80, done); }, notEnabled},
      {"limit off without a proxy", [](auto& t) { t.link.connected = false; },
       [](auto& s, auto done) { s.clearChargeLimit(done); }, notEnabled},
      {"discharge on battery", [](auto& t) { t.onBattery(); },
       [](auto& s, auto done) { s.setForceDischarge(true, done); },
       "Connect AC to discharge \u2014 the battery is already draining on battery power."},
      {"discharge with no helper state assumes an 80 % limit",
       [](auto& t) {
         t.link.state.reset();
         t.machine.power->batteryPercentage = 80;
       },
       [](auto& s, auto done) { s.setForceDischarge(true, done); },
       "Battery is already at or below the 80% limit."},
      {"top-up at full", [](auto& t) { t.machine.power->batteryPercentage = 100; },
       [](auto& s, auto done) { s.setTopUp(true, done); }, "Battery is already at 100%."},
      {"top-up already filling",
       [](auto& t) {
         t.link.state->topUpActive = true;
         t.machine.power->smoothedWattage = 12;
       },
       [](auto& s, auto done) { s.setTopUp(true, done); }, "Already charging to full."},
      {"top-up accepted but not yet drawing",
       [](auto& t) {
         t.link.state->topUpActive = true;
         t.machine.power->smoothedWattage = 0.4;
       },
       [](auto& s, auto done) { s.setTopUp(true, done); }, "Top-up already in progress."},
  };
  for (const auto& c : cases) {
    link = FakeHelperLink{};
    machine = FakeMachine{};
    results.clear();
    c.arrange(*this);
    c.act(service, collect());
    EXPECT_EQ(onlyError(), (MCPToolError{kCommandRefused, c.message})) << c.what;
    EXPECT_TRUE(proxy().calls.empty()) << c.what;
    EXPECT_EQ(link.refreshes, 0) << c.what;
  }
}

TEST_F(BatteryControlCommandServiceTest, SuccessfulWriteRefreshesAndAnswersWithTheState) {
  link.state->chargeLimit = 70;
  service.setChargeLimit(65, collect());
  ASSERT_EQ(results.size(), 1u);
  const auto* state = std::get_if<JSONValue>(&results[0]);
  ASSERT_NE(state, nullptr);
  EXPECT_EQ(state->member("charge_limit"), JSONValue(70));
  EXPECT_EQ(proxy().calls, std::vector<std::string>{"setChargeLimit(65)"});
  EXPECT_EQ(link.refreshes, 1);
}

TEST_F(BatteryControlCommandServiceTest, HelperRejectionIsAFailureWithItsOwnWordsOrOurs) {
  link.fakeProxy.immediateAnswer =
      QuorelHelperError{QuorelHelperErrorCode::codeSMCWriteFailed, "EIO writing the threshold"};
  service.setChargeLimit(80, collect());
  EXPECT_EQ(onlyError(), (MCPToolError{kCommandFailed, "EIO writing the threshold"}));

  results.clear();
  link.fakeProxy.immediateAnswer = QuorelHelperError{QuorelHelperErrorCode::codeOutOfRange, ""};
  service.setTopUp(true, collect());
  EXPECT_EQ(onlyError(), (MCPToolError{kCommandFailed, "The helper rejected the top-up request."}));
  EXPECT_EQ(link.refreshes, 0);
}

TEST_F(BatteryControlCommandServiceTest, SilentHelperGivesTheCrashTextAfterEightSecondsOnce) {
  link.fakeProxy.answerImmediately = false;
  service.setChargeLimit(80, collect());
  clock.advance(Seconds{7.9});
  main.runPending();
  EXPECT_TRUE(results.empty());

  clock.advance(Seconds{0.2});
  main.runPending();
  EXPECT_EQ(onlyError(), (MCPToolError{kCommandFailed, kHelperNoResponseText}));

  // The reply that finally comes is dropped, and nothing fires again later.
  EXPECT_TRUE(link.fakeProxy.answerNext());
  clock.advance(Seconds{30});
  main.runPending();
  EXPECT_EQ(results.size(), 1u);
  EXPECT_EQ(link.refreshes, 0);
}

TEST_F(BatteryControlCommandServiceTest, StoppingADischargeWorksWhenAStartWouldBeRefused) {
  onBattery();
  machine.lidClosed = true;
  // Control availability is what the stop asks; the guards are not.
  machine.availability = BatteryControlAvailability::noChargeControl;
  service.setForceDischarge(true, collect());
  EXPECT_EQ(onlyError().code, kCommandRefused);
  EXPECT_TRUE(proxy().calls.empty());

  results.clear();
  service.setForceDischarge(false, collect());
  ASSERT_EQ(results.size(), 1u);
  EXPECT_TRUE(std::holds_alternative<JSONValue>(results[0]));
  EXPECT_EQ(proxy().calls, std::vector<std::string>{"forceDischarge(false)"});
}

TEST_F(BatteryControlCommandServiceTest, ClamshellDischargeArmsKeepAwakeFirstAndStopsIfItFails) {
  settings.clamshell = true;
  machine.externalDisplay = true;
  machine.lidClosed = true;
  service.setForceDischarge(true, collect());
  EXPECT_EQ(proxy().calls,
            (std::vector<std::string>{"setClamshellKeepAwake(true)", "forceDischarge(true)"}));
  EXPECT_TRUE(std::holds_alternative<JSONValue>(results.at(0)));

  link.fakeProxy.calls.clear();
  results.clear();
  link.fakeProxy.immediateAnswer = QuorelHelperError{QuorelHelperErrorCode::codeSMCWriteFailed, ""};
  service.setForceDischarge(true, collect());
  EXPECT_EQ(proxy().calls, std::vector<std::string>{"setClamshellKeepAwake(true)"});
  EXPECT_EQ(onlyError(), (MCPToolError{kCommandFailed,
                                       "The helper rejected the clamshell keep-awake request."}));

  // Without the experiment no keep-awake is asked for, even with a display attached.
  link.fakeProxy = FakeHelperProxy{};
  settings.clamshell = false;
  machine.lidClosed = false;
  service.setForceDischarge(true, [](BatteryCommandResult) {});
  EXPECT_EQ(proxy().calls, std::vector<std::string>{"forceDischarge(true)"});
}

TEST_F(BatteryControlCommandServiceTest, TopUpDuringADischargeReachesTheHelper) {
  onBattery();
  link.state->forceDischargeActive = true;
  link.state->chargeLimit = 100;
  machine.power->batteryPercentage = 60;
  service.setTopUp(true, collect());
  EXPECT_EQ(proxy().calls, std::vector<std::string>{"releaseLimitUntilFullThenRestore"});
  EXPECT_TRUE(std::holds_alternative<JSONValue>(results.at(0)));
}

TEST_F(BatteryControlCommandServiceTest, StateReadsTheLinkTheMachineAndTheHelper) {
  link.connected = false;
  link.state.reset();
  auto state = service.state();
  EXPECT_EQ(state.member("helper_ready"), JSONValue(false));
  EXPECT_EQ(state.member("charge_limit"), JSONValue());

  link = FakeHelperLink{};
  link.linkStatus = HelperStatus::error("unit failed");
  link.state->lastDischargeAbortReason = "lid closed";
  link.state->lastDischargeAbortAt = fromUnixSeconds(1'800'000'000.25);
  machine = FakeMachine{};
  machine.availability = BatteryControlAvailability::noChargeControl;
  machine.power->iopsPercent = 57;  // the figure a person sees wins over the derived one
  state = service.state();
  EXPECT_EQ(state.member("availability"), JSONValue("no_charge_control"));
  EXPECT_EQ(state.member("helper_enabled"), JSONValue(false));
  EXPECT_EQ(state.member("helper_ready"), JSONValue(true));
  EXPECT_EQ(state.member("capacity_percent"), JSONValue(57));
  EXPECT_EQ(state.member("last_discharge_abort_reason"), JSONValue("lid closed"));
  EXPECT_EQ(state.member("last_discharge_abort_at"), JSONValue("2027-01-15T08:00:00.250Z"));
}

TopOffRule calendarRule(std::string id, std::string title = "Standup", std::int64_t lead = 15) {
  return TopOffRule{CalendarTopOffRule{std::move(id), std::move(title), lead}};
}
TopOffRule geofenceRule(std::string id, double lat = 51.5, double lon = -0.12, double radius = 200,
                        std::string label = "Office") {
  return TopOffRule{GeofenceTopOffRule{std::move(id), lat, lon, radius, std::move(label)}};
}

TEST_F(BatteryControlCommandServiceTest, RuleValidationOrderAndSentences) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  const struct {
    std::vector<TopOffRule> rules;
    std::string message;
  } cases[] = {
      {{calendarRule(kIdA), calendarRule(kIdA, "")},
       std::string("Rule 1: duplicate rule id ") + kIdA + " \u2014 every rule needs a unique id."},
      {{geofenceRule(kIdA), calendarRule(kIdB, " \n\t")},
       "Rule 1: calendar event title must contain non-whitespace characters."},
      {{calendarRule(kIdA, "x", 121)}, "Rule 0: calendar lead 121 min is outside 5\u2013120 min."},
      {{geofenceRule(kIdA, 90.5, 500, 5, "")}, "Rule 0: latitude 90.5 is outside [-90, 90]."},
      {{geofenceRule(kIdA, nan)}, "Rule 0: latitude nan is outside [-90, 90]."},
      {{geofenceRule(kIdA, 0, -inf)}, "Rule 0: longitude -inf is outside [-180, 180]."},
      {{geofenceRule(kIdA, 0, 0, 1001)},
       "Rule 0: geofence radius 1001.0 m is outside 100\u20131000 m."},
      {{geofenceRule(kIdA, 0, 0, 100, "  ")},
       "Rule 0: geofence label must contain non-whitespace characters."},
      // Each rule is checked before the count: the fourth rule's own fault is named first.
      {{calendarRule(kIdA), calendarRule(kIdB), calendarRule(kIdC), calendarRule(kIdD, "x", 1)},
       "Rule 3: calendar lead 1 min is outside 5\u2013120 min."},
      {{calendarRule(kIdA), calendarRule(kIdB), calendarRule(kIdC), calendarRule(kIdD)},
       "At most 3 calendar rules are allowed."},
      {{geofenceRule(kIdA), geofenceRule(kIdB)}, "At most 1 geofence rule is allowed."},
  };
  const std::vector<TopOffRule> stored{calendarRule(kIdC, "Flight", 60)};
  settings.rules = stored;
  for (const auto& c : cases) {
    const auto result = service.setSmartTopOffRules(c.rules);
    EXPECT_EQ(
        std::get_if<MCPToolError>(&result) ? *std::get_if<MCPToolError>(&result) : MCPToolError{},
        (MCPToolError{kCommandRefused, c.message}));
  }
  EXPECT_EQ(settings.rules, stored);
  EXPECT_EQ(settings.saves, 0);
}

TEST_F(BatteryControlCommandServiceTest, AcceptedRulesReplaceTheStoredOnesAndReadBack) {
  machine.calendar = CalendarAuthorization::fullAccess;
  machine.location = LocationAuthorization::authorizedWhenInUse;
  const std::vector<TopOffRule> rules{calendarRule(kIdA, "Standup", 5),
                                      calendarRule(kIdB, "Flight", 120), geofenceRule(kIdC)};
  const auto result = service.setSmartTopOffRules(rules);
  ASSERT_TRUE(std::holds_alternative<JSONValue>(result));
  EXPECT_EQ(settings.rules, rules);
  const auto& automation = std::get<JSONValue>(result);
  EXPECT_EQ(automation.member("smart_top_off_rules")->arrayValue()->at(2),
            JSONValue::object({{"type", "geofence"},
                               {"id", kIdC},
                               {"latitude", 51.5},
                               {"longitude", -0.12},
                               {"radius_meters", 200},
                               {"label", "Office"}}));
  EXPECT_EQ(automation.member("calendar_authorization"), JSONValue("full_access"));
  EXPECT_EQ(automation.member("location_authorization"), JSONValue("authorized_when_in_use"));

  // An empty list clears them.
  EXPECT_TRUE(std::holds_alternative<JSONValue>(service.setSmartTopOffRules({})));
  EXPECT_TRUE(settings.rules.empty());
}

TEST_F(BatteryControlCommandServiceTest, HeatProtectionBoundsAreInclusive) {
  const std::string threshold = "Heat-protection threshold must be 32\u201345 \u00b0C.";
  const std::string hysteresis = "Heat-protection hysteresis must be 1\u201310 \u00b0C.";
  const struct {
    std::int64_t t, h;
    std::optional<std::string> refusal;
  } cases[] = {{31, 3, threshold},    {46, 3, threshold},   {50, 0, threshold},
               {32, 0, hysteresis},   {45, 11, hysteresis}, {32, 1, std::nullopt},
               {45, 10, std::nullopt}};
  for (const auto& c : cases) {
    const auto result = service.setHeatProtection(c.t, c.h);
    if (c.refusal) {
      EXPECT_EQ(std::get<MCPToolError>(result), (MCPToolError{kCommandRefused, *c.refusal}));
      continue;
    }
    EXPECT_EQ(settings.thresholdC, c.t);
    EXPECT_EQ(settings.hysteresisC, c.h);
    EXPECT_EQ(std::get<JSONValue>(result).member("heat_protection_threshold_c"), JSONValue(c.t));
  }
  EXPECT_EQ(settings.saves, 2);
}

}  // namespace
}  // namespace quorel
