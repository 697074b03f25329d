#include "platform/linux/linux_usb_device_source.hpp"

#include <charconv>
#include <cmath>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "core/enum_text.hpp"
#include "platform/linux/sysfs_attributes.hpp"

namespace quorel {

namespace {

constexpr std::int64_t kRootHubVendorID = 0x1D6B;
constexpr std::int64_t kHubClass = 9;
constexpr std::int64_t kSelfPoweredBit = 0x40;  // in a configuration's bmAttributes

// The link's rate in Mb/s, as the kernel's `speed` attribute writes it.
constexpr EnumTextTable<USBSpeed, 6> kLinkRates{{{
    {USBSpeed::low, "1.5"},
    {USBSpeed::full, "12"},
    {USBSpeed::high, "480"},
    {USBSpeed::superSpeed, "5000"},
    {USBSpeed::superSpeedPlus, "10000"},
    {USBSpeed::superSpeedPlusGen2x2, "20000"},
}}};

// What a port may give a device by USB's own rules, which the kernel's hub driver applies and
// does not publish: a full load from a self-powered hub or the root, one unit load from a hub
// that lives on its parent's power. SuperSpeed hubs have the larger units.
constexpr std::int64_t kFullLoad_mA = 500;
constexpr std::int64_t kSuperSpeedFullLoad_mA = 900;
constexpr std::int64_t kUnitLoad_mA = 100;
constexpr std::int64_t kSuperSpeedUnitLoad_mA = 150;
constexpr std::int64_t kSuperSpeed_bps = 5'000'000'000;

std::optional<std::string> text(const std::filesystem::path& dir, const char* attribute) {
  auto content = sysfs::readFile(dir / attribute);
  if (!content) return std::nullopt;
  auto trimmed = sysfs::trim(*content);
  if (trimmed.empty()) return std::nullopt;
  return std::string(trimmed);
}

std::optional<std::int64_t> hexadecimal(std::string_view digits, std::int64_t max) {
  digits = sysfs::trim(digits);
  if (digits.empty()) return std::nullopt;
  std::int64_t value = 0;
  const char* end = digits.data() + digits.size();
  auto [ptr, ec] = std::from_chars(digits.data(), end, value, 16);
  if (ec != std::errc{} || ptr != end || value < 0 || value > max) return std::nullopt;
  return value;
}

std::optional<std::int64_t> hexAttribute(const std::filesystem::path& dir, const char* attribute,
                                         std::int64_t max) {
  auto content = text(dir, attribute);
  if (!content) return std::nullopt;
  return hexadecimal(*content, max);
}

std::optional<std::int64_t> decimalAttribute(const std::filesystem::path& dir,
                                             const char* attribute) {
  auto content = text(dir, attribute);
  if (!content) return std::nullopt;
  return sysfs::parseInteger(*content);
}

// `version` shows bcdUSB as "%2x.%02x" (" 3.20"); the descriptor's value is rebuilt from it.
std::optional<std::int64_t> bcdUSB(const std::filesystem::path& dir) {
  auto content = text(dir, "version");
  if (!content) return std::nullopt;
  const std::string_view version(*content);
  const auto dot = version.find('.');
  if (dot == std::string_view::npos) return std::nullopt;
  auto major = hexadecimal(version.substr(0, dot), 0xFF);
  auto minor = hexadecimal(version.substr(dot + 1), 0xFF);
  if (!major || !minor) return std::nullopt;
  return *major << 8 | *minor;
}

// `bMaxPower` is already in milliamperes, with the unit written after it ("500mA").
std::optional<std::int64_t> maxPower_mA(const std::filesystem::path& dir) {
  auto content = text(dir, "bMaxPower");
  if (!content) return std::nullopt;
  std::string_view figure(*content);
  if (figure.size() > 2 && figure.substr(figure.size() - 2) == "mA") figure.remove_suffix(2);
  auto value = sysfs::parseInteger(figure);
  if (!value || *value < 0) return std::nullopt;
  return value;
}

std::optional<std::int64_t> linkRate_bps(std::string_view rate) {
  double megabits = 0;
  const char* end = rate.data() + rate.size();
  auto [ptr, ec] = std::from_chars(rate.data(), end, megabits);
  if (ec != std::errc{} || ptr != end || !(megabits > 0) || megabits > 1e6) return std::nullopt;
  return std::llround(megabits * 1e6);
}

// Bus number in the top byte, then one hexadecimal digit per port from the root down, as far
// as six levels of ports of up to fifteen each allow; deeper or wider, there is none.
std::optional<std::int64_t> locationID(std::optional<std::int64_t> bus,
                                       const std::optional<std::string>& devpath) {
  if (!bus || *bus < 1 || *bus > 0xFF || !devpath) return std::nullopt;
  std::int64_t location = *bus << 24;
  if (*devpath == "0") return location;  // the root hub
  std::string_view rest(*devpath);
  int shift = 20;
  while (!rest.empty()) {
    const auto dot = rest.find('.');
    auto port = sysfs::parseInteger(rest.substr(0, dot));
    if (!port || *port < 1 || *port > 0xF || shift < 0) return std::nullopt;
    location |= *port << shift;
    shift -= 4;
    rest = dot == std::string_view::npos ? std::string_view{} : rest.substr(dot + 1);
  }
  return location;
}

bool isRootHubName(std::string_view name) {
  if (name.size() <= 3 || name.substr(0, 3) != "usb") return false;
  return sysfs::parseInteger(name.substr(3)).has_value();
}

// "1-1.4" hangs off "1-1", "1-1" off the root hub "usb1".
std::string parentName(std::string_view name) {
  if (const auto dot = name.rfind('.'); dot != std::string_view::npos) {
    return std::string(name.substr(0, dot));
  }
  return "usb" + std::string(name.substr(0, name.find('-')));
}

struct Entry {
  USBDeviceProperties properties;
  std::optional<std::int64_t> configurationAttributes;
  bool rootHub = false;
};

Entry readEntry(const std::filesystem::path& dir, std::string_view name) {
  Entry entry;
  USBDeviceProperties& p = entry.properties;
  p.vendorID = hexAttribute(dir, "idVendor", 0xFFFF);
  p.productID = hexAttribute(dir, "idProduct", 0xFFFF);
  p.deviceClass = hexAttribute(dir, "bDeviceClass", 0xFF);
  p.deviceSubClass = hexAttribute(dir, "bDeviceSubClass", 0xFF);
  p.productName = text(dir, "product");
  p.vendorName = text(dir, "manufacturer");
  p.serialNumber = text(dir, "serial");
  p.bcdUSB = bcdUSB(dir);
  p.bcdDevice = hexAttribute(dir, "bcdDevice", 0xFFFF);
  if (auto rate = text(dir, "speed")) {
    p.speed = kLinkRates.parse(*rate).value_or(USBSpeed::unknown);
    p.linkSpeed_bps = linkRate_bps(*rate);
  }
  p.locationID = locationID(decimalAttribute(dir, "busnum"), text(dir, "devpath"));
  p.busAddress = decimalAttribute(dir, "devnum");
  p.busPowerUsed_mA = maxPower_mA(dir);
  entry.configurationAttributes = hexAttribute(dir, "bmAttributes", 0xFF);
  // The kernel's root hubs carry its own vendor id and the hub class, whatever their name says.
  entry.rootHub =
      isRootHubName(name) || (p.vendorID == kRootHubVendorID && p.deviceClass == kHubClass);
  p.builtIn = entry.rootHub || text(dir, "removable") == "fixed";
  return entry;
}

std::optional<std::int64_t> portBudget_mA(const Entry& hub) {
  const auto rate = hub.properties.linkSpeed_bps;
  if (!rate) return std::nullopt;
  const bool superSpeed = *rate >= kSuperSpeed_bps;
  bool selfPowered = hub.rootHub;
  if (!selfPowered) {
    if (!hub.configurationAttributes) return std::nullopt;
    selfPowered = (*hub.configurationAttributes & kSelfPoweredBit) != 0;
  }
  if (selfPowered) return superSpeed ? kSuperSpeedFullLoad_mA : kFullLoad_mA;
  return superSpeed ? kSuperSpeedUnitLoad_mA : kUnitLoad_mA;
}

}  // namespace

LinuxUSBDeviceSource::LinuxUSBDeviceSource(const std::filesystem::path& sysfsRoot)
    : devicesDir_(sysfsRoot / "bus" / "usb" / "devices") {}

Result<USBDeviceScan> LinuxUSBDeviceSource::scan() {
  int error = 0;
  auto names = sysfs::listDirectory(devicesDir_, &error);
  if (!names) return Error{devicesDir_.string() + ": " + std::strerror(error)};

  std::map<std::string, Entry, std::less<>> entries;
  for (const auto& name : *names) {
    // "1-1:1.0" is an interface of the device "1-1", not a device.
    if (name.find(':') != std::string::npos) continue;
    entries.emplace(name, readEntry(devicesDir_ / name, name));
  }

  for (auto& [name, entry] : entries) {
    if (isRootHubName(name)) continue;
    if (auto parent = entries.find(parentName(name)); parent != entries.end()) {
      entry.properties.busPowerAvailable_mA = portBudget_mA(parent->second);
    }
  }
  std::vector<USBDeviceProperties> found;
  found.reserve(entries.size());
  for (auto& [name, entry] : entries) found.push_back(std::move(entry.properties));
  return USBDeviceScan{std::move(found)};
}

}  // namespace quorel
