#pragma once
// A file that appears whole or not at all: written beside its target under a hidden temporary
// name (".quorel-<uuid>.tmp", so that the rename stays on one file system) and moved over the
// target only by commit(). Until then the target is as it was; an object destroyed without a
// commit closes and removes its temporary file.
//
// Not thread-safe; one owner.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "store/history_export.hpp"

namespace quorel {

class ExportFile {
 public:
  // `operation` prefixes the failure contexts ("exportCSV create temp", "exportCSV write").
  ExportFile(std::filesystem::path target, std::string operation);
  ~ExportFile();
  ExportFile(const ExportFile&) = delete;
  ExportFile& operator=(const ExportFile&) = delete;

  // Creates the empty temporary file.
  std::optional<ExportFailure> create();
  // REQUIRES: create() succeeded. The open descriptor, for writers that stream.
  int descriptor() const { return fd_; }
  std::optional<ExportFailure> write(std::string_view bytes);
  // Closes the temporary file and renames it over the target.
  std::optional<ExportFailure> commit();

  const std::filesystem::path& target() const { return target_; }

 private:
  ExportFailure failure(std::string_view step, int error) const;
  void discard();

  std::filesystem::path target_;
  std::filesystem::path temporary_;
  std::string operation_;
  int fd_ = -1;
  bool created_ = false;
  bool committed_ = false;
};

// Writes all of `bytes` to `fd`, through short writes and interruptions; errno on failure, else 0.
int writeAll(int fd, std::string_view bytes);

}  // namespace quorel
