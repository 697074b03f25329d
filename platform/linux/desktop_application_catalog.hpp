#pragma once
// The installed applications as desktop entries describe them: `applications/**/*.desktop`
// under the XDG data directories, each naming its program in `Exec=` (and `TryExec=`), with the
// application's release read from its AppStream metadata beside them.

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "core/paths.hpp"
#include "energy/application_catalog.hpp"

namespace quorel {

namespace desktop {

// The words of an `Exec=` value (already unescaped as a desktop-entry string) after the quoting
// rules: double quotes group, and inside them a backslash takes `"`, `` ` ``, `$` and `\`
// literally. Field codes (%f, %U, ...) are dropped and "%%" becomes "%". Absent when a quote is
// left open.
std::optional<std::vector<std::string>> execWords(std::string_view exec);

// The version of the first `<release>` inside `<releases>` of an AppStream document; comments
// and other elements' attributes do not count. Absent when no release carries one.
std::optional<std::string> firstReleaseVersion(std::string_view xml);

}  // namespace desktop

// Reads the entries once, on the first lookup, and keeps that index for the catalog's life:
// applications are rarely installed while the agent runs, and a stale answer only mislabels a
// tooltip. Thread-safe.
class DesktopApplicationCatalog final : public ApplicationCatalog {
 public:
  // `dataDirectories` in precedence order: an entry id found in an earlier one hides the same id
  // in later ones. `searchPath` resolves an `Exec=` program given without a directory.
  DesktopApplicationCatalog(std::vector<std::filesystem::path> dataDirectories,
                            std::vector<std::filesystem::path> searchPath);
  DesktopApplicationCatalog(const DesktopApplicationCatalog&) = delete;
  DesktopApplicationCatalog& operator=(const DesktopApplicationCatalog&) = delete;

  // $XDG_DATA_HOME (default ~/.local/share), then $XDG_DATA_DIRS (default
  // /usr/local/share:/usr/share); relative entries are ignored, as XDG requires.
  static std::vector<std::filesystem::path> dataDirectories(const Environment& env);
  // $PATH without its empty (current directory) entries; a conventional one when unset.
  static std::vector<std::filesystem::path> searchPath(const Environment& env);

  std::optional<ApplicationInfo> applicationFor(
      const std::filesystem::path& executable) const override;

 private:
  struct Claim {
    std::string identifier;
    std::string name;
    // Entries kept out of menus lose to a visible entry for the same program: settings panels
    // and helpers often launch the main application's binary.
    bool noDisplay = false;
  };

  void buildIndex() const;
  void indexEntry(const std::filesystem::path& file, std::string identifier) const;
  std::optional<std::filesystem::path> resolveProgram(const std::string& program) const;
  std::optional<std::string> releaseVersion(const std::string& identifier) const;

  std::vector<std::filesystem::path> dataDirectories_;
  std::vector<std::filesystem::path> searchPath_;

  mutable std::once_flag built_;
  // Written only inside built_'s call, read only after it.
  mutable std::unordered_map<std::string, Claim> byExecutable_;
  mutable std::unordered_set<std::string> seenIdentifiers_;
};

}  // namespace quorel
