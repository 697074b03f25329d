#include "store/corruption_report.hpp"

#include <string>

#include "core/logging.hpp"
#include "store/database_files.hpp"

namespace quorel {

void reportCorruptionHeadless(const std::optional<std::filesystem::path>& databaseFolder,
                              std::ostream& err) {
  const std::string folder = databaseFolder
                                 ? databaseFolder->string()
                                 : "(none could be located — set XDG_DATA_HOME or pass --data-dir)";
  const std::string command =
      databaseFolder ? databaseRemovalCommand(*databaseFolder / kDatabaseFileName) : "";
  logging::get("AppDelegate")
      ->error("{} — {} Database folder: {}{}{}", kDatabaseCorruptionTitle, kDatabaseCorruptionText,
              folder, command.empty() ? "" : " — ", command);
  err << kDatabaseCorruptionTitle << "\n"
      << kDatabaseCorruptionText << "\n"
      << "Database folder: " << folder << "\n";
  if (!command.empty()) err << command << "\n";
  err.flush();
}

}  // namespace quorel
