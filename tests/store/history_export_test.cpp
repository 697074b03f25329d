// Exports read back by an independent reader: rows once and in order across day borders, the
// inclusive end, the text forms of values, the JSON cap, and failures that leave nothing behind.

#include "store/history_export.hpp"

#include <fstream>
#include <limits>
#include <random>
#include <sstream>
#include <thread>

#include "core/json_value.hpp"
#include "store/export_file.hpp"
#include "store/store_test_fixture.hpp"

namespace quorel::store_test {
namespace {

std::string slurp(const fs::path& p) {
  std::ostringstream text;
  text << std::ifstream(p).rdbuf();
  return text.str();
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

std::vector<std::string> listing(const fs::path& directory) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

TEST(ExportTextTest, JSONStringsReadBackAsStored) {
  for (const std::string& text : {std::string("measured"), std::string("say \"hi\" \\ o/"),
                                  std::string("tab\there\nnew line\x01"), std::string()}) {
    std::string encoded;
    export_text::appendJSONString(encoded, text);
    const auto decoded = JSONValue::parse(encoded);
    ASSERT_TRUE(decoded && decoded->stringValue()) << encoded;
    EXPECT_EQ(*decoded->stringValue(), text) << encoded;
  }
}

TEST(ExportTextTest, ValuesLeaveInTheirShortestPlainForms) {
  const std::pair<std::string, std::string> escapes[] = {{"measured", "measured"},
                                                         {"", ""},
                                                         {"a,b", "\"a,b\""},
                                                         {"say \"hi\"", "\"say \"\"hi\"\"\""},
                                                         {"two\nlines", "\"two\nlines\""},
                                                         {"cr\r", "\"cr\r\""},
                                                         {"=1+1", "'=1+1"},
                                                         {"-3", "'-3"},
                                                         {"+x", "'+x"},
                                                         {"@a,b", "\"'@a,b\""},
                                                         {"a=b", "a=b"}};
  for (const auto& [raw, escaped] : escapes) EXPECT_EQ(csvEscape(raw), escaped) << raw;

  const std::pair<double, std::string> numbers[] = {
      {0.1, "0.1"}, {12.0, "12"}, {-0.5, "-0.5"}, {1e21, "1e+21"}, {1.0 / 3, "0.3333333333333333"}};
  for (const auto& [value, text] : numbers) {
    std::string out;
    export_text::appendNumber(out, value);
    EXPECT_EQ(out, text);
  }

  // One formatter across many rows, jumping days back and forth, agrees with the shared one.
  export_text::IsoFormatter iso;
  std::mt19937_64 random(7);
  std::uniform_real_distribution<double> seconds(-86400.0 * 400, 4102444799.0);
  std::vector<double> times = {kT0 + 0.123, kT0 + 0.125, kT0 - 0.0005,
                               0,           -0.001,      951782400 - 0.001};
  for (int i = 0; i < 2000; ++i) times.push_back(seconds(random));
  for (const double t : times) {
    std::string out;
    iso.append(out, t);
    ASSERT_EQ(out, formatIso8601(fromUnixSeconds(t))) << std::to_string(t);
  }
  std::string fraction;
  iso.append(fraction, kT0 + 0.125);
  EXPECT_EQ(fraction, "2027-01-15T08:00:00.125Z");
}

TEST(ExportTextTest, WindowsCoverThePeriodOnceWithOnlyTheLastInclusive) {
  EXPECT_TRUE(exportWindows(10, 9).empty());
  EXPECT_EQ(exportWindows(5, 5), (std::vector<ExportWindow>{{5, 5, true}}));
  EXPECT_EQ(exportWindows(0, 2.5 * kDay),
            (std::vector<ExportWindow>{
                {0, kDay, false}, {kDay, 2 * kDay, false}, {2 * kDay, 2.5 * kDay, true}}));
  EXPECT_EQ(exportWindows(0, kDay), (std::vector<ExportWindow>{{0, kDay, true}}));
}

class ExportTest : public StoreFileTest {
 protected:
  fs::path target = scratch.path() / "out" / "power.csv";
  void SetUp() override { fs::create_directories(target.parent_path()); }
};

TEST_F(ExportTest, CsvHoldsEveryRowOnceInOrderAcrossDaysWithTheEndIncluded) {
  const double end = 2 * kDay + 5;
  // Inserted out of order; the border rows sit exactly on the window cuts.
  for (const double t : {end, kDay, -1.0, 0.0, 2 * kDay, kDay - 0.5, end + 0.001, kDay + 0.25}) {
    sample(t, {{"wattage", t / 1000}});
  }
  sample(3600, {{"wattage", 0.1},
                {"thermal_state", std::int64_t{2}},
                {"external_connected", std::int64_t{0}},
                {"is_charging", std::int64_t{1}},
                {"wall_power_w", 12.5},
                {"component_rejection_reason", "=cmd,\"x\"\nnext"}});

  ASSERT_TRUE(db->exportCSV(ExportSeries::power, at(0), at(end), target).ok());
  const auto out = lines(slurp(target));
  ASSERT_EQ(out.size(), 1 + 7u + 1);  // the reason's newline splits one record over two lines
  EXPECT_EQ(out[0].substr(0, 35), "timestamp,wattage,battery_pct,ecpu_");
  EXPECT_EQ(out[0].find("wall_power_w"), std::string::npos);
  EXPECT_EQ(out[2] + "\n" + out[3],
            "2027-01-15T09:00:00.000Z,0.1,,,,,,,,,12.5,2,true,false,,,unavailable,unavailable,"
            "unavailable,\"'=cmd,\"\"x\"\"\nnext\",,,,,,");
  std::vector<std::string> times;
  for (const auto& line : out) times.push_back(line.substr(0, line.find(',')));
  const std::vector<std::string> expected = {"timestamp",
                                             "2027-01-15T08:00:00.000Z",
                                             "2027-01-15T09:00:00.000Z",
                                             "next\"",
                                             "2027-01-16T07:59:59.500Z",
                                             "2027-01-16T08:00:00.000Z",
                                             "2027-01-16T08:00:00.250Z",
                                             "2027-01-17T08:00:00.000Z",
                                             "2027-01-17T08:00:05.000Z"};
  EXPECT_EQ(times, expected);
  // The independent count over the same bounds.
  EXPECT_EQ(count("power_samples WHERE timestamp BETWEEN " + std::to_string(kT0) + " AND " +
                  std::to_string(kT0 + end)),
            7);

  // One instant: the row exactly there, nothing else; an empty table gives the header only.
  ASSERT_TRUE(db->exportCSV(ExportSeries::power, at(kDay), at(kDay), target).ok());
  EXPECT_EQ(lines(slurp(target)).size(), 2u);
  ASSERT_TRUE(db->exportCSV(ExportSeries::battery, at(0), at(end), target).ok());
  EXPECT_EQ(slurp(target),
            "timestamp,nominal_capacity_mah,design_capacity_mah,cycle_count,health_pct,"
            "max_temperature_c\n");
  EXPECT_EQ(listing(target.parent_path()), std::vector<std::string>{"power.csv"});
}

TEST_F(ExportTest, EverySeriesReadsFromTheCurrentSchema) {
  for (const ExportSeries series : kAllExportSeries) {
    const auto r = db->exportCSV(series, at(0), at(kDay), target);
    ASSERT_TRUE(r.ok()) << rawValue(series) << ": " << r.failure->describe();
    const auto header = lines(slurp(target)).front();
    EXPECT_EQ(std::count(header.begin(), header.end(), ',') + 1,
              static_cast<long>(seriesQuery(series).columns.size()));
  }
}

// Writes posted from another thread land between the export's days: every row read is whole,
// once and in order, and the writes all arrive.
TEST_F(ExportTest, WritesGoOnWhileAnExportReadsDayByDay) {
  db.reset();
  db = std::make_unique<QuorelDatabase>(options(false, /*startQueue=*/true), clock);
  for (int i = 0; i < 200; ++i) sample(i * kDay / 20);
  std::thread writer([&] {
    for (int i = 0; i < 300; ++i) {
      PowerSample s;
      s.timestamp = at(i * kDay / 30 + 7);
      db->insertPowerSample(s);
    }
  });
  const auto r = db->exportCSV(ExportSeries::power, at(0), at(10 * kDay), target);
  writer.join();
  ASSERT_TRUE(r.ok());
  auto out = lines(slurp(target));
  out.erase(out.begin());
  EXPECT_GE(out.size(), 200u);
  EXPECT_TRUE(std::is_sorted(out.begin(), out.end()));
  EXPECT_EQ(std::adjacent_find(out.begin(), out.end()), out.end());
  db->queue().sync([] {});
  EXPECT_EQ(count("power_samples"), 500);
}

TEST_F(ExportTest, AFailedExportLeavesTheTargetAsItWasAndNothingBeside) {
  std::ofstream(target) << "old\n";
  sql().exec("DROP TABLE capacity_log");
  db = std::make_unique<QuorelDatabase>(options(/*readOnly=*/true), clock);
  auto r = db->exportCSV(ExportSeries::battery, at(0), at(3 * kDay), target);
  ASSERT_FALSE(r.ok());
  EXPECT_EQ(r.failure->stage, ExportFailure::Stage::history);
  EXPECT_EQ(r.failure->describe(), "exportCSV capacity_log prepare: no such table: capacity_log");

  // A target inside a plain file, and one that is a folder.
  r = db->exportCSV(ExportSeries::power, at(0), at(kDay), target / "x.csv");
  ASSERT_FALSE(r.ok());
  EXPECT_EQ(r.failure->describe(), "exportCSV create temp: Not a directory");
  fs::create_directory(target.parent_path() / "folder");
  std::ofstream(target.parent_path() / "folder" / "kept") << "kept";
  r = db->exportCSV(ExportSeries::power, at(0), at(kDay), target.parent_path() / "folder");
  ASSERT_FALSE(r.ok());
  EXPECT_EQ(r.failure->stage, ExportFailure::Stage::target);
  EXPECT_EQ(r.failure->context, "exportCSV move");

  EXPECT_EQ(slurp(target), "old\n");
  EXPECT_EQ(listing(target.parent_path()), (std::vector<std::string>{"folder", "power.csv"}));
  EXPECT_EQ(listing(target.parent_path() / "folder"), std::vector<std::string>{"kept"});
}

TEST_F(ExportTest, JsonKeepsTypesAndStopsEachSeriesAtTheCap) {
  for (const double t : {0.0, 60.0, 120.0}) sample(t, {{"wattage", 1.5}});
  sql().insert("sessions", {{"id", "S1"},
                            {"start_time", kT0 + 10},
                            {"is_charging", std::int64_t{0}},
                            {"mode", "say \"hi\"\\"}});
  LogCapture logs;
  const auto out = db->exportJSONDocument(
      {ExportSeries::power, ExportSeries::sessions, ExportSeries::power}, at(0), at(kDay), 2);
  EXPECT_FALSE(out.failure);
  EXPECT_EQ(out.rows, 3);
  EXPECT_EQ(out.truncated, std::vector<ExportSeries>{ExportSeries::power});
  EXPECT_TRUE(
      logs.contains("exportJSON power_samples: truncated at 2 rows (F-db-003 memory cap; "
                    "use CSV export for the full dataset)"));
  EXPECT_EQ(out.document.rfind("{\"exported_at\":\"2027-01-15T08:00:00.000Z\",\"from\":", 0), 0u);

  const auto doc = JSONValue::parse(out.document);
  ASSERT_TRUE(doc) << out.document;
  const auto& series = *doc->find("series")->objectValue();
  EXPECT_EQ(series.size(), 2u);
  const auto& power = *series.at("power").arrayValue();
  ASSERT_EQ(power.size(), 2u);
  EXPECT_EQ(*power[1].find("timestamp")->stringValue(), "2027-01-15T08:01:00.000Z");
  EXPECT_EQ(power[1].find("wattage")->numberValue(), 1.5);
  EXPECT_TRUE(power[1].find("is_charging")->isNull());
  EXPECT_TRUE(power[1].find("apple_wall_energy_estimate_raw_w")->isNull());
  const auto& session = series.at("sessions").arrayValue()->front();
  EXPECT_EQ(*session.find("mode")->stringValue(), "say \"hi\"\\");
  EXPECT_EQ(*session.find("is_charging"), JSONValue(false));
  EXPECT_TRUE(session.find("end_time")->isNull());

  // Infinity has no JSON form, so the document cannot be written at all.
  sample(30, {{"wattage", std::numeric_limits<double>::infinity()}});
  EXPECT_EQ(db->exportJSON({ExportSeries::power}, at(0), at(kDay)), "{}");
}

// Streamed to a file day by day, the document is the one made in memory, and taking back a
// failed series or an unwritable value reaches past what was already written.
TEST_F(ExportTest, JsonStreamedToAFileTakesBackWhatItAlreadyWrote) {
  for (int day = 0; day < 3; ++day) {
    for (const double t : {100.0, 200.0}) sample(day * kDay + t, {{"wattage", day + t / 1000}});
  }
  const auto streamed = [&](const std::vector<ExportSeries>& series) {
    ExportFile output(target, "exportJSON");
    EXPECT_FALSE(output.create());
    const auto out = db->writeJSON(series, at(0), at(3 * kDay), output.descriptor());
    EXPECT_TRUE(out.document.empty());
    EXPECT_FALSE(output.commit());
    return std::make_pair(out, slurp(target));
  };
  const auto [whole, wholeText] = streamed({ExportSeries::power, ExportSeries::sessions});
  EXPECT_EQ(whole.rows, 6);
  EXPECT_EQ(wholeText, db->exportJSONDocument({ExportSeries::power, ExportSeries::sessions}, at(0),
                                              at(3 * kDay))
                           .document);

  // A series that cannot be read stands empty, and the one after it is still whole.
  sql().exec("DROP TABLE capacity_log");
  db = std::make_unique<QuorelDatabase>(options(/*readOnly=*/true), clock);
  const auto [partial, partialText] = streamed({ExportSeries::battery, ExportSeries::power});
  ASSERT_TRUE(partial.failure);
  const auto doc = JSONValue::parse(partialText);
  ASSERT_TRUE(doc) << partialText;
  EXPECT_TRUE(doc->find("series")->find("battery")->arrayValue()->empty());
  EXPECT_EQ(doc->find("series")->find("power")->arrayValue()->size(), 6u);

  // Infinity on the last day: the days already in the file are taken back too.
  db = std::make_unique<QuorelDatabase>(options(/*readOnly=*/false), clock);
  sample(2 * kDay + 400, {{"wattage", std::numeric_limits<double>::infinity()}});
  EXPECT_EQ(streamed({ExportSeries::power}).second, "{}");
}

}  // namespace
}  // namespace quorel::store_test
