#include "mcp/mcp_tool_registry.hpp"

namespace quorel {

const std::vector<ToolDescriptor>& MCPToolRegistry::catalogue() const {
  static const std::vector<ToolDescriptor> kNone;
  return kNone;
}

JSONValue MCPToolRegistry::toolsListJSON() const {
  JSONValue::Array tools;
  for (const ToolDescriptor& tool : catalogue()) {
    tools.push_back(JSONValue::object({{"name", tool.name},
                                       {"description", tool.description},
                                       {"inputSchema", tool.inputSchema}}));
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
