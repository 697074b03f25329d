#include "core/power_snapshot.hpp"

#include "core/enum_text.hpp"

namespace quorel {

namespace {
constexpr EnumTextTable<ConnectionType, 7> kConnectionNames{{{
    {ConnectionType::magsafe3, "magsafe3"},
    {ConnectionType::thunderbolt5, "thunderbolt5"},
    {ConnectionType::thunderbolt4, "thunderbolt4"},
    {ConnectionType::thunderbolt3, "thunderbolt3"},
    {ConnectionType::usbCPD, "usbCPD"},
    {ConnectionType::usbC, "usbC"},
    {ConnectionType::unknown, "unknown"},
}}};

constexpr EnumTextTable<CableType, 4> kCableNames{{{
    {CableType::active, "active"},
    {CableType::passive, "passive"},
    {CableType::optical, "optical"},
    {CableType::magsafe, "magsafe"},
}}};
}  // namespace

std::string_view toString(ConnectionType t) {
  return kConnectionNames.text(t, "unknown");
}

std::optional<ConnectionType> connectionTypeFromString(std::string_view s) {
  return kConnectionNames.parse(s);
}

std::string_view toString(CableType t) {
  return kCableNames.text(t, "active");
}

std::optional<SoCResidencyMatrix> SoCResidencyMatrix::fromData(std::span<const std::uint8_t> data) {
  constexpr std::size_t kCells = 28;
  if (data.size() != kCells * 4) return std::nullopt;
  SoCResidencyMatrix m;
  m.hours.reserve(kCells);
  for (std::size_t i = 0; i < kCells; ++i) {
    const std::uint32_t v = static_cast<std::uint32_t>(data[i * 4]) |
                            (static_cast<std::uint32_t>(data[i * 4 + 1]) << 8) |
                            (static_cast<std::uint32_t>(data[i * 4 + 2]) << 16) |
                            (static_cast<std::uint32_t>(data[i * 4 + 3]) << 24);
    m.hours.push_back(static_cast<std::int64_t>(v));
  }
  return m;
}

std::vector<std::int64_t> SoCResidencyMatrix::bandHours() const {
  std::vector<std::int64_t> bands;
  for (std::size_t start = 0; start + 7 <= hours.size(); start += 7) {
    std::int64_t sum = 0;
    for (std::size_t i = start; i < start + 7; ++i) sum += hours[i];
    bands.push_back(sum);
  }
  return bands;
}

}  // namespace quorel
