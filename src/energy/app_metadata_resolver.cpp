#include "energy/app_metadata_resolver.hpp"

#include <utility>

#include "energy/process_display_name.hpp"

namespace quorel {
namespace {

// The bucket of energy no listed process accounts for: no program stands behind it.
constexpr std::string_view kUnattributedName = "Other";
constexpr std::string_view kNotRunning = "\nNot running now — shown from recorded energy history.";

std::string joinLines(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) {
    if (!text.empty()) text += '\n';
    text += line;
  }
  return text;
}

}  // namespace

AppMetadataResolver::AppMetadataResolver(const ProcessTable& table,
                                         const ApplicationCatalog& catalog)
    : table_(table), catalog_(catalog) {}

std::optional<std::string> AppMetadataResolver::describe(std::string_view processName) {
  if (processName.empty() || processName == kUnattributedName) return std::nullopt;
  const std::string name(processName);
  {
    std::lock_guard lock(cacheLock_);
    if (const auto cached = cache_.find(name); cached != cache_.end()) return cached->second;
  }
  std::string text = build(name);
  std::lock_guard lock(cacheLock_);
  cache_[name] = text;
  return text;
}

std::string AppMetadataResolver::build(const std::string& name) const {
  std::vector<std::string> lines;
  if (std::string label = ProcessDisplayName::label(name); label != name) {
    lines.push_back(std::move(label));
  }
  const std::optional<Live> process = locate(name);
  if (process) {
    for (std::string& line : resolve(*process)) lines.push_back(std::move(line));
  }
  std::string text = joinLines(lines);
  if (!process) text += kNotRunning;
  return text;
}

std::optional<AppMetadataResolver::Live> AppMetadataResolver::locate(
    const std::string& name) const {
  std::vector<Live> seen;
  for (const ProcessId pid : table_.listPids()) {
    if (pid <= 0) continue;
    const std::optional<ProcessStat> stat = table_.readStat(pid);
    // Kernel threads carry names of their own choosing but belong to no program.
    if (!stat || stat->isKernelThread) continue;
    const std::optional<std::string> kernelName = table_.readName(pid);
    if (!kernelName || kernelName->empty()) continue;
    std::vector<std::string> arguments =
        table_.readArguments(pid).value_or(std::vector<std::string>{});
    Live live{pid, lastPathComponent(processName(*kernelName, arguments)), std::move(arguments)};
    if (live.title == name) return live;
    seen.push_back(std::move(live));
  }
  // History may hold a name in another case than the running process shows; argv[0] is the
  // one name a program chooses itself.
  const std::string wanted = lowerASCII(name);
  for (Live& live : seen) {
    if (!live.arguments.empty() &&
        lowerASCII(lastPathComponent(live.arguments.front())) == wanted) {
      return std::move(live);
    }
  }
  return std::nullopt;
}

std::vector<std::string> AppMetadataResolver::resolve(const Live& process) const {
  std::optional<std::filesystem::path> path = table_.readExecutablePath(process.pid);
  if (!path && !process.arguments.empty() && process.arguments.front().starts_with('/')) {
    path = std::filesystem::path(process.arguments.front());
  }
  std::vector<std::string> lines;
  if (!path) {
    lines.push_back("Location  unknown");
    return lines;
  }
  if (const std::optional<ApplicationInfo> app = catalog_.applicationFor(*path)) {
    lines.push_back("ID  " + app->identifier);
    if (app->version) lines.push_back("Version  " + *app->version);
  }
  lines.push_back("Location  " + path->string());
  return lines;
}

}  // namespace quorel
