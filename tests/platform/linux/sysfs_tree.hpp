#pragma once
// A scratch sysfs tree in a temporary directory, for tests that change files between reads.

#include <cctype>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "core/logging.hpp"
#include "support/log_capture.hpp"

namespace quorel::testing {

inline std::filesystem::path fixturePath(const std::string& name) {
  return std::filesystem::path(QUOREL_LINUX_FIXTURES) / name;
}

class SysfsTree {
 public:
  SysfsTree() {
    std::random_device random;
    root_ = std::filesystem::temp_directory_path() /
            ("quorel-sysfs-" + std::to_string(random()) + std::to_string(random()));
    std::filesystem::create_directories(root_);
  }
  // Starts as a copy of a fixture, symlinks kept as symlinks.
  explicit SysfsTree(const std::string& fixture) : SysfsTree() {
    std::filesystem::copy(
        fixturePath(fixture), root_,
        std::filesystem::copy_options::recursive | std::filesystem::copy_options::copy_symlinks);
  }
  ~SysfsTree() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }
  SysfsTree(const SysfsTree&) = delete;
  SysfsTree& operator=(const SysfsTree&) = delete;

  const std::filesystem::path& root() const { return root_; }
  std::filesystem::path powerSupply() const { return root_ / "class" / "power_supply"; }
  std::filesystem::path thermal() const { return root_ / "class" / "thermal"; }

  void write(const std::filesystem::path& relative, const std::string& content) const {
    auto path = root_ / relative;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::trunc) << content;
  }

  // Writes a supply as the kernel shows it: a uevent with every property and one attribute
  // file per property. `properties` are "KEY=value" with the kernel's upper-case keys.
  void writeSupply(const std::string& name, const std::vector<std::string>& properties) const {
    write(std::filesystem::path("class/power_supply") / name / "uevent",
          "POWER_SUPPLY_NAME=" + name + "\n");
    for (const auto& p : properties)
      setProperty(name, p.substr(0, p.find('=')), p.substr(p.find('=') + 1));
  }

  // Changes one property of a supply in both places the kernel shows it: its uevent line and
  // its attribute file. `key` is the kernel's upper-case name, e.g. "STATUS".
  void setProperty(const std::string& supply, const std::string& key,
                   const std::string& value) const {
    auto dir = std::filesystem::path("class/power_supply") / supply;
    std::ifstream in(root_ / dir / "uevent");
    std::string line;
    std::string uevent;
    const std::string prefix = "POWER_SUPPLY_" + key + "=";
    while (std::getline(in, line)) {
      if (line.rfind(prefix, 0) != 0) uevent += line + "\n";
    }
    write(dir / "uevent", uevent + prefix + value + "\n");
    std::string file = key;
    for (auto& c : file) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    write(dir / file, value + "\n");
  }

  // Even root cannot read a file that has become a directory, so this stands in for a file
  // the agent may not read, whoever runs the tests.
  void makeUnreadable(const std::filesystem::path& relative) const {
    auto path = root_ / relative;
    std::filesystem::remove_all(path);
    std::filesystem::create_directories(path);
  }

  void makeSupplyUnreadable(const std::string& supply) const {
    for (const auto& entry : std::filesystem::directory_iterator(powerSupply() / supply)) {
      std::filesystem::permissions(entry.path(), std::filesystem::perms::none);
    }
  }

  void remove(const std::filesystem::path& relative) const {
    std::filesystem::remove_all(root_ / relative);
  }

 private:
  std::filesystem::path root_;
};

}  // namespace quorel::testing
