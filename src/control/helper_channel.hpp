#pragma once
// One connection to the helper as the manager uses it: JSON-RPC calls that each complete once,
// and one notice when the connection ends. HelperClient is the socket; tests give fakes.
//
// Threading: made, called and closed on the agent's main queue; completions and the closed notice
// run there too, and never after close().

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "core/json_value.hpp"

namespace quorel {

struct HelperCallError {
  enum class Kind {
    helper,     // the helper refused or failed: `code` is a QuorelHelperError code
    protocol,   // a JSON-RPC error: not permitted, invalid parameters, unknown method
    transport,  // the connection ended or could not be made before an answer came
  };
  Kind kind = Kind::transport;
  std::int64_t code = 0;
  std::string message;
};

struct HelperCallOutcome {
  std::optional<JSONValue> result;
  std::optional<HelperCallError> error;  // set exactly when `result` is not
};

using HelperCallCompletion = std::function<void(HelperCallOutcome)>;

class HelperChannel {
 public:
  // `connected`: the socket had been connected (the helper went away, the kernel's word for a
  // crash or a quit). False: it never was (nothing listens, or the socket file is missing).
  using ClosedHandler = std::function<void(bool connected)>;

  virtual ~HelperChannel() = default;

  // Calls pending when the connection ends complete with a transport error, in order.
  virtual void call(std::string method, JSONValue params, HelperCallCompletion done) = 0;
  // Runs once, after the pending calls have completed. Set before the first call.
  virtual void setClosedHandler(ClosedHandler handler) = 0;
  // Ends the connection without running the handler or any completion.
  virtual void close() = 0;
};

using HelperChannelFactory = std::function<std::unique_ptr<HelperChannel>()>;

}  // namespace quorel
