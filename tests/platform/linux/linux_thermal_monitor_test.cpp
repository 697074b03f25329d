#include "platform/linux/linux_thermal_monitor.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "platform/linux/sysfs_tree.hpp"

namespace quorel {
namespace {

using ::testing::ElementsAre;
using testing::fixturePath;
using testing::LogCapture;
using testing::SysfsTree;

ThermalZoneReading zone(double celsius, std::vector<ThermalTripPoint> trips,
                        std::string name = "thermal_zone0") {
  return {std::move(name), "test", static_cast<std::int64_t>(celsius * 1000), std::move(trips)};
}

ThermalTripPoint trip(const char* type, double celsius) {
  return {type, static_cast<std::int64_t>(celsius * 1000)};
}

void writeZone(const SysfsTree& tree, int index, const std::string& type, std::int64_t temp_mC,
               const std::vector<ThermalTripPoint>& trips) {
  auto dir = std::filesystem::path("class/thermal") / ("thermal_zone" + std::to_string(index));
  tree.write(dir / "type", type + "\n");
  tree.write(dir / "temp", std::to_string(temp_mC) + "\n");
  for (std::size_t i = 0; i < trips.size(); ++i) {
    tree.write(dir / ("trip_point_" + std::to_string(i) + "_type"), trips[i].type + "\n");
    tree.write(dir / ("trip_point_" + std::to_string(i) + "_temp"),
               std::to_string(trips[i].temp_mC) + "\n");
  }
}

TEST(ThermalZoneStateTest, TripsSetAnOrderedLadderOfRungs) {
  using enum ThermalState;
  using Trips = std::vector<ThermalTripPoint>;
  const Trips laptop = {trip("active", 65), trip("active", 75), trip("passive", 85),
                        trip("critical", 110)};
  const Trips battery = {trip("passive", 50), trip("hot", 60)};
  const Trips criticalOnly = {trip("critical", 100)};
  // A fan trip above the throttling trip: fans are no earlier warning than throttling.
  const Trips fanAbove = {trip("active", 90), trip("passive", 80)};
  const Trips fanOnly = {trip("active", 50)};
  const Trips unknownType = {trip("unknown", 50)};
  const struct {
    const Trips& trips;
    double celsius;
    std::optional<ThermalState> state;
  } cases[] = {
      // clang-format off
      {laptop, 64.9, nominal}, {laptop, 65, fair}, {laptop, 84.9, fair}, {laptop, 85, serious},
      {laptop, 105, critical}, {battery, 40, fair}, {battery, 60, critical},
      {criticalOnly, 74.9, nominal}, {criticalOnly, 95, critical},
      {fanAbove, 79, nominal}, {fanAbove, 80, serious}, {fanAbove, 200, serious},
      {fanOnly, 120, fair}, {fanOnly, 49.9, nominal}, {unknownType, 60, std::nullopt},
      // clang-format on
  };
  for (const auto& c : cases) {
    EXPECT_EQ(thermalStateOfZone(zone(c.celsius, c.trips)), c.state)
        << c.celsius << " °C with " << c.trips.size() << " trips";
  }
  EXPECT_EQ(thermalStateOfZone(zone(60, {})), std::nullopt);
}

TEST(ThermalZoneReaderTest, ReadsLinkedZonesSkippingDisabledOnesAndUnusedTrips) {
  auto scan = readThermalZones(fixturePath("energy-pack") / "class/thermal");
  ASSERT_FALSE(scan.error);
  ASSERT_EQ(scan.zones.size(), 2u);
  EXPECT_EQ(scan.zones[0],
            (ThermalZoneReading{"thermal_zone0", "acpitz", 52000, {{"critical", 128000}}}));
  // The package zone's two passive trips read 0: unused.
  EXPECT_EQ(scan.zones[1], (ThermalZoneReading{"thermal_zone1", "x86_pkg_temp", 61000, {}}));
  EXPECT_EQ(assessThermalZones(scan.zones).state, ThermalState::nominal);
}

TEST(ThermalZoneReaderTest, UnreadableOrAbsurdZonesAreLeftOut) {
  SysfsTree tree;
  writeZone(tree, 0, "acpitz", 50000, {trip("critical", 100)});
  writeZone(tree, 1, "sensor-error", -274000, {trip("critical", 100)});
  writeZone(tree, 2, "unplugged", 0, {});
  tree.write("class/thermal/thermal_zone2/temp", "No data available\n");
  writeZone(tree, 3, "gap", 60000, {trip("passive", 70), trip("critical", 90)});
  tree.remove("class/thermal/thermal_zone3/trip_point_0_temp");
  auto scan = readThermalZones(tree.thermal());
  ASSERT_EQ(scan.zones.size(), 2u);
  EXPECT_EQ(scan.zones[0].type, "acpitz");
  // A trip whose temperature cannot be read is skipped; the ones after it still count.
  EXPECT_EQ(scan.zones[1].trips, (std::vector<ThermalTripPoint>{trip("critical", 90)}));
}

TEST(LinuxThermalMonitorTest, SamplesPublishTheStateKeepItThroughFailuresAndLogChanges) {
  LogCapture log;
  SysfsTree tree;
  writeZone(tree, 0, "x86_pkg_temp", 91500, {trip("passive", 90), trip("critical", 100)});
  LinuxThermalMonitor monitor(tree.thermal());
  const SystemClock clock;
  SerialQueue queue("test.thermal", clock);
  monitor.start(queue, Seconds{3600});
  EXPECT_EQ(monitor.currentThermalState(), ThermalState::nominal);
  queue.runPending();
  EXPECT_EQ(monitor.currentThermalState(), ThermalState::serious);
  monitor.stop();
  EXPECT_EQ(monitor.sample(), ThermalState::serious);

  tree.makeUnreadable("class/thermal/thermal_zone0/temp");
  EXPECT_EQ(monitor.sample(), ThermalState::serious);
  EXPECT_EQ(monitor.sample(), ThermalState::serious);
  EXPECT_EQ(monitor.failedSampleCount(), 2u);
  tree.remove("class/thermal/thermal_zone0/temp");
  tree.write("class/thermal/thermal_zone0/temp", "55000\n");
  EXPECT_EQ(monitor.sample(), ThermalState::nominal);

  const std::string zone0 = " — zone x86_pkg_temp (thermal_zone0) at ";
  EXPECT_THAT(log.messages("Thermal"),
              ElementsAre("thermal state changed from nominal to serious" + zone0 + "91.5 °C",
                          "no thermal zone can be read in " + tree.thermal().string() +
                              " — thermal state stays serious",
                          "thermal zones in " + tree.thermal().string() + " readable again",
                          "thermal state changed from serious to nominal" + zone0 + "55.0 °C"));
}

TEST(LinuxThermalMonitorTest, ThePollQueueReadsWhileTheSamplerWrites) {
  SysfsTree tree;
  writeZone(tree, 0, "cpu", 88000, {trip("passive", 85)});
  LinuxThermalMonitor monitor(tree.thermal());
  std::thread sampler([&] {
    for (int i = 0; i < 200; ++i) monitor.sample();
  });
  // The tree stays hot, so once the reader has seen the published state it must never see
  // the initial one again.
  bool seenSerious = false;
  int regressions = 0;
  for (int i = 0; i < 2000; ++i) {
    auto state = monitor.currentThermalState();
    if (state == ThermalState::serious) seenSerious = true;
    if (seenSerious && state != ThermalState::serious) ++regressions;
  }
  sampler.join();
  EXPECT_EQ(regressions, 0);
  EXPECT_EQ(monitor.currentThermalState(), ThermalState::serious);
}

}  // namespace
}  // namespace quorel
