#pragma once
// A Bluetooth input accessory, with its charge when it reports one.

#include <cstdint>
#include <optional>
#include <string>

#include "core/enum_text.hpp"

namespace quorel {

struct WirelessDevice {
  // Raw values equal the case names.
  enum class Category { mouse, keyboard, trackpad, gameController, other };

  std::string id;
  std::string name;
  std::optional<std::string> vendorName;
  std::int64_t vendorID = 0;
  std::int64_t productID = 0;
  Category category = Category::other;
  std::optional<std::int64_t> batteryLevel;  // percent

  bool operator==(const WirelessDevice&) const = default;
};

inline constexpr EnumTextTable<WirelessDevice::Category, 5> kWirelessDeviceCategoryTexts{{{
    {WirelessDevice::Category::mouse, "mouse"},
    {WirelessDevice::Category::keyboard, "keyboard"},
    {WirelessDevice::Category::trackpad, "trackpad"},
    {WirelessDevice::Category::gameController, "gameController"},
    {WirelessDevice::Category::other, "other"},
}}};

}  // namespace quorel
