#include "programs/quorel/agent_top_off.hpp"

#include <gtest/gtest.h>

#include "control/fake_helper_link.hpp"
#include "control/fake_top_off_sources.hpp"
#include "core/memory_preference_store.hpp"
#include "support/log_capture.hpp"

namespace quorel {
namespace {

using namespace std::chrono_literals;

constexpr const char* kRuleId = "5D3F4A5B-6C7D-4E8F-9A0B-1C2D3E4F5A6B";
constexpr const char* kUnavailable =
    "topOff fired but helper proxy unavailable — top-off skipped (ruleId="
    "5D3F4A5B-6C7D-4E8F-9A0B-1C2D3E4F5A6B kind=calendar)";

class RecordingNotices final : public NoticePoster {
 public:
  std::vector<Notice> posted;
  void post(Notice notice) override { posted.push_back(std::move(notice)); }
};

class AgentTopOffTest : public ::testing::Test {
 protected:
  AgentTopOffTest() {
    const TopOffRule rule{CalendarTopOffRule{kRuleId, "Flight", 60}};
    settings_.update([&](QuorelSettings& s) {
      s.smartTopOffRules = {nlohmann::ordered_json::parse(rule.toJSON().write().value())};
    });
    calendar_.events.push_back({"Flight to Lisbon", clock_.now() + 45min});
  }
  std::unique_ptr<AgentTopOff> make() {
    return std::make_unique<AgentTopOff>(
        AgentTopOff::Services{settings_, calendar_, location_, defaults_, helper_, notices_},
        clock_, main_);
  }
  void nextPoll() {
    clock_.advance(60s);
    main_.runPending();
  }

  ManualClock clock_;
  SerialQueue main_{"test.main", clock_};
  MemoryPreferenceStore defaults_;
  SettingsManager settings_{defaults_, main_, clock_};
  testing::FakeCalendar calendar_{clock_};
  testing::FakeLocationMonitor location_;
  testing::FakeHelperLink helper_;
  RecordingNotices notices_;
};

TEST_F(AgentTopOffTest, AFiringReleasesTheLimitOnceAndTellsThePersonOnlyWhenItCouldNot) {
  struct Case {
    const char* name;
    bool connected;
    bool available;
    std::optional<QuorelHelperError> reply;
    std::vector<std::string> helperCalls;
    std::optional<std::string> logged;
  };
  const QuorelHelperError refused{QuorelHelperErrorCode::codeSMCWriteFailed, "write refused"};
  const std::vector<std::string> released{"releaseLimitUntilFullThenRestore"};
  const Case cases[] = {
      {"released", true, true, std::nullopt, released, std::nullopt},
      {"refused", true, true, refused, released,
       "releaseLimitUntilFullThenRestore failed — error=write refused"},
      {"not connected", false, true, std::nullopt, {}, kUnavailable},
      {"connected, control unavailable", true, false, std::nullopt, {}, kUnavailable},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    defaults_.removeValue(BatteryControlRulesEngine::cooldownKey(kRuleId));
    notices_.posted.clear();
    helper_.fakeProxy.calls.clear();
    helper_.connected = c.connected;
    helper_.available = c.available;
    helper_.fakeProxy.immediateAnswer = c.reply;
    const testing::LogCapture logs;

    auto topOff = make();
    topOff->start();
    EXPECT_TRUE(helper_.fakeProxy.calls.empty()) << "asked the helper inside the engine's poll";
    main_.runPending();
    // The rule rests: later polls reach neither the helper nor the person.
    nextPoll();
    nextPoll();

    EXPECT_EQ(helper_.fakeProxy.calls, c.helperCalls);
    EXPECT_TRUE(defaults_.hasValue(BatteryControlRulesEngine::cooldownKey(kRuleId)));
    const Notice failure{"quorel.charge-limit.topoff-failed",
                         "Scheduled top-off couldn't start",
                         "Quorel couldn't release the charge limit for your scheduled top-off. "
                         "Open the dashboard to top up manually.",
                         {},
                         {}};
    EXPECT_EQ(notices_.posted, c.logged ? std::vector<Notice>{failure} : std::vector<Notice>{});
    const auto lines = logs.lines();
    EXPECT_EQ(c.logged.has_value(), std::any_of(lines.begin(), lines.end(), [&](const auto& l) {
                return l.message == c.logged && l.level == spdlog::level::err;
              }));
  }
}

}  // namespace
}  // namespace quorel
