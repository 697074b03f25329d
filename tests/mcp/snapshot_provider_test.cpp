// The read tools' objects: the rules that tie their keys together, the answers without data,
// and the history answers, which arrive only through the store's queue.

#include <gtest/gtest.h>

#include <cmath>
#include <future>
#include <memory>
#include <ranges>

#include "mcp/live_snapshot_json.hpp"
#include "snapshot_test_fixture.hpp"

namespace quorel {
namespace {

using testing::kT0;
using testing::SnapshotFixture;

double num(const JSONValue& object, std::string_view key) {
  const JSONValue* member = object.find(key);
  return member && member->numberValue() ? *member->numberValue() : std::nan("");
}

PowerState onBattery(double watts) {
  PowerState s;
  s.phase = PowerPhase::draining;
  s.smoothedWattage = watts;
  s.batteryPercentage = 64.4;
  s.batteryInstalled = true;
  s.temperature_C = 31;
  s.timestamp = fromUnixSeconds(testing::kT0);
  return s;
}

class SnapshotProviderTest : public SnapshotFixture {};

TEST_F(SnapshotProviderTest, ConsumptionFollowsTheFlowAndThePowerIn) {
  struct Case {
    double flow;
    bool external;
    std::optional<double> powerIn;
    std::optional<double> consumption;  // absent: null
    const char* quality;
  };
  const Case cases[] = {
      {-8.5, false, std::nullopt, 8.5, "inferred"},
      {2.0, false, std::nullopt, 0.0, "inferred"},  // never below zero
      {12.0, true, 40.0, 28.0, "inferred"},
      {45.0, true, 40.0, 0.0, "inferred"},
      {12.0, true, std::nullopt, std::nullopt, "unavailable"},
      {12.0, true, NAN, std::nullopt, "unavailable"},  // a power-in that is not finite is none
      {-3.0, false, 10.0, 13.0, "inferred"},
  };
  for (const Case& c : cases) {
    PowerState s = onBattery(c.flow);
    s.externalConnected = c.external;
    s.systemPowerIn_W = c.powerIn;
    show(s);
    const JSONValue power = provider->getCurrentPower();
    SCOPED_TRACE(power.write().value_or("?"));
    EXPECT_EQ(power.member("watts"), power.member("battery_flow_w"));
    EXPECT_EQ(num(power, "watts"), c.flow);
    EXPECT_EQ(power.member("system_consumption_w"),
              c.consumption ? JSONValue(*c.consumption) : JSONValue(nullptr));
    EXPECT_EQ(power.member("system_consumption_quality"), JSONValue(c.quality));
    EXPECT_TRUE(power.find("power_in_w")) << "the key stays when the value is null";
    EXPECT_EQ(power.member("timestamp"), JSONValue("2027-01-15T08:00:00.000Z"));
  }
}

TEST_F(SnapshotProviderTest, ComponentsAreWholeOrKeepOnlyWhatCanBeBelieved) {
  PowerState s = onBattery(-10);
  show(s);
  EXPECT_EQ(provider->getSystemComponents().member("available"), JSONValue(false));
  const JSONValue absent = provider->getCurrentPower();
  for (const JSONValue& v : *absent.find("components")->objectValue() | std::views::values) {
    EXPECT_TRUE(v.isNull());
  }

  s.componentPower = ComponentPower{0.5, 2.25, 1.5, 0.125, 0.75, true};
  show(s);
  const JSONValue whole = provider->getSystemComponents();
  EXPECT_EQ(whole.member("complete"), JSONValue(true));
  EXPECT_DOUBLE_EQ(num(whole, "total_w"), num(whole, "ecpu_w") + num(whole, "pcpu_w") +
                                              num(whole, "gpu_w") + num(whole, "ane_w") +
                                              num(whole, "dram_w"));
  EXPECT_DOUBLE_EQ(num(whole, "total_w"), 5.125);
  const JSONValue nested = *provider->getCurrentPower().member("components");
  for (const char* key : {"ecpu_w", "pcpu_w", "gpu_w", "ane_w", "dram_w", "total_w"}) {
    EXPECT_EQ(nested.member(key), whole.member(key)) << key;
  }

  s.componentPower->cpuAndMemoryAvailable = false;
  show(s);
  const JSONValue partial = provider->getSystemComponents();
  EXPECT_EQ(partial.member("complete"), JSONValue(false));
  EXPECT_EQ(partial.member("gpu_w"), JSONValue(1.5));
  EXPECT_EQ(partial.member("ane_w"), JSONValue(0.125));
  for (const char* key : {"ecpu_w", "pcpu_w", "dram_w", "total_w"}) {
    EXPECT_TRUE(partial.member(key).value_or(1).isNull()) << key;
  }
}

TEST_F(SnapshotProviderTest, RemainingTimeReadsAsHoursAndMinutesWithItsDirection) {
  using live_snapshot_json::timeRemainingHuman;
  EXPECT_EQ(timeRemainingHuman(59, std::nullopt, false), "59m until empty");
  EXPECT_EQ(timeRemainingHuman(60, std::nullopt, false), "1h 0m until empty");
  EXPECT_EQ(timeRemainingHuman(125, -30, true), "2h 5m until full") << "the gauge's figure wins";
  EXPECT_EQ(timeRemainingHuman(std::nullopt, -61, true), "1h 1m until empty");
  EXPECT_EQ(timeRemainingHuman(std::nullopt, 45, false), "45m until full");
  EXPECT_EQ(timeRemainingHuman(0, 45, false), std::nullopt);
  EXPECT_EQ(timeRemainingHuman(std::nullopt, 0, false), std::nullopt);

  PowerState s = onBattery(-9);
  s.iopsPercent = 65;
  s.timeRemaining_min = 60;
  show(s);
  JSONValue status = provider->getBatteryStatus();
  EXPECT_EQ(status.member("percent"), JSONValue(65)) << "the system's own figure";
  EXPECT_EQ(status.member("percent_raw"), JSONValue(64.4));
  EXPECT_EQ(status.member("time_remaining_human"), JSONValue("1h 0m until empty"));
  EXPECT_EQ(status.member("charging"), JSONValue(false));

  s.iopsPercent.reset();
  s.phase = PowerPhase::trickleCharge;
  s.temperature_C = 0;
  show(s);
  status = provider->getBatteryStatus();
  EXPECT_EQ(status.member("percent"), JSONValue(64));
  EXPECT_EQ(status.member("charging"), JSONValue(true));
  EXPECT_EQ(status.member("time_remaining_human"), JSONValue("1h 0m until full"));
  EXPECT_EQ(status.member("temperature_c"), JSONValue(nullptr));
}

TEST_F(SnapshotProviderTest, WithoutABatteryOrAnyStateTheToolsSaySo) {
  const JSONValue noData =
      JSONValue::parse(R"({"available":false,"reason":"no power data yet"})").value();
  EXPECT_EQ(provider->getCurrentPower(), noData);
  EXPECT_EQ(provider->getBatteryStatus(), noData);
  EXPECT_EQ(provider->getSystemComponents(), noData);

  PowerState desktop = onBattery(0);
  desktop.batteryInstalled = false;
  desktop.phase = PowerPhase::noBattery;
  desktop.externalConnected = true;
  desktop.systemPowerIn_W = 30;
  show(desktop);
  EXPECT_EQ(provider->getBatteryStatus(),
            JSONValue::parse(R"({"available":false,"reason":"no battery"})").value());
  EXPECT_EQ(provider->getCurrentPower().member("system_consumption_w"), JSONValue(30));

  QuorelSnapshotProvider gone(main, clock, {});
  EXPECT_EQ(gone.getCurrentPower(), noData);
  EXPECT_EQ(gone.getOverview().member("device_count"), JSONValue(0));
  EXPECT_EQ(gone.listConnectedDevices().member("count"), JSONValue(0));
  std::optional<JSONValue> history;
  gone.listSessions(5, [&](JSONValue v) { history = std::move(v); });
  EXPECT_EQ(history,
            JSONValue::parse(R"({"available":false,"reason":"database not ready"})").value());
}

TEST_F(SnapshotProviderTest, AdapterDetailsComeFromTheDiagnosticsOrStayNull) {
  PowerState s = onBattery(-5);
  show(s);
  EXPECT_EQ(provider->getAdapter(), JSONValue::object({{"connected", false}}));

  s.externalConnected = true;
  s.adapterWatts = 96;
  show(s);
  JSONValue bare = provider->getAdapter();
  EXPECT_EQ(bare.member("watts"), JSONValue(96));
  EXPECT_EQ(bare.objectValue()->size(), 10u);
  EXPECT_EQ(bare.member("source_label"), JSONValue(nullptr));

  struct Case {
    bool apple;
    std::optional<std::int64_t> vendor;
    const char* label;
  };
  for (const Case& c : {Case{true, 0x2B27, "Apple"}, Case{false, 0x2B27, "Belkin"},
                        Case{false, 0x1234, "Third-Party"}, Case{false, 0, "Third-Party"}}) {
    s.diagnostics = BatteryDiagnostics{};
    s.diagnostics->adapterInfo =
        AdapterInfo{"3.0", c.apple, c.vendor, std::nullopt, 2, 100.0, CableType::magsafe, {}};
    show(s);
    const JSONValue adapter = provider->getAdapter();
    EXPECT_EQ(adapter.member("source_label"), JSONValue(c.label));
    EXPECT_EQ(adapter.member("is_apple_source"), JSONValue(c.apple));
    EXPECT_EQ(adapter.member("cable_type"), JSONValue("MagSafe"));
    EXPECT_EQ(adapter.member("data_speed"), JSONValue(nullptr));
  }
}

TEST_F(SnapshotProviderTest, DevicesAndTheOverviewCountAgree) {
  std::vector<USBDevice> plugged;
  QuorelSnapshotProvider::Sources sources;
  sources.viewModel = &viewModel;
  sources.usbDevices = [&] { return plugged; };
  QuorelSnapshotProvider withDevices(main, clock, std::move(sources));
  for (std::size_t n : {3u, 0u}) {
    plugged.resize(n);
    const JSONValue listed = withDevices.listConnectedDevices();
    EXPECT_EQ(num(listed, "count"),
              static_cast<double>(listed.find("devices")->arrayValue()->size()));
    EXPECT_EQ(withDevices.getOverview().member("device_count"), listed.member("count"));
  }
  plugged.resize(1);
  plugged[0].name = "Keyboard";
  plugged[0].busPowerUsed_mA = 100;
  plugged[0].speed = USBSpeed::full;
  plugged[0].deviceType = DeviceType::hid;
  const JSONValue device = (*withDevices.listConnectedDevices().find("devices")->arrayValue())[0];
  EXPECT_EQ(device.member("speed"), JSONValue(shortLabel(USBSpeed::full)));
  EXPECT_EQ(device.member("device_type"), JSONValue("hid"));
  EXPECT_EQ(device.member("vendor_name"), JSONValue(nullptr));
}

TEST_F(SnapshotProviderTest, HistoryWindowsDefaultFromTheEndAndCountTheirSamples) {
  auto s = sql();
  for (int i = 0; i < 10; ++i) {
    s.insert(
        "power_samples",
        {{"timestamp", kT0 - 7200 + i * 600.0}, {"wattage", -5.0}, {"observed_duration_s", 30.0}});
  }
  JSONValue v = answer([&](auto reply) { provider->queryPowerHistory({}, {}, 240, reply); });
  EXPECT_EQ(v.member("from"), JSONValue("2027-01-15T07:00:00.000Z"));
  EXPECT_EQ(v.member("to"), JSONValue("2027-01-15T08:00:00.000Z"));
  EXPECT_EQ(num(v, "count"), static_cast<double>(v.find("samples")->arrayValue()->size()));
  EXPECT_EQ(num(v, "count"), 4);

  // Only "to": an hour before it. A "from" that does not read is not given.
  v = answer([&](auto reply) {
    provider->queryPowerHistory("not a time", "2027-01-15T07:00:00Z", 240, reply);
  });
  EXPECT_EQ(v.member("from"), JSONValue("2027-01-15T06:00:00.000Z"));
  EXPECT_EQ(num(v, "count"), 7) << "both ends belong to the range";

  v = answer(
      [&](auto reply) { provider->topEnergyApps({}, "2027-01-14T08:00:00.5+00:00", 8, reply); });
  EXPECT_EQ(v.member("from"), JSONValue("2027-01-13T08:00:00.500Z"));

  // Milliseconds that no binary fraction holds exactly still give a window of exactly an hour.
  v = answer(
      [&](auto reply) { provider->queryPowerHistory({}, "2027-01-15T07:00:00.123Z", 240, reply); });
  EXPECT_EQ(v.member("from"), JSONValue("2027-01-15T06:00:00.123Z"));
  EXPECT_EQ(v.member("to"), JSONValue("2027-01-15T07:00:00.123Z"));
}

TEST_F(SnapshotProviderTest, ConfidenceLosesForRejectedAndEstimatedValuesWithinItsCaps) {
  struct Case {
    int rejected;
    int estimated;
    double confidence;
  };
  // Sixty minute-long rows fill the hour; the first rows carry the labels.
  for (const Case& c : {Case{0, 0, 1.0}, Case{10, 0, 0.9}, Case{50, 0, 0.5}, Case{60, 0, 0.5},
                        Case{0, 100, 0.8}, Case{0, 125, 0.75}, Case{50, 125, 0.25}}) {
    auto s = sql();
    s.exec("DELETE FROM power_samples");
    for (int i = 0; i < 60; ++i) {
      const char* quality = i < c.rejected ? "rejected" : "measured";
      s.insert("power_samples",
               {{"timestamp", kT0 - 3600 + i * 60.0},
                {"observed_duration_s", 60.0},
                {"component_quality", quality},
                {"system_power_quality", i < c.estimated ? "estimated" : "measured"}});
    }
    // 125 estimated values need more rows than an hour of minutes: the rest sit in one second.
    for (int i = 60; i < c.estimated; ++i) {
      s.insert("power_samples",
               {{"timestamp", kT0 - 1 + (i - 60) / 1000.0}, {"system_power_quality", "estimated"}});
    }
    const JSONValue coverage = *answer([&](auto reply) {
                                  provider->queryPowerHistory({}, {}, 240, reply);
                                }).member("coverage");
    SCOPED_TRACE(coverage.write().value_or("?"));
    EXPECT_NEAR(num(coverage, "confidence"), c.confidence, 1e-9);
    EXPECT_EQ(num(coverage, "rejected_values"), c.rejected);
  }

  // Nothing collected: no confidence, whatever else is said.
  sql().exec("DELETE FROM power_samples");
  const JSONValue empty = *answer([&](auto reply) {
                             provider->queryPowerHistory({}, {}, 240, reply);
                           }).member("coverage");
  EXPECT_EQ(empty.member("confidence"), JSONValue(0));
}

TEST_F(SnapshotProviderTest, SessionLimitsAreClampedAndTrendsCarryTheEpoch) {
  auto s = sql();
  for (int i = 0; i < 3; ++i) {
    s.insert("sessions", {{"id", "00000000-0000-4000-8000-00000000000" + std::to_string(i)},
                          {"start_time", kT0 - 3000 + i * 1000.0},
                          {"end_time", kT0 - 2100 + i * 1000.0},
                          {"collected_duration_s", 600.0},
                          {"missing_duration_s", 300.0}});
  }
  for (std::int64_t limit : {-3, 0, 1}) {
    const JSONValue v = answer([&](auto reply) { provider->listSessions(limit, reply); });
    EXPECT_EQ(num(v, "count"), 1) << limit;
  }
  const JSONValue all = answer([&](auto reply) { provider->listSessions(1'000'000, reply); });
  const auto& sessions = *all.find("sessions")->arrayValue();
  ASSERT_EQ(sessions.size(), 3u);
  EXPECT_EQ(sessions[0].member("start"), JSONValue("2027-01-15T07:43:20.000Z")) << "newest first";
  EXPECT_EQ(sessions[0].member("duration_min"), JSONValue(15));
  EXPECT_NEAR(num(sessions[0], "coverage_ratio"), 600.0 / 900.0, 1e-12);
  EXPECT_EQ(sessions[0].member("battery_energy_wh"), sessions[0].member("total_wh"));

  JSONValue trend = answer([&](auto reply) { provider->batteryHealthTrend(reply); });
  EXPECT_EQ(trend.member("epoch"), JSONValue(nullptr));
  EXPECT_TRUE(trend.find("trend")->arrayValue()->empty());
  db.reconcileBatteryEpoch("SERIAL-1", 12, 5000, 4900, at(-86400));
  trend = answer([&](auto reply) { provider->batteryHealthTrend(reply); });
  const JSONValue epoch = *trend.member("epoch");
  EXPECT_EQ(epoch.member("first_seen"), JSONValue("2027-01-14T08:00:00.000Z"));
  EXPECT_EQ(epoch.member("serial"), JSONValue("SERIAL-1"));
  EXPECT_EQ(epoch.member("baseline_design_mah"), JSONValue(5000));
}

TEST_F(SnapshotProviderTest, EnergyTotalsJoinTheLifetimeAndTodaysCarbon) {
  JSONValue v = answer([&](auto reply) { provider->energyTotals(reply); });
  EXPECT_EQ(v.member("lifetime_from"), JSONValue(nullptr));
  EXPECT_EQ(v.member("lifetime_wh"), JSONValue(0));
  EXPECT_EQ(v.member("carbon_region"), JSONValue(region.rawValue));

  // The two hours before now on battery at 10 W, a sample a minute: 20 Wh, all of it today.
  auto s = sql();
  for (int i = 0; i <= 120; ++i) {
    s.insert("power_samples", {{"timestamp", kT0 - 7200 + i * 60.0},
                               {"wattage", -10.0},
                               {"external_connected", std::int64_t{0}},
                               {"observed_duration_s", 60.0}});
  }
  v = answer([&](auto reply) { provider->energyTotals(reply); });
  EXPECT_NEAR(num(v, "lifetime_wh"), 20.0, 1e-9);
  EXPECT_EQ(v.member("lifetime_system_consumption_wh"), v.member("lifetime_wh"));
  EXPECT_EQ(v.member("lifetime_to"), JSONValue("2027-01-15T08:00:00.000Z"));
  EXPECT_NEAR(num(v, "co2_g_today"), 20.0 / 1000.0 * region.gramsCO2PerKWh, 1e-9);
  EXPECT_EQ(num(v, "carbon_intensity_g_per_kwh"), region.gramsCO2PerKWh);
  // Each of the 121 rows speaks for its minute, out of the eight hours since midnight.
  EXPECT_NEAR(num(*v.member("today_collection_coverage"), "ratio"), 121 * 60 / 28800.0, 1e-9);
}

TEST_F(SnapshotProviderTest, AnAnswerForAProviderThatIsGoneIsDropped) {
  std::optional<JSONValue> got;
  provider->listSessions(5, [&](JSONValue v) { got = std::move(v); });
  db.queue().runPending();
  provider.reset();
  main.runPending();
  EXPECT_FALSE(got);
}

TEST(SnapshotProviderThreadsTest, HistoryAnswersCrossFromTheStoresThreadToTheMainThread) {
  testing::ScratchDirectory scratch{"quorel-snapshot-threads"};
  SystemClock clock;
  SerialQueue main{"test.main", clock};
  QuorelDatabase db{
      {.dataDirectory = {}, .databasePathOverride = scratch.path() / "q.db", .onCorruption = {}},
      clock};
  CarbonFootprintService carbon{db};
  main.start();
  // Made on the main thread, which alone touches the view model.
  std::optional<PowerViewModel> viewModel;
  std::optional<QuorelSnapshotProvider> provider;
  main.sync([&] {
    viewModel.emplace(main, nullptr, clock);
    QuorelSnapshotProvider::Sources sources;
    sources.viewModel = &*viewModel;
    sources.database = &db;
    sources.carbon = &carbon;
    provider.emplace(main, clock, std::move(sources));
  });
  std::promise<std::vector<JSONValue>> done;
  main.async([&] {
    auto answers = std::make_shared<std::vector<JSONValue>>();
    auto collect = [&, answers](JSONValue v) {
      EXPECT_TRUE(main.isCurrent());
      answers->push_back(std::move(v));
      if (answers->size() == 20) done.set_value(*answers);
    };
    for (int i = 0; i < 5; ++i) {
      provider->energyTotals(collect);
      provider->listSessions(i, collect);
      provider->queryPowerHistory({}, {}, 240, collect);
      // The state changes between the calls while their reads are under way.
      PowerState state = onBattery(-i);
      viewModel->update(state, PowerHistorySnapshot::empty(), {});
      collect(provider->getOverview());
    }
  });
  const auto answers = done.get_future().get();
  for (const JSONValue& answer : answers) EXPECT_NE(answer.member("available"), JSONValue(false));
  main.sync([&] {
    provider.reset();
    viewModel.reset();
  });
  main.shutdown();
}

}  // namespace
}  // namespace quorel
