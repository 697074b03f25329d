#pragma once
// A helper link and proxy that record every write and answer when the test says, and the
// in-memory settings and machine readings the battery command service asks for.

#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "control/battery_control_command_service.hpp"

namespace quorel::testing {

class FakeHelperProxy final : public HelperProxy {
 public:
  // Each write is recorded as "name" or "name(argument)".
  std::vector<std::string> calls;
  // Answer at once with this outcome, or hold the reply for answerNext().
  bool answerImmediately = true;
  std::optional<QuorelHelperError> immediateAnswer;

  void setChargeLimit(std::int64_t percent, HelperReply reply) override {
    record("setChargeLimit(" + std::to_string(percent) + ")", std::move(reply));
  }
  void clearChargeLimit(HelperReply reply) override {
    record("clearChargeLimit", std::move(reply));
  }
  void setSailingBand(std::int64_t band, HelperReply reply) override {
    record("setSailingBand(" + std::to_string(band) + ")", std::move(reply));
  }
  void forceDischarge(bool enable, HelperReply reply) override {
    record(std::string("forceDischarge(") + (enable ? "true" : "false") + ")", std::move(reply));
  }
  void setClamshellKeepAwake(bool enable, HelperReply reply) override {
    record(std::string("setClamshellKeepAwake(") + (enable ? "true" : "false") + ")",
           std::move(reply));
  }
  void releaseLimitUntilFullThenRestore(HelperReply reply) override {
    record("releaseLimitUntilFullThenRestore", std::move(reply));
  }
  void cancelTopUp(HelperReply reply) override { record("cancelTopUp", std::move(reply)); }
  void resetAll(HelperReply reply) override { record("resetAll", std::move(reply)); }

  // Answers the oldest held reply; false when none is held.
  bool answerNext(std::optional<QuorelHelperError> error = std::nullopt) {
    if (held_.empty()) return false;
    auto reply = std::move(held_.front());
    held_.pop_front();
    reply(std::move(error));
    return true;
  }

 private:
  void record(std::string call, HelperReply reply) {
    calls.push_back(std::move(call));
    if (answerImmediately) {
      reply(immediateAnswer);
    } else {
      held_.push_back(std::move(reply));
    }
  }

  std::deque<HelperReply> held_;
};

class FakeHelperLink final : public HelperLink {
 public:
  HelperStatus linkStatus = HelperStatus::enabled();
  bool connected = true;
  bool available = true;
  std::optional<HelperState> state = HelperState::empty();
  int refreshes = 0;
  FakeHelperProxy fakeProxy;

  HelperStatus status() const override { return linkStatus; }
  HelperProxy* proxy() override { return connected ? &fakeProxy : nullptr; }
  bool controlAvailable() const override { return available; }
  std::optional<HelperState> helperState() const override { return state; }
  std::optional<HelperCapabilities> capabilities() const override { return std::nullopt; }
  void refreshHelperStateNow() override { ++refreshes; }
};

class MemoryBatteryControlSettings final : public BatteryControlSettingsAccess {
 public:
  bool clamshell = false;
  std::vector<TopOffRule> rules;
  std::int64_t thresholdC = 38;
  std::int64_t hysteresisC = 3;
  int saves = 0;

  bool experimentalClamshellDischarge() const override { return clamshell; }
  std::vector<TopOffRule> smartTopOffRules() const override { return rules; }
  std::int64_t heatProtectionThresholdC() const override { return thresholdC; }
  std::int64_t heatProtectionHysteresisC() const override { return hysteresisC; }
  void storeSmartTopOffRules(const std::vector<TopOffRule>& replacement) override {
    rules = replacement;
    ++saves;
  }
  void storeHeatProtection(std::int64_t threshold, std::int64_t hysteresis) override {
    thresholdC = threshold;
    hysteresisC = hysteresis;
    ++saves;
  }
};

// What the machine shows; the environment the service gets reads these fields when asked.
struct FakeMachine {
  BatteryControlAvailability availability = BatteryControlAvailability::available;
  std::optional<PowerState> power = [] {
    PowerState state;
    state.externalConnected = true;
    state.batteryPercentage = 90;
    return state;
  }();
  bool lidClosed = false;
  bool externalDisplay = false;
  CalendarAuthorization calendar = CalendarAuthorization::notDetermined;
  LocationAuthorization location = LocationAuthorization::notDetermined;

  BatteryControlEnvironment environment() {
    return {.availability = [this] { return availability; },
            .powerState = [this] { return power; },
            .isClamshellClosed = [this] { return lidClosed; },
            .hasExternalDisplay = [this] { return externalDisplay; },
            .calendarAuthorization = [this] { return calendar; },
            .locationAuthorization = [this] { return location; }};
  }
};

}  // namespace quorel::testing
