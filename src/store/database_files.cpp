#include "store/database_files.hpp"

namespace quorel {

namespace {

std::string shellQuoted(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

}  // namespace

std::array<std::filesystem::path, 3> databaseFileSet(const std::filesystem::path& databaseFile) {
  const std::string main = databaseFile.string();
  return {databaseFile, main + "-wal", main + "-shm"};
}

std::string databaseRemovalCommand(const std::filesystem::path& databaseFile) {
  std::string command = "rm -f --";
  for (const auto& file : databaseFileSet(databaseFile)) command += " " + shellQuoted(file);
  return command;
}

}  // namespace quorel
