#pragma once
// Reading the kernel's sysfs without surprises: every read returns an optional, nothing throws,
// and a malformed figure is absent rather than zero. Sysfs class entries are usually symlinks to
// device directories; every path here is opened through them.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quorel::sysfs {

// Where the readers look under a sysfs root ("/sys" normally, a captured tree in tests).
std::filesystem::path powerSupplyClassPath(const std::filesystem::path& sysfsRoot);
std::filesystem::path thermalClassPath(const std::filesystem::path& sysfsRoot);
std::filesystem::path powercapClassPath(const std::filesystem::path& sysfsRoot);

// The whole content of a small kernel file (attributes are at most a page). Absent when it
// cannot be opened or read, e.g. missing, forbidden or a directory; `error` then holds errno.
std::optional<std::string> readFile(const std::filesystem::path& path, int* error = nullptr);

// The names in a directory, sorted, without "." and "..". Absent when it cannot be listed.
std::optional<std::vector<std::string>> listDirectory(const std::filesystem::path& dir,
                                                      int* error = nullptr);

// `text` without surrounding spaces, tabs and line ends.
std::string_view trim(std::string_view text);

// A whole decimal integer, surrounding whitespace allowed. Anything else (text, a trailing
// unit, an empty value, overflow) is absent.
std::optional<std::int64_t> parseInteger(std::string_view text);

// The "KEY=VALUE" lines of a uevent file. Only keys with the given prefix are kept, stored
// lower-case without it, so that they match the attribute file names ("POWER_SUPPLY_VOLTAGE_NOW"
// becomes "voltage_now"). Lines without '=' are skipped.
class UeventProperties {
 public:
  static UeventProperties parse(std::string_view text, std::string_view prefix);

  std::optional<std::string_view> find(std::string_view name) const;
  std::size_t size() const { return entries_.size(); }

 private:
  std::vector<std::pair<std::string, std::string>> entries_;
};

// One device directory. Its uevent file is read once, at construction: where the kernel
// provides it, one read carries every property the driver reports, which is far cheaper than
// one open and read per attribute.
class SysfsDevice {
 public:
  SysfsDevice(std::filesystem::path dir, std::string_view ueventPrefix);

  const std::filesystem::path& dir() const { return dir_; }
  bool hasUevent() const { return uevent_.has_value(); }

  // A property the driver reports. Taken from uevent when there is one, since uevent lists
  // exactly the properties the attribute files would show; from the attribute file otherwise.
  std::optional<std::string> property(std::string_view name) const;
  std::optional<std::int64_t> integerProperty(std::string_view name) const;

  // An attribute that may live outside uevent (added by another driver, or absent from the
  // uevent of older kernels): uevent first, then the attribute file.
  std::optional<std::string> attribute(std::string_view name) const;
  std::optional<std::int64_t> integerAttribute(std::string_view name) const;

 private:
  std::optional<std::string> readAttributeFile(std::string_view name) const;

  std::filesystem::path dir_;
  std::optional<UeventProperties> uevent_;
};

}  // namespace quorel::sysfs
