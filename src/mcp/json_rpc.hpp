#pragma once
// The JSON-RPC 2.0 envelopes of the local MCP endpoint, the closed set of method names and the
// error codes. Pure values: no state, no input or output.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/json_value.hpp"

namespace quorel {

inline constexpr std::int64_t kJSONRPCParseError = -32700;
inline constexpr std::int64_t kJSONRPCMethodNotFound = -32601;
inline constexpr std::int64_t kJSONRPCInvalidParams = -32602;
inline constexpr std::int64_t kJSONRPCInternalError = -32603;

struct JSONRPCErrorObject {
  std::int64_t code = 0;
  std::string message;
  // Never set by this server; kept so that a decoded error round-trips.
  std::optional<JSONValue> data;

  static const JSONRPCErrorObject parseError;

  // The result as a value, whichever way it is held.
  std::optional<JSONValue> resultValue() const;
  JSONValue toJSON() const;
  bool operator==(const JSONRPCErrorObject&) const = default;
};

struct JSONRPCRequest {
  // Required on reading but never compared: "1.0" reads as well as "2.0".
  std::string jsonrpc;
  // A JSON null id reads as absent, so such a request is a notification.
  std::optional<JSONValue> id;
  std::string method;
  std::optional<JSONValue> params;

  // Absent when the body is not a JSON object with string "jsonrpc" and "method" members.
  // Gives what fromJSON(JSONValue::parse(body)) gives, read straight from the text without
  // building the members that a request does not keep.
  static std::optional<JSONRPCRequest> decode(std::string_view body);
  static std::optional<JSONRPCRequest> fromJSON(const JSONValue& value);
  // The result as a value, whichever way it is held.
  std::optional<JSONValue> resultValue() const;
  JSONValue toJSON() const;
  bool operator==(const JSONRPCRequest&) const = default;
};

struct JSONRPCResponse {
  std::string jsonrpc = "2.0";
  // Left out of the written object when absent; never written as "id":null.
  std::optional<JSONValue> id;
  std::optional<JSONValue> result;
  std::optional<JSONRPCErrorObject> error;
  // The result already written as compact JSON text, in place of `result`: the large answers
  // are written once, straight into the form they travel in, rather than built as a value.
  std::optional<std::string> resultText;

  static JSONRPCResponse success(std::optional<JSONValue> id, JSONValue result);
  static JSONRPCResponse successText(std::optional<JSONValue> id, std::string resultText);
  static JSONRPCResponse failure(std::optional<JSONValue> id, JSONRPCErrorObject error);

  // The result as a value, whichever way it is held.
  std::optional<JSONValue> resultValue() const;
  JSONValue toJSON() const;
  // Absent when a value inside cannot be written (a number that is not finite).
  std::optional<std::string> encode() const;
  // The same text appended to `out`; false, with `out` as it was, where encode() gives nothing.
  bool encodeTo(std::string& out) const;
  // For clients of the endpoint (the bridge, the command line, tests).
  static std::optional<JSONRPCResponse> decode(std::string_view body);
  bool operator==(const JSONRPCResponse&) const = default;
};

// The methods the server knows, matched exactly and case-sensitively.
enum class MCPMethod { initialize, toolsList, toolsCall, ping };

std::optional<MCPMethod> mcpMethodFromString(std::string_view name);
std::string_view wireName(MCPMethod method);

}  // namespace quorel
