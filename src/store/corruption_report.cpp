#include "store/corruption_report.hpp"

#include "core/logging.hpp"

namespace quorel {

void reportCorruptionHeadless(const std::optional<std::filesystem::path>& databaseFolder,
                              std::ostream& err) {
  const std::string folder = databaseFolder ? databaseFolder->string() : "(unknown)";
  logging::get("AppDelegate")
      ->error("{} — {} Database folder: {}", kDatabaseCorruptionTitle, kDatabaseCorruptionText,
              folder);
  err << kDatabaseCorruptionTitle << "\n"
      << kDatabaseCorruptionText << "\n"
      << "Database folder: " << folder << "\n";
  err.flush();
}

}  // namespace quorel
