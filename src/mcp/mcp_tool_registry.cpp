#include "mcp/mcp_tool_registry.hpp"

namespace quorel {

const std::vector<ToolSpec>& MCPToolRegistry::catalogue() const {
  static const std::vector<ToolSpec> kNone;
  return kNone;
}

JSONValue MCPToolRegistry::toolsListJSON() const {
  JSONValue::Array tools;
  for (const ToolSpec& spec : catalogue()) {
    tools.push_back(JSONValue::object({{"name", spec.name},
                                       {"description", spec.description},
                                       {"inputSchema", spec.inputSchema}}));
  }
  return JSONValue::object({{"tools", JSONValue(std::move(tools))}});
}

void MCPToolRegistry::callTool(const std::string& name, std::optional<JSONValue> /*arguments*/,
                               std::optional<JSONValue> id,
                               std::function<void(JSONRPCResponse)> reply) {
  reply(JSONRPCResponse::failure(std::move(id), unknownTool(name)));
}

JSONRPCErrorObject MCPToolRegistry::unknownTool(const std::string& name) {
  return JSONRPCErrorObject{kJSONRPCInvalidParams, "Invalid params: Unknown tool: " + name, {}};
}

}  // namespace quorel
