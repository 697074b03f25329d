#include "mcp/mcp_server_switch.hpp"

#include <atomic>
#include <optional>

namespace quorel {

struct MCPServerSwitch::State {
  State(MCPServer& s, PreferenceStore& p, SerialQueue& q)
      : server(s), preferences(p), mainQueue(q) {}

  MCPServer& server;
  PreferenceStore& preferences;
  SerialQueue& mainQueue;
  std::optional<std::uint64_t> observerID;
  // A burst of preference writes (a settings save, the live port being published) needs one
  // re-application, not one per write.
  std::atomic<bool> applyPending{false};

  void apply() {
    if (preferences.boolValue(kMCPServerEnabledKey)) {
      server.start(server.currentPort());
    } else {
      server.stop();
    }
  }
};

MCPServerSwitch::MCPServerSwitch(MCPServer& server, PreferenceStore& preferences,
                                 SerialQueue& mainQueue)
    : state_(std::make_shared<State>(server, preferences, mainQueue)) {}

MCPServerSwitch::~MCPServerSwitch() {
  if (state_->observerID) state_->preferences.removeObserver(*state_->observerID);
}

void MCPServerSwitch::activate() {
  if (!state_->observerID) {
    std::weak_ptr<State> weak = state_;
    SerialQueue* main = &state_->mainQueue;
    state_->observerID = state_->preferences.addObserver([weak, main] {
      auto state = weak.lock();
      if (!state || state->applyPending.exchange(true)) return;
      main->async([weak] {
        auto s = weak.lock();
        if (!s) return;
        s->applyPending.store(false);
        s->apply();
      });
    });
  }
  state_->apply();
}

void MCPServerSwitch::apply() {
  state_->apply();
}

}  // namespace quorel
