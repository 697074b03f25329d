#pragma once
// A scratch state directory for the helper's tests.

#include <filesystem>
#include <random>
#include <string>

namespace quorel::testing {

class ScratchDirectory {
 public:
  ScratchDirectory() {
    std::random_device random;
    path_ = std::filesystem::temp_directory_path() /
            ("quorel-helper-" + std::to_string(random()) + std::to_string(random()));
    std::filesystem::create_directories(path_);
  }
  ~ScratchDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace quorel::testing
