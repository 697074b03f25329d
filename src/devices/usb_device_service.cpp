#include "devices/usb_device_service.hpp"

#include <fmt/format.h>
#include <spdlog/logger.h>

#include <algorithm>
#include <cctype>
#include <string_view>
#include <utility>

#include "core/logging.hpp"

namespace quorel {

namespace {

constexpr std::int64_t kAppleVendorID = 0x05AC;
constexpr std::int64_t kHubClass = 9;

// The machine's own keyboard and trackpad controllers sit on an internal USB bus.
bool isAppleBuiltInProduct(std::int64_t productID) {
  return productID >= 32775 && productID <= 32777;
}

// Names differ from one another long before they run out, so folding ASCII case is enough to
// order them as a person would; bytes beyond ASCII keep their order.
int compareIgnoringCase(std::string_view a, std::string_view b) {
  const std::size_t n = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < n; ++i) {
    const int x = std::tolower(static_cast<unsigned char>(a[i]));
    const int y = std::tolower(static_cast<unsigned char>(b[i]));
    if (x != y) return x < y ? -1 : 1;
  }
  if (a.size() == b.size()) return 0;
  return a.size() < b.size() ? -1 : 1;
}

std::vector<USBDevice> listed(USBDeviceScan scan) {
  if (auto* declared = std::get_if<std::vector<USBDevice>>(&scan)) return std::move(*declared);
  std::vector<USBDevice> devices;
  for (const auto& entry : std::get<std::vector<USBDeviceProperties>>(scan)) {
    if (auto device = buildUSBDevice(entry)) devices.push_back(std::move(*device));
  }
  sortUSBDevices(devices);
  return devices;
}

}  // namespace

std::string formatBCDVersion(std::int64_t bcd) {
  return fmt::format("{:d}.{:02X}", (bcd >> 8) & 0xFF, bcd & 0xFF);
}

std::optional<USBDevice> buildUSBDevice(const USBDeviceProperties& p) {
  if (p.builtIn) return std::nullopt;
  const std::int64_t vendor = p.vendorID.value_or(0);
  const std::int64_t product = p.productID.value_or(0);
  const std::int64_t classCode = p.deviceClass.value_or(0);
  const auto& name = p.productName;
  if (classCode == kHubClass && name && name->find("Root Hub") != std::string::npos) {
    return std::nullopt;
  }
  if (vendor == 0 && product == 0) return std::nullopt;
  if (vendor == kAppleVendorID && (isAppleBuiltInProduct(product) || !name)) return std::nullopt;

  USBDevice d;
  d.id = p.locationID ? fmt::format("0x{:08X}", *p.locationID)
                      : fmt::format("{:04X}:{:04X}", vendor, product);
  d.name = name ? *name : fmt::format("USB Device {:04X}:{:04X}", vendor, product);
  d.vendorName = p.vendorName;
  d.vendorID = vendor;
  d.productID = product;
  d.speed = p.speed;
  d.busPowerAvailable_mA = p.busPowerAvailable_mA;
  if (p.busPowerUsed_mA) d.busPowerUsed_mA = *p.busPowerUsed_mA + p.extraPowerUsed_mA.value_or(0);
  d.serialNumber = p.serialNumber;
  d.deviceClass = p.deviceClass;
  d.deviceSubClass = p.deviceSubClass;
  if (p.bcdUSB) d.usbSpecVersion = formatBCDVersion(*p.bcdUSB);
  if (p.bcdDevice) d.deviceRevision = formatBCDVersion(*p.bcdDevice);
  d.locationID = p.locationID;
  d.busAddress = p.busAddress;
  d.deviceType = deviceTypeFromClass(classCode);
  if (d.deviceType == DeviceType::unknown) d.deviceType = deviceTypeFromName(d.name);
  d.linkSpeed_bps = p.linkSpeed_bps;
  return d;
}

void sortUSBDevices(std::vector<USBDevice>& devices) {
  std::stable_sort(devices.begin(), devices.end(), [](const USBDevice& a, const USBDevice& b) {
    const bool aHub = a.deviceType == DeviceType::hub;
    const bool bHub = b.deviceType == DeviceType::hub;
    if (aHub != bHub) return bHub;
    return compareIgnoringCase(a.name, b.name) < 0;
  });
}

USBDeviceService::USBDeviceService(USBDeviceSource& source, const Clock& clock)
    : source_(source), clock_(clock), log_(logging::get("USBDevices")) {}

std::vector<USBDevice> USBDeviceService::fetch() {
  if (cacheTime_ && clock_.monotonicNow() - *cacheTime_ < kCacheLifetime) return cached_;
  auto scanned = source_.scan();
  std::optional<std::string> failure;
  std::vector<USBDevice> devices;
  if (scanned.ok()) {
    devices = listed(std::move(scanned).value());
  } else {
    failure = scanned.error().message;
  }
  if (failure != lastFailure_) {
    if (failure) {
      log_->warn("USB devices not listed: {}", *failure);
    } else {
      log_->info("USB devices listed again");
    }
    lastFailure_ = failure;
  }
  cached_ = devices;
  cacheTime_ = clock_.monotonicNow();
  return devices;
}

}  // namespace quorel
