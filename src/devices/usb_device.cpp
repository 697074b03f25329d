#include "devices/usb_device.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <string>

#include "core/enum_text.hpp"

namespace quorel {

namespace {
constexpr EnumTextTable<USBSpeed, 7> kSpeedLabels{{{
    {USBSpeed::full, "USB 1.1"},
    {USBSpeed::low, "USB 1.0"},
    {USBSpeed::high, "USB 2.0"},
    {USBSpeed::superSpeed, "USB 3.0"},
    {USBSpeed::superSpeedPlus, "USB 3.1"},
    {USBSpeed::superSpeedPlusGen2x2, "USB 3.2"},
    {USBSpeed::unknown, "USB"},
}}};

constexpr EnumTextTable<DeviceType, 11> kTypeNames{{{
    {DeviceType::hub, "hub"},
    {DeviceType::storage, "storage"},
    {DeviceType::audio, "audio"},
    {DeviceType::hid, "hid"},
    {DeviceType::camera, "camera"},
    {DeviceType::printer, "printer"},
    {DeviceType::network, "network"},
    {DeviceType::smartCard, "smartCard"},
    {DeviceType::wireless, "wireless"},
    {DeviceType::vendor, "vendor"},
    {DeviceType::unknown, "unknown"},
}}};

struct NameRule {
  std::array<std::string_view, 4> words;
  DeviceType type;
};
// Tested in order; the first rule with a matching word wins.
constexpr std::array<NameRule, 7> kNameRules{{
    {{"keyboard", "mouse", "trackpad", "trackball"}, DeviceType::hid},
    {{"camera", "webcam", "facetime", ""}, DeviceType::camera},
    {{"microphone", "audio", "headset", "speaker"}, DeviceType::audio},
    {{"storage", "disk", "drive", "ssd"}, DeviceType::storage},
    {{"hub", "", "", ""}, DeviceType::hub},
    {{"printer", "scanner", "", ""}, DeviceType::printer},
    {{"ethernet", "wifi", "wi-fi", ""}, DeviceType::network},
}};
}  // namespace

std::string_view shortLabel(USBSpeed speed) {
  return kSpeedLabels.text(speed, "USB");
}

USBSpeed usbSpeedFromRaw(std::optional<std::int64_t> raw) {
  if (!raw || *raw < 0 || *raw > static_cast<std::int64_t>(USBSpeed::unknown)) {
    return USBSpeed::unknown;
  }
  return static_cast<USBSpeed>(*raw);
}

std::string_view toString(DeviceType type) {
  return kTypeNames.text(type, "unknown");
}

std::optional<DeviceType> deviceTypeFromString(std::string_view raw) {
  return kTypeNames.parse(raw);
}

DeviceType deviceTypeFromClass(std::int64_t classCode) {
  switch (classCode) {
    case 1:
      return DeviceType::audio;
    case 2:
    case 10:
      return DeviceType::network;
    case 3:
      return DeviceType::hid;
    case 6:
    case 14:
      return DeviceType::camera;
    case 7:
      return DeviceType::printer;
    case 8:
      return DeviceType::storage;
    case 9:
      return DeviceType::hub;
    case 11:
      return DeviceType::smartCard;
    case 224:
      return DeviceType::wireless;
    case 255:
      return DeviceType::vendor;
    default:
      return DeviceType::unknown;
  }
}

DeviceType deviceTypeFromName(std::string_view name) {
  std::string lower(name);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  for (const auto& rule : kNameRules) {
    for (auto word : rule.words) {
      if (!word.empty() && lower.find(word) != std::string::npos) return rule.type;
    }
  }
  return DeviceType::unknown;
}

}  // namespace quorel
