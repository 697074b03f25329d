#pragma once
// The on/off rule of the MCP server: it runs, on the configured port, while
// "Quorel.mcpServerEnabled" is true, and is stopped otherwise. The rule is applied when the
// switch is activated and again after every change to the preference domain, including changes
// written by another process (the command line's `quorel mcp enable`).
//
// Threading: construct, activate, apply and destroy on the main queue. Preference observers may
// fire on any thread; they post the re-application to the main queue, coalesced.
// Destroy the switch before the server.

#include <cstdint>
#include <memory>

#include "core/preference_store.hpp"
#include "core/serial_queue.hpp"
#include "mcp/mcp_server.hpp"

namespace quorel {

class MCPServerSwitch {
 public:
  MCPServerSwitch(MCPServer& server, PreferenceStore& preferences, SerialQueue& mainQueue);
  ~MCPServerSwitch();
  MCPServerSwitch(const MCPServerSwitch&) = delete;
  MCPServerSwitch& operator=(const MCPServerSwitch&) = delete;

  // Applies the rule now and starts following preference changes. Idempotent.
  void activate();
  // Starts the server on the configured port when enabled, stops it otherwise. This is also
  // what the agent calls after wake; at sleep and at quit it calls MCPServer::stop().
  void apply();

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace quorel
