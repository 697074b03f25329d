#include "platform/linux/desktop_application_catalog.hpp"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <utility>

namespace quorel {
namespace {

namespace fs = std::filesystem;

// Far above any real entry or metadata file; a larger file is not one.
constexpr std::uintmax_t kMaxFileBytes = 4 * 1024 * 1024;

std::optional<std::string> readSmallFile(const fs::path& path) {
  std::error_code error;
  const std::uintmax_t size = fs::file_size(path, error);
  if (error || size > kMaxFileBytes) return std::nullopt;
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string_view trim(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  const auto last = text.find_last_not_of(" \t");
  return text.substr(first, last - first + 1);
}

// The escapes of a desktop-entry string value. Others are left for the Exec quoting rules.
std::string unescapeString(std::string_view value) {
  std::string out;
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '\\' || i + 1 == value.size()) {
      out += value[i];
      continue;
    }
    switch (const char next = value[++i]) {
      case 's':
        out += ' ';
        break;
      case 'n':
        out += '\n';
        break;
      case 't':
        out += '\t';
        break;
      case 'r':
        out += '\r';
        break;
      case '\\':
        out += '\\';
        break;
      default:
        out += '\\';
        out += next;
    }
  }
  return out;
}

struct DesktopEntry {
  std::string name;
  std::string exec;
  std::string tryExec;
  std::string type;
  bool hidden = false;
  bool noDisplay = false;
};

// The keys of the "Desktop Entry" group, which must come before any other group. Absent for a
// file that is not a desktop entry or breaks the format: a key outside a group, a line that is
// neither comment, group nor key.
std::optional<DesktopEntry> parseDesktopEntry(std::string_view text) {
  DesktopEntry entry;
  bool sawGroup = false, inMain = false;
  while (!text.empty()) {
    const auto end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    line = trim(line);
    if (line.empty() || line.front() == '#') continue;
    if (line.front() == '[') {
      if (line.back() != ']') return std::nullopt;
      inMain = !sawGroup && line == "[Desktop Entry]";
      if (!sawGroup && !inMain) return std::nullopt;
      sawGroup = true;
      continue;
    }
    const auto equals = line.find('=');
    if (!sawGroup || equals == std::string_view::npos) return std::nullopt;
    if (!inMain) continue;
    const std::string_view key = trim(line.substr(0, equals));
    const std::string value = unescapeString(trim(line.substr(equals + 1)));
    if (key == "Name" && entry.name.empty()) entry.name = value;
    if (key == "Exec" && entry.exec.empty()) entry.exec = value;
    if (key == "TryExec" && entry.tryExec.empty()) entry.tryExec = value;
    if (key == "Type" && entry.type.empty()) entry.type = value;
    if (key == "Hidden") entry.hidden = value == "true";
    if (key == "NoDisplay") entry.noDisplay = value == "true";
  }
  if (!sawGroup) return std::nullopt;
  return entry;
}

// The program an Exec line runs: its first word, or what `env NAME=value ...` runs.
std::optional<std::string> execProgram(std::string_view exec) {
  const std::optional<std::vector<std::string>> words = desktop::execWords(exec);
  if (!words) return std::nullopt;
  auto word = words->begin();
  if (word != words->end() && fs::path(*word).filename() == "env") {
    ++word;
    while (word != words->end() && (word->find('=') != std::string::npos || word->starts_with('-')))
      ++word;
  }
  if (word == words->end()) return std::nullopt;
  return *word;
}

std::string decodeEntities(std::string_view text) {
  static constexpr std::pair<std::string_view, char> kEntities[] = {
      {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
  std::string out;
  for (std::size_t i = 0; i < text.size();) {
    bool decoded = false;
    for (const auto& [entity, c] : kEntities) {
      if (text.substr(i).starts_with(entity)) {
        out += c;
        i += entity.size();
        decoded = true;
        break;
      }
    }
    if (!decoded) out += text[i++];
  }
  return out;
}

// The value of attribute `name` in the text of a start tag (what follows the element's name).
std::optional<std::string> attribute(std::string_view tag, std::string_view name) {
  std::size_t i = 0;
  while (i < tag.size()) {
    while (i < tag.size() &&
           (tag[i] == ' ' || tag[i] == '\t' || tag[i] == '\n' || tag[i] == '\r' || tag[i] == '/'))
      ++i;
    const std::size_t nameStart = i;
    while (i < tag.size() && tag[i] != '=' && tag[i] != ' ' && tag[i] != '\t' && tag[i] != '\n')
      ++i;
    const std::string_view attributeName = tag.substr(nameStart, i - nameStart);
    while (i < tag.size() && tag[i] != '=') ++i;
    i = tag.find_first_of("\"'", i);
    if (i == std::string_view::npos) return std::nullopt;
    const auto close = tag.find(tag[i], i + 1);
    if (close == std::string_view::npos) return std::nullopt;
    if (attributeName == name) return decodeEntities(tag.substr(i + 1, close - i - 1));
    i = close + 1;
  }
  return std::nullopt;
}

}  // namespace

namespace desktop {

std::optional<std::vector<std::string>> execWords(std::string_view exec) {
  std::vector<std::string> words;
  std::size_t i = 0;
  while (true) {
    while (i < exec.size() && (exec[i] == ' ' || exec[i] == '\t')) ++i;
    if (i == exec.size()) break;
    std::string word;
    bool fieldCodeOnly = false;
    if (exec[i] == '"') {
      for (++i;; ++i) {
        if (i == exec.size()) return std::nullopt;
        if (exec[i] == '"') break;
        if (exec[i] == '\\' && i + 1 < exec.size() &&
            std::string_view("\"`$\\").find(exec[i + 1]) != std::string_view::npos)
          ++i;
        word += exec[i];
      }
      ++i;
    } else {
      for (; i < exec.size() && exec[i] != ' ' && exec[i] != '\t'; ++i) {
        if (exec[i] == '%' && i + 1 < exec.size()) {
          if (exec[++i] == '%') word += '%';
          // Any other field code stands for arguments the launcher fills in, never the program.
          else
            fieldCodeOnly = word.empty();
          continue;
        }
        word += exec[i];
      }
    }
    if (!(fieldCodeOnly && word.empty())) words.push_back(std::move(word));
  }
  return words;
}

std::optional<std::string> firstReleaseVersion(std::string_view xml) {
  bool inReleases = false;
  std::size_t i = 0;
  while ((i = xml.find('<', i)) != std::string_view::npos) {
    const std::string_view rest = xml.substr(i);
    const auto skipPast = [&](std::string_view terminator) {
      const auto end = xml.find(terminator, i);
      i = end == std::string_view::npos ? xml.size() : end + terminator.size();
    };
    if (rest.starts_with("<!--")) {
      skipPast("-->");
      continue;
    }
    if (rest.starts_with("<![CDATA[")) {
      skipPast("]]>");
      continue;
    }
    // The end of the tag, skipping '>' inside quoted attribute values.
    std::size_t end = i + 1;
    for (char quote = 0; end < xml.size() && (quote || xml[end] != '>'); ++end) {
      if (quote && xml[end] == quote)
        quote = 0;
      else if (!quote && (xml[end] == '"' || xml[end] == '\''))
        quote = xml[end];
    }
    const std::string_view tag = xml.substr(i + 1, end - i - 1);
    i = end;
    const bool closing = tag.starts_with('/');
    const std::string_view body = closing ? tag.substr(1) : tag;
    const auto nameEnd = body.find_first_of(" \t\r\n/");
    const std::string_view name = body.substr(0, nameEnd);
    const bool selfClosing = tag.ends_with('/');
    if (name == "releases") {
      inReleases = !closing && !selfClosing;
    } else if (name == "release" && inReleases && !closing && nameEnd != std::string_view::npos) {
      if (auto version = attribute(body.substr(nameEnd), "version")) return version;
    }
  }
  return std::nullopt;
}

}  // namespace desktop

DesktopApplicationCatalog::DesktopApplicationCatalog(std::vector<fs::path> dataDirectories,
                                                     std::vector<fs::path> searchPath)
    : dataDirectories_(std::move(dataDirectories)), searchPath_(std::move(searchPath)) {}

namespace {
std::vector<fs::path> absoluteEntries(std::string_view list) {
  std::vector<fs::path> out;
  while (true) {
    const auto colon = list.find(':');
    const fs::path entry(std::string(list.substr(0, colon)));
    if (entry.is_absolute()) out.push_back(entry);
    if (colon == std::string_view::npos) break;
    list.remove_prefix(colon + 1);
  }
  return out;
}
}  // namespace

std::vector<fs::path> DesktopApplicationCatalog::dataDirectories(const Environment& env) {
  std::vector<fs::path> out;
  const std::optional<std::string> dataHome = env("XDG_DATA_HOME");
  if (dataHome && fs::path(*dataHome).is_absolute()) {
    out.emplace_back(*dataHome);
  } else if (const std::optional<std::string> home = env("HOME"); home && !home->empty()) {
    out.push_back(fs::path(*home) / ".local" / "share");
  }
  const std::optional<std::string> dataDirs = env("XDG_DATA_DIRS");
  std::vector<fs::path> system = absoluteEntries(dataDirs ? *dataDirs : "");
  if (system.empty()) system = {"/usr/local/share", "/usr/share"};
  out.insert(out.end(), system.begin(), system.end());
  return out;
}

std::vector<fs::path> DesktopApplicationCatalog::searchPath(const Environment& env) {
  const std::optional<std::string> path = env("PATH");
  return absoluteEntries(path ? *path : "/usr/local/bin:/usr/bin:/bin");
}

std::optional<ApplicationInfo> DesktopApplicationCatalog::applicationFor(
    const fs::path& executable) const {
  std::call_once(built_, [this] { buildIndex(); });
  std::error_code error;
  fs::path canonical = fs::canonical(executable, error);
  // A program replaced since it started (an upgrade) has no file left to resolve.
  if (error) canonical = executable.lexically_normal();
  const auto claim = byExecutable_.find(canonical.string());
  if (claim == byExecutable_.end()) return std::nullopt;
  return ApplicationInfo{claim->second.identifier, claim->second.name,
                         releaseVersion(claim->second.identifier)};
}

void DesktopApplicationCatalog::buildIndex() const {
  for (const fs::path& dataDirectory : dataDirectories_) {
    const fs::path applications = dataDirectory / "applications";
    std::vector<std::pair<std::string, fs::path>> entries;
    std::error_code error;
    fs::recursive_directory_iterator it(applications, fs::directory_options::skip_permission_denied,
                                        error);
    for (; !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
      const fs::path& file = it->path();
      // Its own error code: a dangling link fails the type check but must not end the scan.
      std::error_code typeError;
      if (file.extension() != ".desktop" || !it->is_regular_file(typeError)) continue;
      // The id names sub-directories too: applications/vendor/app.desktop is "vendor-app".
      std::string identifier = file.lexically_relative(applications).replace_extension().string();
      std::replace(identifier.begin(), identifier.end(), '/', '-');
      entries.emplace_back(std::move(identifier), file);
    }
    std::sort(entries.begin(), entries.end());
    for (auto& [identifier, file] : entries) {
      if (seenIdentifiers_.insert(identifier).second) indexEntry(file, std::move(identifier));
    }
  }
}

void DesktopApplicationCatalog::indexEntry(const fs::path& file, std::string identifier) const {
  const std::optional<std::string> text = readSmallFile(file);
  if (!text) return;
  const std::optional<DesktopEntry> entry = parseDesktopEntry(*text);
  // A hidden entry is one the user deleted; it still hides the same id further down the path.
  if (!entry || entry->hidden || (!entry->type.empty() && entry->type != "Application")) return;
  const Claim claim{std::move(identifier), entry->name, entry->noDisplay};
  const std::optional<std::string> programs[] = {
      execProgram(entry->exec),
      entry->tryExec.empty() ? std::nullopt : std::optional<std::string>(entry->tryExec)};
  for (const std::optional<std::string>& program : programs) {
    if (!program) continue;
    const std::optional<fs::path> path = resolveProgram(*program);
    if (!path) continue;
    auto [existing, inserted] = byExecutable_.try_emplace(path->string(), claim);
    if (!inserted && existing->second.noDisplay && !claim.noDisplay) existing->second = claim;
  }
}

std::optional<fs::path> DesktopApplicationCatalog::resolveProgram(
    const std::string& program) const {
  const auto canonicalProgram = [](const fs::path& candidate) -> std::optional<fs::path> {
    std::error_code error;
    if (!fs::is_regular_file(candidate, error)) return std::nullopt;
    fs::path canonical = fs::canonical(candidate, error);
    if (error) return std::nullopt;
    return canonical;
  };
  const fs::path path(program);
  if (path.is_absolute()) return canonicalProgram(path);
  if (program.find('/') != std::string::npos || program.empty()) return std::nullopt;
  for (const fs::path& directory : searchPath_) {
    if (auto found = canonicalProgram(directory / path)) return found;
  }
  return std::nullopt;
}

std::optional<std::string> DesktopApplicationCatalog::releaseVersion(
    const std::string& identifier) const {
  static constexpr const char* kLocations[] = {"metainfo/%.metainfo.xml", "metainfo/%.appdata.xml",
                                               "appdata/%.appdata.xml", "appdata/%.metainfo.xml"};
  for (const fs::path& dataDirectory : dataDirectories_) {
    for (const std::string_view pattern : kLocations) {
      const auto mark = pattern.find('%');
      const fs::path file = dataDirectory / (std::string(pattern.substr(0, mark)) + identifier +
                                             std::string(pattern.substr(mark + 1)));
      if (const std::optional<std::string> xml = readSmallFile(file)) {
        return desktop::firstReleaseVersion(*xml);
      }
    }
  }
  return std::nullopt;
}

}  // namespace quorel
