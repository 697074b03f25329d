#include "core/paths.hpp"

#include <cstdlib>
#include <stdexcept>

namespace quorel {

std::optional<std::string> ProcessEnvironment(const std::string& name) {
  if (const char* v = std::getenv(name.c_str())) return std::string(v);
  return std::nullopt;
}

namespace {
// XDG says a relative path in these variables is invalid and must be ignored.
std::filesystem::path baseDirectory(const Environment& env, const std::string& variable,
                                    const char* homeRelative) {
  if (auto v = env(variable); v && !v->empty() && v->front() == '/') return *v;
  auto home = env("HOME");
  if (!home || home->empty()) {
    throw std::runtime_error("neither " + variable +
                             " nor HOME is set — set HOME or pass --data-dir DIR");
  }
  return std::filesystem::path(*home) / homeRelative;
}
}  // namespace

QuorelPaths QuorelPaths::resolve(const Environment& env,
                                 std::optional<std::filesystem::path> dataDirectoryOverride) {
  QuorelPaths p;
  p.dataDirectory = dataDirectoryOverride
                        ? std::filesystem::absolute(*dataDirectoryOverride)
                        : baseDirectory(env, "XDG_DATA_HOME", ".local/share") / "quorel";
  p.configDirectory = baseDirectory(env, "XDG_CONFIG_HOME", ".config") / "quorel";
  p.stateDirectory = baseDirectory(env, "XDG_STATE_HOME", ".local/state") / "quorel";
  if (auto r = env("XDG_RUNTIME_DIR"); r && !r->empty() && r->front() == '/') {
    p.runtimeDirectory = std::filesystem::path(*r);
  }
  return p;
}

}  // namespace quorel
