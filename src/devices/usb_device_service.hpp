#pragma once
// The list of what is plugged in by USB, with its power figures, read at most every two
// seconds however often it is asked for.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/clock.hpp"
#include "devices/usb_device.hpp"
#include "devices/usb_device_source.hpp"

namespace spdlog {
class logger;
}

namespace quorel {

// The record the list shows for one bus entry; nothing for what belongs to the machine itself
// (root hubs, built-in controllers) and for entries without any identity.
std::optional<USBDevice> buildUSBDevice(const USBDeviceProperties& properties);

// "3.20" for 0x0320: the major number in decimal, the minor byte as two hexadecimal digits.
std::string formatBCDVersion(std::int64_t bcd);

// Hubs after everything else; each group by name, ignoring case.
void sortUSBDevices(std::vector<USBDevice>& devices);

class USBDeviceService {
 public:
  static constexpr Seconds kCacheLifetime{2.0};

  // `source` and `clock` must outlive the service.
  USBDeviceService(USBDeviceSource& source, const Clock& clock);
  USBDeviceService(const USBDeviceService&) = delete;
  USBDeviceService& operator=(const USBDeviceService&) = delete;

  // The devices plugged in now. Within two seconds of the last read the same list comes back
  // without a read; a failed read gives an empty list, which is kept as long. One caller at a
  // time: the list has one reader, the loop that refreshes what the view model shows.
  std::vector<USBDevice> fetch();

 private:
  USBDeviceSource& source_;
  const Clock& clock_;
  std::shared_ptr<spdlog::logger> log_;

  std::vector<USBDevice> cached_;
  std::optional<MonotonicTime> cacheTime_;
  // The reason of the last failed read, so that a failure is logged once, not every read.
  std::optional<std::string> lastFailure_;
};

}  // namespace quorel
