#pragma once
// The installed applications, as far as the desktop knows them: which one a program file
// belongs to. Used to tell a person what stands behind a process name.

#include <filesystem>
#include <optional>
#include <string>

namespace quorel {

struct ApplicationInfo {
  // The desktop's identifier of the application, e.g. "org.example.Editor".
  std::string identifier;
  // Its name as menus show it; empty when the entry gives none.
  std::string name;
  // The application's own release, not the version of any file format describing it; absent
  // when nothing installed says.
  std::optional<std::string> version;

  bool operator==(const ApplicationInfo&) const = default;
};

// Implementations may be called from any thread, concurrently, and never throw.
class ApplicationCatalog {
 public:
  virtual ~ApplicationCatalog() = default;
  // The application whose program is `executable`; links in either path are resolved before
  // comparing. Absent for a program no installed application claims.
  virtual std::optional<ApplicationInfo> applicationFor(
      const std::filesystem::path& executable) const = 0;
};

}  // namespace quorel
