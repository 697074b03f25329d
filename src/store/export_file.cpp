#include "store/export_file.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/uuid.hpp"

namespace quorel {

namespace fs = std::filesystem;

ExportFile::ExportFile(fs::path target, std::string operation)
    : target_(std::move(target)), operation_(std::move(operation)) {
  const fs::path directory = target_.has_parent_path() ? target_.parent_path() : fs::path(".");
  temporary_ = directory / (".quorel-" + makeUuid() + ".tmp");
}

ExportFile::~ExportFile() {
  if (!committed_) discard();
}

std::optional<ExportFailure> ExportFile::create() {
  // Exclusive, so that a name some other program holds is never written through.
  fd_ = ::open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd_ < 0) return failure("create temp", errno);
  created_ = true;
  return std::nullopt;
}

std::optional<ExportFailure> ExportFile::write(std::string_view bytes) {
  if (const int error = writeAll(fd_, bytes)) return failure("write", error);
  return std::nullopt;
}

std::optional<ExportFailure> ExportFile::commit() {
  // No fsync: an export can be made again, and the rename already keeps a half-written file from
  // ever standing under the target's name. A failed close can still report a lost write, though.
  const int fd = fd_;
  fd_ = -1;
  if (::close(fd) != 0) return failure("write", errno);
  // rename replaces an existing file in one step, so the old one stays whole until the new one
  // is complete.
  if (std::rename(temporary_.c_str(), target_.c_str()) != 0) return failure("move", errno);
  committed_ = true;
  return std::nullopt;
}

ExportFailure ExportFile::failure(std::string_view step, int error) const {
  return {ExportFailure::Stage::target, operation_ + " " + std::string(step), std::strerror(error)};
}

void ExportFile::discard() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  if (created_) ::unlink(temporary_.c_str());
}

int writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return 0;
}

}  // namespace quorel
