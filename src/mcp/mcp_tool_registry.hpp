#pragma once
// The catalogue of tools an assistant may call, and the dispatch of "tools/call".
//
// The catalogue is empty in this build: the tools arrive together with the snapshot provider
// and the battery command service they call. Until then "tools/list" honestly lists no tools
// and every call is answered as a call to an unknown tool.

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core/json_value.hpp"
#include "mcp/json_rpc.hpp"

namespace quorel {

struct ToolDescriptor {
  std::string name;
  std::string description;
  JSONValue inputSchema;
  bool operator==(const ToolDescriptor&) const = default;
};

class MCPToolRegistry {
 public:
  virtual ~MCPToolRegistry() = default;

  // The tools in the order "tools/list" gives them.
  virtual const std::vector<ToolDescriptor>& catalogue() const;

  // {"tools":[{"name","description","inputSchema"}, ...]}; depends on no state.
  JSONValue toolsListJSON() const;

  // Runs on the main queue and answers through `reply` exactly once, with `id` copied.
  virtual void callTool(const std::string& name, std::optional<JSONValue> arguments,
                        std::optional<JSONValue> id, std::function<void(JSONRPCResponse)> reply);

  static JSONRPCErrorObject unknownTool(const std::string& name);
};

}  // namespace quorel
