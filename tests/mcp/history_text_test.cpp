// The history answers written as text must be the bytes of the same answers built as values and
// written: a key out of order, a member left out or a number spelt differently is a change an
// assistant's parser or a diff of `quorel history --json` would see.

#include "mcp/history_text.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <optional>
#include <string>

#include "mcp/sample_text_cache.hpp"
#include "mcp/snapshot_history.hpp"
#include "snapshot_test_fixture.hpp"
#include "store/history_json.hpp"

namespace quorel {
namespace {

using testing::kT0;
using testing::SnapshotFixture;
using testing::SqlValue;

constexpr double kInf = std::numeric_limits<double>::infinity();

// What a text reads as inside a JSON string.
std::string escaped(std::string_view json) {
  std::string out;
  json_text::appendEscaped(out, json);
  return out;
}

// The json form, once it is checked that the inString form is that text escaped.
template <class Write>
std::string text(Write write) {
  JSONTextWriter plain;
  write(plain);
  const std::string json = std::move(plain).take();
  JSONTextWriter embedded(JSONTextWriter::Form::inString);
  write(embedded);
  EXPECT_EQ(std::move(embedded).take(), escaped(json));
  return json;
}

TEST(HistoryTextTest, RecordsAreTheBytesOfTheirValues) {
  PowerSample full;
  full.timestamp = fromUnixSeconds(kT0 + 0.125);
  full.wattage = -9.75;
  full.batteryPct = 64.5;
  full.ecpuW = 0.6;
  full.pcpuW = 2.25;
  full.gpuW = 0.1;
  full.aneW = 0;
  full.dramW = 0.4;
  full.powerInW = 45;
  full.wallPowerW = 51.2;
  full.isCharging = true;
  full.externalConnected = true;
  full.temperatureC = 33.3;
  full.observedDurationS = 30;
  full.componentQuality = HistoricalValueQuality::measured;
  full.componentRejectionReason = "spike \"over\" 200 W\n";
  full.systemTotalW = 20;
  full.batteryRailW = -1e-7;
  full.dcInW = 1e21;
  full.thunderboltLeftW = 0.3;
  full.thunderboltRightW = 1.0 / 3.0;
  full.pdBrightnessW = 2;
  PowerSample bare;  // every optional absent, before 1970's end of the first second
  bare.timestamp = fromUnixSeconds(0.999);
  PowerSample odd = full;  // numbers no JSON can hold
  odd.wattage = std::nan("");
  odd.ecpuW = kInf;
  odd.temperatureC = -kInf;
  odd.componentRejectionReason = std::string("caf\xC3\xA9 \xFF");
  for (const PowerSample& s : {full, bare, odd}) {
    EXPECT_EQ(text([&](auto& w) { history_text::sample(w, s); }), history_json::sample(s).write());
  }

  SessionRecord session;
  session.startTime = fromUnixSeconds(kT0 - 5400.5);
  session.endTime = fromUnixSeconds(kT0 - 0.001);
  session.startPct = 80;
  session.endPct = 41.5;
  session.avgWattage = -7.125;
  session.totalWh = 10.5;
  session.mode = PowerSessionMode::forceDischarge;
  session.collectedDuration_s = 5000;
  session.missingDuration_s = 400.5;
  session.confidence = 0.92;
  SessionRecord unseen;  // nothing collected nor missed: a coverage of 0, not NaN
  unseen.avgWattage = kInf;
  for (const SessionRecord& s : {session, unseen}) {
    EXPECT_EQ(text([&](auto& w) { history_text::session(w, s); }),
              history_json::session(s).write());
  }

  DailyBatteryMetric day;
  day.dayStart = fromUnixSeconds(kT0 - 8 * 3600);
  day.nominalCapacity_mAh = 4800;
  day.designCapacity_mAh = 5000;
  day.cycleCount = 312;
  day.healthPct = 96.0;
  day.averageTemperature_C = 30.25;
  day.capacitySampleCount = 12;
  day.temperatureObservedDuration_s = 86399.5;
  day.quality = HistoricalValueQuality::inferred;
  DailyBatteryMetric empty;
  empty.healthPct = std::nan("");
  for (const DailyBatteryMetric& d : {day, empty}) {
    EXPECT_EQ(text([&](auto& w) { history_text::dailyMetric(w, d); }),
              history_json::dailyMetric(d).write());
  }

  const TrackedEnergySummary ranked{
      "Web \"Content\"", 12.5, 86000, 400, 0.52, 9.5, 0.995, HistoricalValueQuality::measured};
  for (const JSONKey* key : {&"app"_key, &"agent"_key}) {
    for (const double current : {1.75, std::nan("")}) {
      EXPECT_EQ(
          text([&](auto& w) { history_text::trackedEnergy(w, ranked, current, *key); }),
          history_json::trackedEnergy(ranked, current, std::string(key->name()).c_str()).write());
    }
  }

  BatteryEpoch epoch{3,
                     fromUnixSeconds(kT0 - 86400 * 30 + 0.5),
                     "SER-\"1\"",
                     120,
                     5000,
                     4900,
                     BatteryEpochSource::manual};
  BatteryEpoch unknown{1,
                       fromUnixSeconds(kT0),
                       std::nullopt,
                       std::nullopt,
                       std::nullopt,
                       std::nullopt,
                       BatteryEpochSource::initial};
  for (const BatteryEpoch& e : {epoch, unknown}) {
    EXPECT_EQ(text([&](auto& w) { history_text::epoch(w, e); }), history_json::epoch(e).write());
  }

  HistoricalCoverageSummary covered;
  covered.collectedSeconds = 3000.5;
  covered.sleepingSeconds = 300;
  covered.missingSeconds = 299.5;
  covered.rejectedCount = 7;
  covered.estimatedCount = 300;
  for (const auto& c : {covered, HistoricalCoverageSummary{}}) {
    EXPECT_EQ(text([&](auto& w) { history_text::coverage(w, c); }),
              history_json::coverage(c).write());
  }
}

class HistoryTextStoreTest : public SnapshotFixture {
 protected:
  // The text answers and the value answers of the same store, compared byte for byte.
  void expectSameAnswers(const std::string& context) {
    SCOPED_TRACE(context);
    const TimePoint from = at(-7200.25);
    const TimePoint to = at(0);
    // `streamed` writes in the form it is given.
    auto same = [](auto streamed, const Result<JSONValue>& built) {
      const Result<std::string> json = streamed(history_text::Form::json);
      const Result<std::string> inString = streamed(history_text::Form::inString);
      ASSERT_TRUE(json && inString && built);
      EXPECT_EQ(*json, built->write());
      EXPECT_EQ(*inString, escaped(*json));
    };
    for (const int points : {2, 240}) {
      same([&](auto form) { return history_text::powerHistory(db, from, to, points, form); },
           snapshot_history::powerHistory(db, from, to, points));
    }
    for (const auto kind : {EnergyHistoryKind::processes, EnergyHistoryKind::agents}) {
      same([&](auto form) { return history_text::energyRanking(db, kind, from, to, 3, form); },
           snapshot_history::energyRanking(db, kind, from, to, 3));
    }
    same([&](auto form) { return history_text::recentSessions(db, 500, form); },
         snapshot_history::recentSessions(db, 500));
    same([&](auto form) { return history_text::batteryHealthTrend(db, form); },
         snapshot_history::batteryHealthTrend(db));
  }
};

TEST_F(HistoryTextStoreTest, AnswersAreTheBytesOfTheValueAnswersEmptyAndFilled) {
  expectSameAnswers("an empty store: empty lists, no epoch");

  auto s = sql();
  for (int i = 0; i < 40; ++i) {
    const double t = kT0 - 7000 + i * 97.125;
    s.insert("power_samples", {{"timestamp", t},
                               {"wattage", i % 3 == 0 ? 12.5 : -8.25},
                               {"battery_pct", 40 + i * 0.5},
                               {"observed_duration_s", i % 5 == 0 ? SqlValue() : SqlValue(30.0)},
                               {"pcpu_w", i % 2 == 0 ? SqlValue(1.0 / (i + 3)) : SqlValue()},
                               {"component_quality", i % 7 == 0 ? "rejected" : "measured"}});
  }
  for (int i = 0; i < 12; ++i) {
    s.insert("process_energy", {{"timestamp", kT0 - 3600 + i * 300.0},
                                {"process_name", i % 2 == 0 ? "builder" : "ed\xC3\xADtor"},
                                {"avg_cpu", 12.5},
                                {"avg_watts", 1.5 + i},
                                {"peak_watts", 3.0 + i},
                                {"observed_duration_s", 300.0},
                                {"energy_wh", (1.5 + i) / 12},
                                {"coverage_ratio", 1.0},
                                {"quality", "measured"},
                                {"source", "cpu_package_apportionment"}});
  }
  s.insert("sessions", {{"id", "a"},
                        {"start_time", kT0 - 9000.5},
                        {"end_time", kT0 - 100},
                        {"start_pct", 90.0},
                        {"end_pct", 35.5},
                        {"is_charging", std::int64_t{0}},
                        {"avg_wattage", -6.5},
                        {"total_wh", 16.1},
                        {"mode", "battery"}});
  for (int d = 0; d < 3; ++d) {
    s.insert("daily_battery_metrics",
             {{"day_key", "2027-01-1" + std::to_string(d)},
              {"day_start", kT0 - (3 - d) * 86400.0},
              {"nominal_capacity_mah", 4900.0 - d},
              {"design_capacity_mah", 5000.0},
              {"cycle_count", std::int64_t{100 + d}},
              {"health_pct", (4900.0 - d) / 50},
              {"avg_temperature_c", d == 1 ? SqlValue() : SqlValue(31.5)}});
  }
  s.insert("battery_epoch", {{"first_seen", kT0 - 86400 * 4.0}, {"source", "initial"}});
  expectSameAnswers("a filled store");
}

TEST_F(HistoryTextStoreTest, AnswersThroughTheSampleCacheAreTheBytesOfFreshOnes) {
  // An hour of samples a minute apart, some with texts that need escaping, then windows that
  // move by ten minutes: each answer must be what writing it afresh gives, whatever the cache
  // copied from the answer before, and must copy exactly the samples the two windows share.
  auto s = sql();
  for (int i = 0; i <= 60; ++i) {
    s.insert("power_samples",
             {{"timestamp", kT0 - 3600 + i * 60.0},
              {"wattage", -7.25 - i / 7.0},
              {"battery_pct", 80 - i / 3.0},
              {"pcpu_w", i % 4 == 0 ? SqlValue() : SqlValue(1.0 / (i + 2))},
              {"component_quality", i % 5 == 0 ? "rejected" : "measured"},
              {"component_rejection_reason",
               i % 5 == 0 ? SqlValue("spike \"" + std::to_string(i) + "\"\n") : SqlValue()}});
  }
  history_text::SampleTextCache cache;
  using Form = history_text::Form;
  auto expectFresh = [&](double from, double to, Form form, std::size_t reused) {
    SCOPED_TRACE(std::to_string(from) + " to " + std::to_string(to));
    const auto cached = history_text::powerHistory(db, at(from), at(to), 240, form, &cache);
    const auto fresh = history_text::powerHistory(db, at(from), at(to), 240, form);
    ASSERT_TRUE(cached && fresh);
    EXPECT_EQ(*cached, *fresh);
    EXPECT_EQ(cache.lastReused(), reused);
  };
  expectFresh(-3600, -1800, Form::inString, 0);
  expectFresh(-3000, -1200, Form::inString, 21);  // minutes 10 to 30 are in both
  expectFresh(-3000, -1200, Form::inString, 31);  // the same window again: all of it
  expectFresh(0, 600, Form::inString, 0);         // one sample, at the very end, none shared
  expectFresh(-3000, -1200, Form::inString, 0);

  // A sample stored again with another value is written afresh, the others still copied.
  sql().exec("UPDATE power_samples SET wattage = 3.5 WHERE timestamp = " +
             std::to_string(kT0 - 2400));
  expectFresh(-3000, -1200, Form::inString, 30);
  // The other form shares no text with this one.
  expectFresh(-3000, -1200, Form::json, 0);
  expectFresh(-3000, -1200, Form::json, 31);
}

TEST_F(HistoryTextStoreTest, AStoreThatCannotAnswerIsToldInTextAsInValues) {
  // Each history tool, through the text replies the registry uses and the value replies, when
  // the tables behind it are gone: the store's words, not an empty answer.
  sql().exec(
      "DROP TABLE power_samples; DROP TABLE process_energy; DROP TABLE sessions; "
      "DROP TABLE daily_battery_metrics");
  using Form = QuorelSnapshotProvider::TextForm;
  using Text = QuorelSnapshotProvider::TextReply;
  using Value = QuorelSnapshotProvider::Reply;
  const std::function<void(Text, Text, Value)> tools[] = {
      [&](Text t, Text e, Value v) {
        provider->queryPowerHistoryText({}, {}, 240, Form::json, t);
        provider->queryPowerHistoryText({}, {}, 240, Form::inString, e);
        provider->queryPowerHistory({}, {}, 240, v);
      },
      [&](Text t, Text e, Value v) {
        provider->topEnergyAppsText({}, {}, 8, Form::json, t);
        provider->topEnergyAppsText({}, {}, 8, Form::inString, e);
        provider->topEnergyApps({}, {}, 8, v);
      },
      [&](Text t, Text e, Value v) {
        provider->listSessionsText(20, Form::json, t);
        provider->listSessionsText(20, Form::inString, e);
        provider->listSessions(20, v);
      },
      [&](Text t, Text e, Value v) {
        provider->batteryHealthTrendText(Form::json, t);
        provider->batteryHealthTrendText(Form::inString, e);
        provider->batteryHealthTrend(v);
      },
  };
  for (std::size_t i = 0; i < std::size(tools); ++i) {
    std::optional<std::string> text;
    std::optional<std::string> inString;
    std::optional<JSONValue> value;
    tools[i]([&](std::string t) { text = std::move(t); },
             [&](std::string t) { inString = std::move(t); },
             [&](JSONValue v) { value = std::move(v); });
    db.queue().runPending();
    main.runPending();
    ASSERT_TRUE(text && inString && value) << "tool " << i;
    EXPECT_EQ(value->member("available"), JSONValue(false)) << "tool " << i;
    const JSONValue* reason = value->find("reason");
    ASSERT_TRUE(reason && reason->stringValue()) << "tool " << i;
    EXPECT_NE(reason->stringValue()->find("no such table"), std::string::npos) << *text;
    EXPECT_EQ(*text, value->write()) << "tool " << i;
    EXPECT_EQ(*inString, escaped(*text)) << "tool " << i;
  }

  // No store at all: the same words either way, at once.
  QuorelSnapshotProvider storeless(main, clock, {});
  std::optional<std::string> text;
  storeless.queryPowerHistoryText({}, {}, 240, Form::json, [&](std::string t) { text = t; });
  EXPECT_EQ(text, R"({"available":false,"reason":"database not ready"})");
  storeless.queryPowerHistoryText({}, {}, 240, Form::inString, [&](std::string t) { text = t; });
  EXPECT_EQ(text, R"({\"available\":false,\"reason\":\"database not ready\"})");
}

}  // namespace
}  // namespace quorel
