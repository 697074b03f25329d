#include "devices/usb_pd_vendor_lookup.hpp"

#include <array>
#include <utility>

namespace quorel {

namespace {

constexpr std::array<std::pair<std::int64_t, std::string_view>, 45> kVendors{{
    {0x05AC, "Apple"},
    {0x291A, "Anker"},
    {0x2A2F, "Anker"},
    {0x1FC9, "NXP"},
    {0x2109, "VIA Labs"},
    {0x0BDA, "Realtek"},
    {0x8087, "Intel"},
    {0x04B4, "Cypress"},
    {0x1532, "Razer"},
    {0x17EF, "Lenovo"},
    {0x03F0, "HP"},
    {0x413C, "Dell"},
    {0x04E8, "Samsung"},
    {0x045E, "Microsoft"},
    {0x2717, "Xiaomi"},
    {0x22D9, "OPPO"},
    {0x18D1, "Google"},
    {0x1D6B, "Linux Foundation"},
    {0x046D, "Logitech"},
    {0x0955, "NVIDIA"},
    {0x056A, "Wacom"},
    {0x1B1C, "Corsair"},
    {0x258A, "HAMA"},
    {0x2188, "CalDigit"},
    {0x0835, "OWC"},
    {0x1A40, "Terminus"},
    {0x2B27, "Belkin"},
    {0x05E3, "Genesys Logic"},
    {0x2996, "Ugreen"},
    {0x32AC, "Satechi"},
    {0x3434, "Hyper"},
    {0x1E71, "NZXT"},
    {0x0B95, "ASIX"},
    {0x0781, "SanDisk"},
    {0x3285, "Baseus"},
    {0x3553, "Twelve South"},
    {0x0451, "Texas Instruments"},
    {0x27C6, "Goodix"},
    {0x1D50, "OpenMoko"},
    {0x2E95, "JSAUX"},
    {0x0BDB, "Ericsson"},
    {0x0421, "Nokia"},
    {0x04F2, "Chicony"},
    {0x1395, "Sennheiser"},
    {0x0D8C, "C-Media"},
}};

}  // namespace

std::optional<std::string_view> USBPDVendorLookup::vendorName(std::int64_t vendorID) {
  for (const auto& [id, name] : kVendors) {
    if (id == vendorID) return name;
  }
  return std::nullopt;
}

std::string_view sourceLabel(const AdapterInfo& adapter) {
  if (adapter.isAppleSource) return "Apple";
  if (adapter.chargerVendorID && *adapter.chargerVendorID != 0) {
    if (auto name = USBPDVendorLookup::vendorName(*adapter.chargerVendorID)) return *name;
  }
  return "Third-Party";
}

}  // namespace quorel
