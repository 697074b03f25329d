#pragma once
// The one gate between a request and the battery. Applies BatteryControlGuards, sends every
// helper write through one path with its deadline, reads the control state and the automation
// settings out as JSON, and validates the two automation setters.
//
// Threading: lives on the agent's main queue; every call, every helper reply and every
// completion runs there. A completion runs exactly once; a helper reply after the deadline is
// dropped.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "control/automation_authorization.hpp"
#include "control/battery_commands.hpp"
#include "control/battery_control_availability.hpp"
#include "control/helper_link.hpp"
#include "core/power_state.hpp"
#include "core/serial_queue.hpp"

namespace quorel {

// The settings the service reads and replaces. The application adapts its settings manager;
// each store call replaces the whole value and saves it.
class BatteryControlSettingsAccess {
 public:
  virtual ~BatteryControlSettingsAccess() = default;
  virtual bool experimentalClamshellDischarge() const = 0;
  virtual std::vector<TopOffRule> smartTopOffRules() const = 0;
  virtual std::int64_t heatProtectionThresholdC() const = 0;
  virtual std::int64_t heatProtectionHysteresisC() const = 0;
  virtual void storeSmartTopOffRules(const std::vector<TopOffRule>& rules) = 0;
  virtual void storeHeatProtection(std::int64_t thresholdC, std::int64_t hysteresisC) = 0;
};

// What the service reads of the machine, each asked at the moment of a command.
struct BatteryControlEnvironment {
  std::function<BatteryControlAvailability()> availability;
  // The latest published power state; absent before the first one.
  std::function<std::optional<PowerState>()> powerState;
  std::function<bool()> isClamshellClosed;
  std::function<bool()> hasExternalDisplay;
  std::function<CalendarAuthorization()> calendarAuthorization;
  std::function<LocationAuthorization()> locationAuthorization;
};

inline constexpr Seconds kHelperReplyDeadline{8.0};

inline constexpr const char* kBatteryControlNotEnabledText =
    "Battery control isn't enabled \u2014 turn it on in Quorel \u2192 Settings \u2192 Battery "
    "Control.";
inline constexpr const char* kHelperNoResponseText =
    "The battery helper didn't respond (it may have crashed). Try again.";

class BatteryControlCommandService final : public BatteryCommands {
 public:
  BatteryControlCommandService(HelperLink& link, SerialQueue& mainQueue,
                               BatteryControlSettingsAccess& settings,
                               BatteryControlEnvironment environment);
  ~BatteryControlCommandService() override;
  BatteryControlCommandService(const BatteryControlCommandService&) = delete;
  BatteryControlCommandService& operator=(const BatteryControlCommandService&) = delete;

  JSONValue state() const override;
  JSONValue automation() const override;

  void setChargeLimit(std::int64_t percent, BatteryCommandCompletion done) override;
  void setForceDischarge(bool enable, BatteryCommandCompletion done) override;
  void setTopUp(bool enable, BatteryCommandCompletion done) override;
  // Removes the ceiling altogether: the battery charges to full and stays there.
  void clearChargeLimit(BatteryCommandCompletion done);

  BatteryCommandResult setSmartTopOffRules(std::vector<TopOffRule> rules) override;
  BatteryCommandResult setHeatProtection(std::int64_t thresholdC,
                                         std::int64_t hysteresisC) override;

  // The live capacity a person sees: the latest state's display percentage.
  std::optional<std::int64_t> liveCapacity() const;

 private:
  using HelperOperation = std::function<void(HelperProxy&, HelperReply)>;
  using HelperOutcome = std::function<void(std::optional<MCPToolError>)>;

  // The not-enabled refusal unless availability, the link and the proxy all allow a write.
  std::optional<MCPToolError> requireControlAvailable() const;
  // The link alone: enough to stop what is running.
  std::optional<MCPToolError> requireHelperReady() const;
  // Sends one write and reports its outcome once: the reply, or the deadline's failure.
  void runHelperCommand(std::string rejectionMessage, HelperOperation operation,
                        HelperOutcome outcome);
  // After a successful write: ask for the helper's state and answer with ours.
  void succeedWithState(const BatteryCommandCompletion& done);
  void startDischarge(BatteryCommandCompletion done);

  struct PendingCommand {
    HelperOutcome outcome;
    TimerHandle deadline;
  };
  // Takes the pending command out of the books; absent when it already ended.
  std::optional<PendingCommand> settle(std::uint64_t id);

  HelperLink& link_;
  SerialQueue& mainQueue_;
  BatteryControlSettingsAccess& settings_;
  BatteryControlEnvironment environment_;
  std::map<std::uint64_t, PendingCommand> pending_;
  std::uint64_t nextCommandId_ = 1;
  // Replies and deadlines that outlive the service see it gone.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

// A number as the refusal sentences print it: 91.5, 100.0, nan, inf.
std::string describeNumber(double value);

}  // namespace quorel
