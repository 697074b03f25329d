#include "energy/ai_agent_registry.hpp"

namespace quorel {

const std::vector<AIAgentDescriptor>& AIAgentRegistry::agents() {
  static const std::vector<AIAgentDescriptor> table = {
      {"claude-code", "Claude Code", {"claude"}, {"claude"}},
      {"codex", "Codex CLI", {"codex"}, {"codex"}},
      {"openclaw", "OpenClaw", {"openclaw"}, {"openclaw"}},
      // Ships only as a script, so its interpreter is the process the kernel names.
      {"gemini-cli", "Gemini CLI", {}, {"gemini"}},
      {"copilot-cli", "Copilot CLI", {"copilot"}, {"copilot"}},
      {"opencode", "opencode", {"opencode"}, {"opencode"}},
      {"aider", "Aider", {"aider"}, {"aider"}},
      {"goose", "Goose", {"goose"}, {"goose"}},
      {"amp", "Amp", {"amp"}, {"amp"}},
      {"cursor-agent", "Cursor Agent", {"cursor-agent"}, {"cursor-agent"}},
      {"ollama", "Ollama", {"ollama"}, {}},
      {"lm-studio", "LM Studio", {"lm studio", "lmstudio", "lms"}, {}},
      {"llama-cpp", "llama.cpp", {"llama-server", "llama-cli", "llama-bench"}, {}},
      {"mlx", "MLX", {}, {"mlx_lm", "mlx_vlm"}},
  };
  return table;
}

const std::map<std::string, std::string>& AIAgentRegistry::displayNameById() {
  static const std::map<std::string, std::string> names = [] {
    std::map<std::string, std::string> out;
    for (const AIAgentDescriptor& agent : agents()) out.emplace(agent.id, agent.displayName);
    return out;
  }();
  return names;
}

std::string AIAgentRegistry::displayName(std::string_view id) {
  const auto& names = displayNameById();
  const auto found = names.find(std::string(id));
  return found == names.end() ? std::string(id) : found->second;
}

const std::map<std::string, std::set<std::string>>& AIAgentRegistry::ownerIdsByEmbeddedRuntimeId() {
  // Both start llama.cpp servers of their own; such a server is their work, not a separate one.
  static const std::map<std::string, std::set<std::string>> owners = {
      {"llama-cpp", {"ollama", "lm-studio"}},
  };
  return owners;
}

bool AIAgentRegistry::prefersOwningAncestor(const std::optional<std::string>& ancestorId,
                                            std::string_view runtimeId) {
  if (!ancestorId) return false;
  const auto& owners = ownerIdsByEmbeddedRuntimeId();
  const auto found = owners.find(std::string(runtimeId));
  return found != owners.end() && found->second.contains(*ancestorId);
}

bool AIAgentRegistry::isInterpreter(std::string_view name) {
  return name == "node" || name == "bun" || name == "deno" || name == "uv" ||
         name.starts_with("python");
}

std::map<std::string, TrackedEnergySummary> AIAgentRegistry::displayKeyed(
    const std::map<std::string, TrackedEnergySummary>& summaries) {
  std::map<std::string, TrackedEnergySummary> out;
  for (const auto& [id, summary] : summaries) out.emplace(displayName(id), summary);
  return out;
}

}  // namespace quorel
