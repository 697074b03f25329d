#include "core/battery_diagnostics.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/power_snapshot.hpp"

namespace quorel {
namespace {

std::vector<std::uint8_t> littleEndianBlock(const std::vector<std::uint32_t>& cells) {
  std::vector<std::uint8_t> bytes;
  for (auto v : cells) {
    for (int shift = 0; shift < 32; shift += 8)
      bytes.push_back(static_cast<std::uint8_t>(v >> shift));
  }
  return bytes;
}

TEST(SoCResidencyMatrixTest, Reads28LittleEndianCellsOnlyAndSumsSevenPerBand) {
  std::vector<std::uint32_t> cells(28);
  for (std::uint32_t i = 0; i < 28; ++i) cells[i] = i;  // band b holds 7b .. 7b+6
  cells[3] = 0x01020304;
  cells[27] = 0xFFFFFFFF;  // unsigned: never -1
  const auto m = SoCResidencyMatrix::fromData(littleEndianBlock(cells));
  ASSERT_TRUE(m);
  ASSERT_EQ(m->hours.size(), 28u);
  EXPECT_EQ(m->bandHours(),
            (std::vector<std::int64_t>{0x01020304 + 18, 70, 119,
                                       21 + 22 + 23 + 24 + 25 + 26 + 4294967295LL}));

  auto bytes = littleEndianBlock(cells);
  bytes.push_back(0);
  EXPECT_FALSE(SoCResidencyMatrix::fromData(bytes));
  EXPECT_FALSE(SoCResidencyMatrix::fromData({}));
}

TEST(ChargingReasonMapperTest, ReasonsInBitOrderWithoutDuplicates) {
  EXPECT_EQ(ChargingReasonMapper::notChargingReason(0), std::nullopt);
  EXPECT_EQ(ChargingReasonMapper::notChargingReason(0x1 | 0x8),
            "Battery at charge limit; Optimized Battery Charging");
  // Bit 55 repeats bit 0's text: it is kept once, at the first position.
  EXPECT_EQ(ChargingReasonMapper::notChargingReason(0x80000000000000 | 0x8 | 0x1),
            "Battery at charge limit; Optimized Battery Charging");
  EXPECT_EQ(ChargingReasonMapper::notChargingReason(0x80000000000000 | 0x8),
            "Optimized Battery Charging; Battery at charge limit");
  // Bits without a text of their own, the thermal bit among them.
  EXPECT_EQ(ChargingReasonMapper::notChargingReason(0x2), "Charging paused");
  EXPECT_EQ(ChargingReasonMapper::notChargingReason(0x2 | 0x8), "Optimized Battery Charging");

  EXPECT_EQ(ChargingReasonMapper::slowChargingReason(0), std::nullopt);
  EXPECT_EQ(ChargingReasonMapper::slowChargingReason(0x1 | 0x2 | 0x4 | 0x10),
            "Thermal constraint; Low-power adapter; Non-Apple adapter; "
            "Battery temperature out of range");
  EXPECT_EQ(ChargingReasonMapper::slowChargingReason(0x8), "Slow charging (code: 8)");
  EXPECT_EQ(ChargingReasonMapper::slowChargingReason(0x20 | 0x2), "Low-power adapter");
}

TEST(BatteryDiagnosticsTest, ChargingSectionAppearsForAnyChargerField) {
  EXPECT_EQ(BatteryDiagnostics::from(PowerSnapshot{}), BatteryDiagnostics{});
  PowerSnapshot s;
  s.timeChargingThermallyLimited = 120;
  auto d = BatteryDiagnostics::from(s);
  ASSERT_TRUE(d.charging);
  EXPECT_EQ(d.charging->thermallyLimitedSeconds, 120);
  EXPECT_EQ(d.charging->notChargingReason, std::nullopt);

  s = PowerSnapshot{};
  s.notChargingReason = 0;  // present but empty: the section exists, the text does not
  d = BatteryDiagnostics::from(s);
  ASSERT_TRUE(d.charging);
  EXPECT_EQ(d.charging->notChargingReason, std::nullopt);
}

TEST(BatteryDiagnosticsTest, CellsAndLifetimeAreConvertedToReaderUnits) {
  PowerSnapshot s;
  s.cellVoltages = std::vector<std::int64_t>{4933, 4120};
  s.cellQmax = std::vector<std::int64_t>{2700, 2690};
  s.totalOperatingTime = 1200;
  s.averageTemperature = 331;
  s.maxPackVoltage = 15200;
  auto d = BatteryDiagnostics::from(s);
  ASSERT_TRUE(d.cellHealth);
  EXPECT_EQ(d.cellHealth->voltages, (std::vector<double>{4.933, 4.12}));
  EXPECT_EQ(d.cellHealth->qmax, (std::vector<std::int64_t>{2700, 2690}));
  ASSERT_TRUE(d.lifetimeStats);
  EXPECT_EQ(d.lifetimeStats->totalOperatingHours, 1200);
  EXPECT_DOUBLE_EQ(d.lifetimeStats->avgTemperature, 33.1);
  EXPECT_DOUBLE_EQ(d.lifetimeStats->maxPackVoltage, 15.2);

  // An empty cell list is no cell section; lifetime figures need the operating time.
  s.cellVoltages = std::vector<std::int64_t>{};
  s.totalOperatingTime.reset();
  d = BatteryDiagnostics::from(s);
  EXPECT_EQ(d.cellHealth, std::nullopt);
  EXPECT_EQ(d.lifetimeStats, std::nullopt);
}

TEST(BatteryDiagnosticsTest, ProfilesNeedAnIndexAndMarkTheActiveOne) {
  PowerSnapshot s;
  s.usbPDProfiles = std::vector<std::map<std::string, std::int64_t>>{
      {{"Index", 1}, {"MaxVoltage", 5000}, {"MaxCurrent", 3000}},
      {{"MaxVoltage", 9000}, {"MaxCurrent", 3000}},  // no index: left out
      {{"Index", 3}, {"MaxVoltage", 20000}, {"MaxCurrent", 4700}},
  };
  s.activePDProfileIndex = 3;
  const auto d = BatteryDiagnostics::from(s);
  ASSERT_TRUE(d.usbPDProfiles);
  ASSERT_EQ(d.usbPDProfiles->size(), 2u);
  EXPECT_EQ((*d.usbPDProfiles)[0], (USBPDProfile{1, 5000, 3000, false}));
  EXPECT_EQ((*d.usbPDProfiles)[1], (USBPDProfile{3, 20000, 4700, true}));
}

TEST(BatteryDiagnosticsTest, AdapterInfoFromChargerFields) {
  PowerSnapshot s;
  s.pdSpecRevision = 2;
  s.chargerVendorID = 0x05AC;
  s.portMaxPower_mW = 96000;
  s.cableType = CableType::active;
  auto d = BatteryDiagnostics::from(s);
  ASSERT_TRUE(d.adapterInfo);
  EXPECT_EQ(d.adapterInfo->pdSpecRevision, "3.0");
  EXPECT_TRUE(d.adapterInfo->isAppleSource);
  EXPECT_EQ(d.adapterInfo->portMaxPower_W, 96.0);
  EXPECT_EQ(d.adapterInfo->cableType, CableType::active);

  s.chargerVendorID = 0x291A;
  EXPECT_FALSE(BatteryDiagnostics::from(s).adapterInfo->isAppleSource);
  // A cable classification alone is enough for the section.
  PowerSnapshot cableOnly;
  cableOnly.cableType = CableType::passive;
  d = BatteryDiagnostics::from(cableOnly);
  ASSERT_TRUE(d.adapterInfo);
  EXPECT_FALSE(d.adapterInfo->isAppleSource);
  EXPECT_EQ(d.adapterInfo->pdSpecRevision, std::nullopt);
}

}  // namespace
}  // namespace quorel
