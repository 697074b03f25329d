#pragma once
// The battery commands as the assistants' tools and `quorel battery` reach them. One
// implementation, BatteryControlCommandService, applies the guards and is the only path to a
// helper write; the tool registry and the command socket hold it through this interface.
//
// Threading: called on the agent's main queue; completions run there, exactly once.

#include <cstdint>
#include <functional>
#include <string>
#include <variant>
#include <vector>

#include "control/top_off_rule.hpp"
#include "core/json_value.hpp"

namespace quorel {

// A refused or failed command: -32602 for a guard or a bad argument, -32603 for a helper that
// rejected the write or did not answer. The message is shown as it stands.
struct MCPToolError {
  std::int64_t code = -32602;
  std::string message;
  bool operator==(const MCPToolError&) const = default;
};

inline constexpr std::int64_t kCommandRefused = -32602;
inline constexpr std::int64_t kCommandFailed = -32603;

using BatteryCommandResult = std::variant<JSONValue, MCPToolError>;
using BatteryCommandCompletion = std::function<void(BatteryCommandResult)>;

class BatteryCommands {
 public:
  virtual ~BatteryCommands() = default;

  // The control state and the automation settings as JSON objects.
  virtual JSONValue state() const = 0;
  virtual JSONValue automation() const = 0;

  virtual void setChargeLimit(std::int64_t percent, BatteryCommandCompletion done) = 0;
  virtual void setForceDischarge(bool enable, BatteryCommandCompletion done) = 0;
  virtual void setTopUp(bool enable, BatteryCommandCompletion done) = 0;

  virtual BatteryCommandResult setSmartTopOffRules(std::vector<TopOffRule> rules) = 0;
  virtual BatteryCommandResult setHeatProtection(std::int64_t thresholdC,
                                                 std::int64_t hysteresisC) = 0;
};

}  // namespace quorel
