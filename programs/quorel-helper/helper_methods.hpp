#pragma once
// The helper's JSON-RPC methods: decodes and checks the parameters of one request, runs it on the
// controller and builds the answer. Knows nothing of sockets; the server decides who may call.

#include <optional>
#include <string_view>

#include "control/helper_controller.hpp"
#include "mcp/json_rpc.hpp"

namespace quorel {

inline constexpr std::int64_t kJSONRPCInvalidRequest = -32600;
// Server-defined codes, from JSON-RPC's range for them.
inline constexpr std::int64_t kHelperNotPermitted = -32001;
inline constexpr std::int64_t kHelperLineTooLong = -32002;

enum class HelperMethod {
  ping,
  capabilities,
  setChargeLimit,
  clearChargeLimit,
  forceDischarge,
  setClamshellKeepAwake,
  releaseLimitUntilFullThenRestore,
  cancelTopUp,
  getState,
  resetAll,
  quit,
  setSailingBand,
  readEnergyCounters,
};

std::optional<HelperMethod> helperMethodFromString(std::string_view name);

class HelperMethods {
 public:
  explicit HelperMethods(HelperController& controller) : controller_(controller) {}

  // The answer to `request`; the caller drops it for a notification. Never throws for anything
  // a client can send.
  JSONRPCResponse handle(const JSONRPCRequest& request);

 private:
  HelperController& controller_;
};

// The error object of a refused or failed command.
JSONRPCErrorObject helperErrorObject(const QuorelHelperError& error);

}  // namespace quorel
