#pragma once
// A snapshot provider over a real view model and a scratch store, on a manual clock with queues
// that the test runs by hand, so that every answer that waits for the store arrives only when
// the test lets both queues run.

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "insights/carbon_footprint_service.hpp"
#include "mcp/quorel_snapshot_provider.hpp"
#include "store/quorel_database.hpp"
#include "store/sqlite_test_support.hpp"
#include "support/zone_guard.hpp"
#include "telemetry/power_view_model.hpp"

namespace quorel::testing {

inline constexpr double kT0 = 1'800'000'000;  // 2027-01-15T08:00:00Z, the manual clock's start

class SnapshotFixture : public ::testing::Test {
 protected:
  SnapshotFixture() {
    QuorelSnapshotProvider::Sources sources;
    sources.viewModel = &viewModel;
    sources.database = &db;
    sources.carbon = &carbon;
    sources.carbonRegion = [this] { return region; };
    sources.chargerVendorNames = [](std::int64_t id) -> std::optional<std::string> {
      if (id == 0x2B27) return "Belkin";
      return std::nullopt;
    };
    provider.emplace(main, clock, std::move(sources));
  }

  static TimePoint at(double offset) { return fromUnixSeconds(kT0 + offset); }

  void show(const PowerState& state) { viewModel.update(state, PowerHistorySnapshot::empty(), {}); }

  // Runs a history call; it must not answer before the store's queue and then the main queue
  // have run.
  template <class Call>
  JSONValue answer(Call call) {
    std::optional<JSONValue> got;
    call([&](JSONValue v) { got = std::move(v); });
    EXPECT_FALSE(got) << "answered without going through the store's queue";
    db.queue().runPending();
    EXPECT_FALSE(got) << "answered on the store's queue";
    main.runPending();
    EXPECT_TRUE(got) << "never answered";
    return got.value_or(JSONValue());
  }

  SqlFile sql() { return SqlFile(scratch.path() / "quorel.db"); }

  ZoneGuard zone{"UTC"};
  ManualClock clock{fromUnixSeconds(kT0)};
  SerialQueue main{"test.main", clock};
  ScratchDirectory scratch{"quorel-snapshot"};
  QuorelDatabase db{{.dataDirectory = {},
                     .databasePathOverride = scratch.path() / "quorel.db",
                     .onCorruption = {},
                     .startQueue = false},
                    clock};
  CarbonFootprintService carbon{db};
  CarbonRegionIntensity region = kCarbonRegions[1];
  PowerViewModel viewModel{main, nullptr, clock};
  std::optional<QuorelSnapshotProvider> provider;
};

}  // namespace quorel::testing
