#pragma once
// The agent's side of the privileged helper, as the command service, the automation and the
// assistants' tools see it: a proxy whose calls answer exactly once, and the link that says
// whether control may be used now. HelperManager is the one implementation in the agent; tests
// give fakes.
//
// Threading: everything here is called on the agent's main queue, and every reply arrives on it.
// A proxy may answer late or never (a helper that hung); callers that must not wait put their
// own deadline on top.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "control/helper_contract.hpp"

namespace quorel {

// Success is an absent error.
using HelperReply = std::function<void(std::optional<QuorelHelperError>)>;

class HelperProxy {
 public:
  virtual ~HelperProxy() = default;

  virtual void setChargeLimit(std::int64_t percent, HelperReply reply) = 0;
  virtual void clearChargeLimit(HelperReply reply) = 0;
  virtual void setSailingBand(std::int64_t band, HelperReply reply) = 0;
  virtual void forceDischarge(bool enable, HelperReply reply) = 0;
  virtual void setClamshellKeepAwake(bool enable, HelperReply reply) = 0;
  virtual void releaseLimitUntilFullThenRestore(HelperReply reply) = 0;
  virtual void cancelTopUp(HelperReply reply) = 0;
  virtual void resetAll(HelperReply reply) = 0;
};

// What a person is told about the link.
struct HelperStatus {
  enum class Kind { disabled, requiresApproval, enabled, error };
  Kind kind = Kind::disabled;
  std::string message;  // only for `error`: shown as it stands

  static HelperStatus disabled() { return {}; }
  static HelperStatus enabled() { return {Kind::enabled, {}}; }
  static HelperStatus requiresApproval() { return {Kind::requiresApproval, {}}; }
  static HelperStatus error(std::string message) { return {Kind::error, std::move(message)}; }
  bool operator==(const HelperStatus&) const = default;
};

class HelperLink {
 public:
  virtual ~HelperLink() = default;

  virtual HelperStatus status() const = 0;
  // The proxy only while the link is enabled and connected; null otherwise.
  virtual HelperProxy* proxy() = 0;
  // True only when the helper answered, its state is known, it is not below the version floor
  // and no stale-helper refresh is under way.
  virtual bool controlAvailable() const = 0;
  virtual std::optional<HelperState> helperState() const = 0;
  virtual std::optional<HelperCapabilities> capabilities() const = 0;
  // Asks the helper for its state soon; the answer arrives through helperState().
  virtual void refreshHelperStateNow() = 0;
};

}  // namespace quorel
