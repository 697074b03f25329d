#pragma once
// The catalogue of tools an assistant may call, and the dispatch of "tools/call": each tool's
// arguments are checked here, reads go to the snapshot provider and commands to the battery
// command service, and the answer is wrapped as the protocol's tool result.
//
// Threading: callTool runs on the main queue and answers through `reply` exactly once, on the
// main queue; the history tools and the helper commands answer later, and other calls may run in
// between. The catalogue is built once, on first use, from any thread.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "control/battery_commands.hpp"
#include "core/json_value.hpp"
#include "mcp/json_rpc.hpp"

namespace quorel {

class QuorelSnapshotProvider;

struct ToolSpec {
  std::string name;
  std::string description;
  JSONValue inputSchema;
  bool operator==(const ToolSpec&) const = default;
};

class MCPToolRegistry {
 public:
  using Reply = std::function<void(JSONRPCResponse)>;

  // Both must outlive the registry.
  MCPToolRegistry(QuorelSnapshotProvider& snapshot, BatteryCommands& commands);
  virtual ~MCPToolRegistry() = default;
  MCPToolRegistry(const MCPToolRegistry&) = delete;
  MCPToolRegistry& operator=(const MCPToolRegistry&) = delete;

  // The tools in the order "tools/list" gives them.
  static const std::vector<ToolSpec>& catalogue();
  // {"tools":[{"name","description","inputSchema"}, ...]}; depends on no state.
  static const JSONValue& toolsListJSON();
  // The same written once: it never changes, and writing its schemas and descriptions again for
  // every request cost more than all the rest of answering it.
  static const std::string& toolsListText();

  // Never fails: an unknown tool or a bad argument is a -32602 error response, a command's
  // refusal carries the command's code and words, and every result is a tool result.
  virtual void callTool(const std::string& name, std::optional<JSONValue> arguments,
                        std::optional<JSONValue> id, Reply reply);

  // The value as JSON text with forward slashes as they are; "{}" when it cannot be written.
  static std::string compactJSON(const JSONValue& value);
  // {"content":[{"type":"text","text":compactJSON(value)}],"isError":false}.
  static JSONValue content(const JSONValue& value);
  // The written text of the same result around an answer already written in the inString
  // form of JSONTextWriter.
  static std::string contentText(std::string inString);
  static JSONRPCResponse map(std::optional<JSONValue> id, const BatteryCommandResult& result);

  static JSONRPCErrorObject unknownTool(const std::string& name);

  // An integer argument: a number truncated toward zero that fits in 64 bits, else absent.
  static std::optional<std::int64_t> integerArgument(const JSONValue& arguments,
                                                     std::string_view key);
  // A string argument: only a string counts.
  static std::optional<std::string> stringArgument(const JSONValue& arguments,
                                                   std::string_view key);

 protected:
  // For test doubles that answer calls themselves; callTool must then be overridden.
  MCPToolRegistry() = default;

 private:
  QuorelSnapshotProvider* snapshot_ = nullptr;
  BatteryCommands* commands_ = nullptr;
};

}  // namespace quorel
