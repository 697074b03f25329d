// `quorel export` against files built with plain SQL: refusals that create nothing, standard
// output, default file names, and targets that cannot be written.

#include "programs/quorel/export_command.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "store/quorel_database.hpp"
#include "store/sqlite_test_support.hpp"

namespace quorel {
namespace {

namespace fs = std::filesystem;
using testing::SqlFile;

constexpr double kT0 = 1'800'000'000;  // 2027-01-15T08:00:00Z
constexpr double kDay = 86400;

std::string slurp(const fs::path& p) {
  std::ostringstream text;
  text << std::ifstream(p).rdbuf();
  return text.str();
}

class ExportCommandTest : public ::testing::Test {
 protected:
  ExportCommandTest() {
    QuorelDatabase made({.dataDirectory = {}, .databasePathOverride = file(), .onCorruption = {}},
                        clock);
    SqlFile sql(file());
    for (int day = 0; day < 10; ++day) {
      sql.insert("power_samples", {{"timestamp", kT0 + day * kDay}, {"wattage", 1.0 * day}});
    }
    sql.insert("sessions", {{"id", "S1"}, {"start_time", kT0}, {"mode", "charging"}});
    fs::create_directory(out());
    streams.output = ::open((scratch.path() / "stdout").c_str(), O_WRONLY | O_CREAT, 0600);
    streams.workingDirectory = out();
    streams.progress = [this](std::string_view line) { progress += line; };
  }
  ~ExportCommandTest() override { ::close(streams.output); }

  fs::path file() const { return scratch.path() / "quorel.db"; }
  fs::path out() const { return scratch.path() / "out"; }
  std::vector<std::string> written() const {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(out())) names.push_back(e.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }
  ExportCommandResult run(std::vector<std::string> series, std::string to = "2027-01-24T08:00:00Z",
                          std::optional<std::string> output = {}, std::string format = "csv") {
    return runExportCommand({.series = std::move(series),
                             .from = "2027-01-15T08:00:00Z",
                             .to = std::move(to),
                             .format = std::move(format),
                             .output = std::move(output)},
                            file(), clock, streams);
  }

  testing::ScratchDirectory scratch{"quorel-export"};
  ManualClock clock{fromUnixSeconds(kT0 + 3600)};
  ExportCommandStreams streams;
  std::string progress;
};

TEST_F(ExportCommandTest, RefusalsSaySoInOneSentenceAndCreateNothing) {
  const std::pair<ExportCommandResult, std::string> refused[] = {
      {run({"power", "batteries"}),
       "\"batteries\" is not a series — use power, battery, sessions, processEnergy, aiEnergy, "
       "dailyMetrics, collection or batteryEpochs."},
      {run({"power"}, "tomorrow"),
       "--to \"tomorrow\" is not an ISO-8601 date-time — write it like 2026-11-22T10:15:30Z or "
       "2026-11-22T11:15:30.250+01:00."},
      {run({"power"}, "2027-01-14T00:00:00Z"),
       "--from 2027-01-15T08:00:00Z is after --to 2027-01-14T00:00:00Z — give the earlier time "
       "first."},
      {run({"power", "sessions"}, "2027-01-16T00:00:00Z", (out() / "both.csv").string()),
       "a CSV file holds one series — give --output a folder for the 2 files, or ask for "
       "--format json."},
      {run({"power"}, "2027-01-16T00:00:00Z", {}, "xml"),
       "--format \"xml\" is not a format — use csv or json."},
  };
  for (const auto& [result, sentence] : refused) {
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_EQ(result.error, sentence);
  }
  EXPECT_TRUE(written().empty());
  EXPECT_EQ(slurp(scratch.path() / "stdout"), "");
}

TEST_F(ExportCommandTest, OneCsvSeriesStreamsToStandardOutputWithProgress) {
  const auto r = run({"power"});
  EXPECT_EQ(r.exitStatus, 0) << r.error;
  const std::string csv = slurp(scratch.path() / "stdout");
  EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 11);
  EXPECT_NE(csv.find("\n2027-01-24T08:00:00.000Z,9,"), std::string::npos) << "the end included";
  EXPECT_NE(progress.find("\rexporting Power samples: day 3 of 9, 3 rows"), std::string::npos);
  EXPECT_TRUE(progress.ends_with("\rexporting Power samples: day 9 of 9, 10 rows\n")) << progress;
  EXPECT_TRUE(written().empty());
}

TEST_F(ExportCommandTest, AFolderGetsFilesUnderTheirDefaultNames) {
  auto r = run({"sessions", "power"}, "2027-01-16T08:00:00Z");
  EXPECT_EQ(r.exitStatus, 0) << r.error;
  r = run({"sessions", "power"}, "2027-01-15T09:00:00Z", out().string(), "json");
  EXPECT_EQ(r.exitStatus, 0) << r.error;
  r = run({"collection"}, "2027-01-15T09:00:00Z", out().string());
  EXPECT_EQ(r.exitStatus, 0) << r.error;
  EXPECT_EQ(written(), (std::vector<std::string>{
                           "quorel-collection-quality-2027-01-15.csv",
                           "quorel-history-2027-01-15.json",
                           "quorel-power-2027-01-15-to-2027-01-16.csv",
                           "quorel-sessions-2027-01-15-to-2027-01-16.csv",
                       }));
  EXPECT_EQ(slurp(out() / "quorel-power-2027-01-15-to-2027-01-16.csv").substr(0, 18),
            "timestamp,wattage,");
  EXPECT_NE(r.notice.find("Collection quality: 0 rows written to "), std::string::npos);
  EXPECT_NE(slurp(out() / "quorel-history-2027-01-15.json").find("\"sessions\":[{\"id\":\"S1\""),
            std::string::npos);
}

TEST_F(ExportCommandTest, AFailedExportLeavesTheTargetWholeAndNothingBeside) {
  const fs::path target = out() / "power.json";
  std::ofstream(target) << "old";
  SqlFile(file()).exec("DROP TABLE power_samples");
  auto r = run({"power"}, "2027-01-16T00:00:00Z", target.string(), "json");
  EXPECT_EQ(r.exitStatus, 1);
  EXPECT_EQ(r.error, "the history could not be exported: no such table: power_samples (" +
                         file().string() + ")");
  r = run({"sessions"}, "2027-01-16T00:00:00Z", (target / "x.csv").string());
  EXPECT_EQ(r.exitStatus, 2);
  EXPECT_EQ(r.error, "cannot write " + (target / "x.csv").string() +
                         " (Not a directory) — name a file in a folder you can write to.");
  EXPECT_EQ(slurp(target), "old");
  EXPECT_EQ(written(), std::vector<std::string>{"power.json"});
}

}  // namespace
}  // namespace quorel
