// The powercap energy counters and the component figures made of them, on scratch trees laid
// out as real machines show them, with the kernel's two clocks and its refusals scripted.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "platform/linux/helper_energy_counters.hpp"
#include "platform/linux/linux_powercap_component_sampler.hpp"
#include "platform/linux/powercap_energy_counters.hpp"
#include "platform/linux/sysfs_attributes.hpp"
#include "sysfs_tree.hpp"

namespace quorel {
namespace {

using testing::LogCapture;
using testing::SysfsTree;

constexpr std::uint64_t kRange = 262'143'328'850;  // a typical package's wrap range
constexpr std::string_view kRootOnly =
    "energy counters are readable by root only — component power unavailable until the helper "
    "is installed";

// The kernel's monotonic and boot-time clocks, moved by the test.
struct ScriptedClocks {
  KernelClockReading now{Seconds{1000}, Seconds{1000}};
  void run(double seconds) {
    now.monotonic += Seconds{seconds};
    now.boottime += Seconds{seconds};
  }
  void suspend(double seconds) { now.boottime += Seconds{seconds}; }
  KernelClockSource source() {
    return [this] { return now; };
  }
};

// A powercap class directory whose counters the test advances by joules.
class PowercapTree {
 public:
  void zone(const std::string& id, const std::string& name, std::uint64_t max = kRange) {
    tree_.write(dir(id) / "name", name + "\n");
    tree_.write(dir(id) / "max_energy_range_uj", std::to_string(max) + "\n");
    set(id, 0);
  }
  void set(const std::string& id, std::uint64_t energy_uJ) {
    energy_[id] = energy_uJ;
    tree_.write(dir(id) / "energy_uj", std::to_string(energy_uJ) + "\n");
  }
  void add(const std::string& id, double joules) {
    set(id, energy_[id] + static_cast<std::uint64_t>(joules * 1e6));
  }
  void remove(const std::string& id) { tree_.remove(dir(id)); }
  // A card beside the powercap class: one hwmon reading and, when given, its dedicated memory.
  void gpu(const std::string& card, const std::string& file, std::uint64_t value,
           std::optional<std::int64_t> memory_bytes = std::nullopt) {
    const auto device = std::filesystem::path("class/drm") / card / "device";
    tree_.remove(device / "hwmon/hwmon4" / file);  // it may have been made unreadable
    tree_.write(device / "hwmon/hwmon4" / file, std::to_string(value) + "\n");
    if (memory_bytes) {
      tree_.write(device / "mem_info_vram_total", std::to_string(*memory_bytes) + "\n");
    }
  }
  void gpuRuntimeStatus(const std::string& card, const std::string& status) {
    tree_.write(std::filesystem::path("class/drm") / card / "device/power/runtime_status",
                status + "\n");
  }
  void unreadableGpu(const std::string& card, const std::string& file) {
    tree_.makeUnreadable(std::filesystem::path("class/drm") / card / "device/hwmon/hwmon4" / file);
  }
  std::filesystem::path root() const { return sysfs::powercapClassPath(tree_.root()); }

  // Reads through the real reader, except that energy_uj is refused while `denied` is set, as
  // the kernel refuses it to anyone but root.
  AttributeReader reader() {
    return [this](const std::filesystem::path& path, int* error) -> std::optional<std::string> {
      if (denied && path.filename() == "energy_uj") {
        if (error != nullptr) *error = EACCES;
        return std::nullopt;
      }
      return sysfs::readFile(path, error);
    };
  }

  bool denied = false;
  const std::map<std::string, std::uint64_t>& energy() const { return energy_; }

 private:
  static std::filesystem::path dir(const std::string& id) {
    return std::filesystem::path("class/powercap") / id;
  }
  SysfsTree tree_;
  std::map<std::string, std::uint64_t> energy_;
};

using Zones = std::initializer_list<std::pair<const char*, const char*>>;
using Joules = std::initializer_list<std::pair<const char*, double>>;

// A laptop: one package with all three subzones, the platform zone beside it, and the
// memory-mapped duplicate of the package that some kernels also expose.
constexpr Zones kLaptop{{"intel-rapl:0", "package-0"}, {"intel-rapl:0:0", "core"},
                        {"intel-rapl:0:1", "uncore"},  {"intel-rapl:0:2", "dram"},
                        {"intel-rapl:1", "psys"},      {"intel-rapl-mmio:0", "package-0"}};
constexpr Zones kPackageAndCore{{"intel-rapl:0", "package-0"}, {"intel-rapl:0:0", "core"}};

void expectPower(const std::optional<ComponentPower>& actual, const ComponentPower& expected) {
  ASSERT_TRUE(actual);
  EXPECT_NEAR(actual->ecpuWatts, expected.ecpuWatts, 1e-9);
  EXPECT_NEAR(actual->pcpuWatts, expected.pcpuWatts, 1e-9);
  EXPECT_NEAR(actual->gpuWatts, expected.gpuWatts, 1e-9);
  EXPECT_NEAR(actual->aneWatts, expected.aneWatts, 1e-9);
  EXPECT_NEAR(actual->dramWatts, expected.dramWatts, 1e-9);
  EXPECT_EQ(actual->cpuAndMemoryAvailable, expected.cpuAndMemoryAvailable);
}

struct SamplerFixture : ::testing::Test {
  PowercapTree tree;
  ScriptedClocks clocks;
  std::unique_ptr<LinuxPowercapComponentSampler> sampler;

  // Lays out the zones, builds the sampler and takes its baseline.
  void build(Zones zones) {
    for (const auto& [id, name] : zones) tree.zone(id, name);
    sampler = std::make_unique<LinuxPowercapComponentSampler>(tree.root(), tree.reader(),
                                                              clocks.source());
    EXPECT_EQ(sampler->sample(), std::nullopt) << "the first call only takes the baseline";
  }
  std::optional<ComponentPower> step(double seconds, Joules used) {
    clocks.run(seconds);
    for (const auto& [id, joules] : used) tree.add(id, joules);
    return sampler->sample();
  }
};

TEST_F(SamplerFixture, LaptopZonesMapToCoresGraphicsAndMemoryOnceEach) {
  build(kLaptop);
  ASSERT_TRUE(sampler->isAvailable());
  // A 12 W package; psys is the whole machine (rails, not components); mmio repeats the package.
  expectPower(step(5, {{"intel-rapl:0", 60},
                       {"intel-rapl:0:0", 40},
                       {"intel-rapl:0:1", 10},
                       {"intel-rapl:0:2", 5},
                       {"intel-rapl:1", 150},
                       {"intel-rapl-mmio:0", 60}}),
              {0, 8, 2, 0, 1, true});
}

TEST_F(SamplerFixture, PackagesAddUpAndAPackageWithoutCoreZoneGivesItsRemainder) {
  // A two-socket server whose second package has no core zone, under another vendor's naming.
  build({{"intel-rapl:0", "package-0"},
         {"intel-rapl:0:0", "core"},
         {"intel-rapl:0:1", "dram"},
         {"amd-rapl:1", "package-1"},
         {"amd-rapl:1:0", "uncore"},
         {"amd-rapl:1:1", "dram"}});
  expectPower(step(10, {{"intel-rapl:0", 500},
                        {"intel-rapl:0:0", 300},
                        {"intel-rapl:0:1", 40},
                        {"amd-rapl:1", 400},
                        {"amd-rapl:1:0", 50},
                        {"amd-rapl:1:1", 60}}),
              {0, 30.0 + (40.0 - 5.0 - 6.0), 5, 0, 4.0 + 6.0, true});
  // A package reading less than its parts (counters updated at different moments) is no
  // negative core figure.
  expectPower(step(10, {{"intel-rapl:0:0", 100},
                        {"amd-rapl:1", 50},
                        {"amd-rapl:1:0", 40},
                        {"amd-rapl:1:1", 30}}),
              {0, 10, 4, 0, 3, true});
}

TEST_F(SamplerFixture, ACounterWrappingThroughItsRangeStillGivesThePower) {
  tree.zone("intel-rapl:0", "package-0", 1'000'000'000);
  tree.zone("intel-rapl:0:0", "core", 1'000'000'000);
  tree.set("intel-rapl:0:0", 990'000'000);
  build({});
  clocks.run(5);
  tree.set("intel-rapl:0:0", 15'000'000);  // 10 J to the top, 15 J past zero
  expectPower(sampler->sample(), {0, 5, 0, 0, 0, true});
}

TEST_F(SamplerFixture, AGlitchingZoneContributesNothingAndTheOthersStand) {
  build(kLaptop);
  // 101 W from the cores is a glitch; exactly 100 W from graphics is kept; memory still moved.
  expectPower(step(2, {{"intel-rapl:0:0", 202}, {"intel-rapl:0:1", 200}, {"intel-rapl:0:2", 3}}),
              {0, 0, 100, 0, 1.5, true});
}

TEST_F(SamplerFixture, CoresAndMemoryReadingNothingIsAStallNotIdle) {
  build(kLaptop);
  expectPower(step(5, {{"intel-rapl:0:1", 5}}), {0, 0, 1, 0, 0, false});
  expectPower(step(5, {{"intel-rapl:0:0", 5}}), {0, 1, 0, 0, 0, true});
}

TEST_F(SamplerFixture, AnUnknownZoneIsLoggedOnceAndKeptOutOfTheFigures) {
  LogCapture logs;
  build({{"intel-rapl:0", "package-0"},
         {"intel-rapl:0:0", "core"},
         {"intel-rapl:0:1", "gt-slice"},
         {"intel-rapl:0:2", "gt-slice"}});
  for (int i = 0; i < 3; ++i) {
    expectPower(step(5, {{"intel-rapl:0:0", 10}, {"intel-rapl:0:1", 25}, {"intel-rapl:0:2", 25}}),
                {0, 2, 0, 0, 0, true});
  }
  EXPECT_EQ(logs.count("unmapped powercap zone 'gt-slice' (5.00 W) — contribution dropped from "
                       "breakdown"),
            1u);
}

TEST_F(SamplerFixture, CountersReadableByRootOnlyLeaveTheSamplerUnavailable) {
  for (const auto& [id, name] : kLaptop) tree.zone(id, name);
  tree.denied = true;
  LogCapture logs;
  LinuxPowercapComponentSampler refused(tree.root(), tree.reader(), clocks.source());
  EXPECT_FALSE(refused.isAvailable());
  EXPECT_EQ(refused.sample(), std::nullopt);
  EXPECT_EQ(logs.count(std::string(kRootOnly)), 1u);

  // Losing the right mid-run (a helper that handed the counters over stops, say) ends the
  // figures the same way, and the sentence is not repeated.
  tree.denied = false;
  build({});
  ASSERT_TRUE(sampler->isAvailable());
  tree.denied = true;
  EXPECT_EQ(step(5, {}), std::nullopt);
  EXPECT_EQ(step(5, {}), std::nullopt);
  EXPECT_FALSE(sampler->isAvailable());
  EXPECT_EQ(logs.count(std::string(kRootOnly)), 2u) << "once for each of the two samplers";
}

// Counters the kernel keeps from this user come from the helper: one call a pass, and a helper
// that cannot serve this user reads as the counters being root's.
TEST_F(SamplerFixture, RootOnlyCountersAreReadThroughTheHelperOncePerPass) {
  for (const auto& [id, name] : kLaptop) tree.zone(id, name);
  tree.denied = true;
  int fetches = 0;
  int failWith = 0;
  const EnergyCounterFetch fetch =
      [&](int* error) -> std::optional<std::map<std::string, std::uint64_t>> {
    ++fetches;
    if (failWith != 0) {
      *error = failWith;
      return std::nullopt;
    }
    return tree.energy();
  };
  sampler = std::make_unique<LinuxPowercapComponentSampler>(
      tree.root(), withHelperEnergyCounters(tree.reader(), fetch), clocks.source());
  ASSERT_TRUE(sampler->isAvailable());
  EXPECT_EQ(sampler->sample(), std::nullopt);
  const int beforePass = fetches;
  expectPower(step(5, {{"intel-rapl:0", 60},
                       {"intel-rapl:0:0", 40},
                       {"intel-rapl:0:1", 10},
                       {"intel-rapl:0:2", 5}}),
              {0, 8, 2, 0, 1, true});
  EXPECT_EQ(fetches - beforePass, 1) << "four zones, one helper call";

  LogCapture logs;
  failWith = EACCES;
  EXPECT_EQ(step(5, {}), std::nullopt);
  EXPECT_FALSE(sampler->isAvailable());
  EXPECT_EQ(logs.count(std::string(kRootOnly)), 1u);

  // A helper that is there but slow is a failed reading, not a lost right.
  failWith = EIO;
  sampler = std::make_unique<LinuxPowercapComponentSampler>(
      tree.root(), withHelperEnergyCounters(tree.reader(), fetch), clocks.source());
  EXPECT_TRUE(sampler->isAvailable());
}

TEST_F(SamplerFixture, APairSpanningASleepYieldsNothingAndTheNextStartsAfterIt) {
  LogCapture logs;
  build(kLaptop);
  clocks.run(3);
  clocks.suspend(600);
  EXPECT_EQ(step(2, {{"intel-rapl:0:0", 500}}), std::nullopt);
  EXPECT_TRUE(
      logs.contains("sample: skipping sleep-boundary sample (slept 600.0s between readings)"));
  // An idle cadence's worth: long, but awake throughout; only the energy after the sleep counts.
  expectPower(step(30, {{"intel-rapl:0:0", 60}}), {0, 2, 0, 0, 0, true});
}

TEST_F(SamplerFixture, ACallTooSoonKeepsTheBaselineForTheNextPair) {
  build(kPackageAndCore);
  EXPECT_EQ(step(0.01, {{"intel-rapl:0:0", 0.1}}), std::nullopt);
  expectPower(step(4.99, {{"intel-rapl:0:0", 19.9}}), {0, 4, 0, 0, 0, true});
}

TEST_F(SamplerFixture, RepeatedReadFailuresRediscoverTheZones) {
  LogCapture logs;
  build({{"intel-rapl:0", "package-0"}, {"intel-rapl:0:0", "core"}, {"intel-rapl:0:1", "dram"}});
  tree.remove("intel-rapl:0:1");  // the driver dropped the memory zone
  for (int i = 0; i < 3; ++i) EXPECT_EQ(step(5, {}), std::nullopt);
  EXPECT_EQ(logs.count("sample: energy_uj of intel-rapl:0:1 unreadable (No such file or "
                       "directory) (consecutive failures: 2)"),
            1u);
  EXPECT_TRUE(logs.contains("sample: 3 consecutive failures — rediscovering energy zones"));
  ASSERT_TRUE(sampler->isAvailable());
  sampler->sample();
  expectPower(step(5, {{"intel-rapl:0:0", 25}}), {0, 5, 0, 0, 0, true});
}

constexpr std::int64_t kGiB = std::int64_t{1} << 30;

TEST_F(SamplerFixture, DiscreteGpusGiveTheGraphicsFigureInsteadOfTheUncoreAndAddUp) {
  // A counter and an average, on two cards; a connector and a render node are no cards.
  tree.gpu("card0", "energy1_input", 1'000'000'000, 8 * kGiB);
  tree.gpu("card1", "power1_average", 6'000'000);
  tree.gpu("card1", "power1_input", 90'000'000);  // the average is preferred to it
  tree.gpu("card0-DP-1", "power1_input", 50'000'000);
  tree.gpu("renderD128", "power1_input", 50'000'000);
  build(kLaptop);
  tree.gpu("card0", "energy1_input", 1'075'000'000);  // 75 J over the 5 s
  expectPower(step(5, {{"intel-rapl:0:0", 40}, {"intel-rapl:0:1", 10}, {"intel-rapl:0:2", 5}}),
              {0, 8, 15 + 6, 0, 1, true});

  // A card that refuses its reading adds nothing; its counter starts afresh once it answers.
  tree.unreadableGpu("card0", "energy1_input");
  expectPower(step(5, {{"intel-rapl:0:0", 5}}), {0, 1, 6, 0, 0, true});
  tree.gpu("card0", "energy1_input", 2'000'000'000);
  expectPower(step(5, {{"intel-rapl:0:0", 5}}), {0, 1, 6, 0, 0, true});
  tree.gpu("card0", "energy1_input", 2'010'000'000);
  expectPower(step(5, {{"intel-rapl:0:0", 5}}), {0, 1, 2 + 6, 0, 0, true});

  // Put to sleep by the kernel, a card is left unread and draws nothing, whatever it last said.
  tree.gpuRuntimeStatus("card1", "suspended");
  tree.gpu("card0", "energy1_input", 2'020'000'000);
  expectPower(step(5, {{"intel-rapl:0:0", 5}}), {0, 1, 2, 0, 0, true});
  tree.gpuRuntimeStatus("card1", "active");
  expectPower(step(5, {{"intel-rapl:0:0", 5}}), {0, 1, 6, 0, 0, true});
}

TEST_F(SamplerFixture, AnIntegratedGpusReadingIsNeverAddedToTheProcessorsFigures) {
  // Dedicated memory up to 2 GiB is a carve-out: the reading covers the whole package.
  const struct {
    std::optional<std::int64_t> memory_bytes;
    double gpuWatts;
  } cases[] = {{kGiB / 2, 2}, {2 * kGiB, 2}, {2 * kGiB + 1, 20}, {std::nullopt, 20}};
  for (const auto& c : cases) {
    PowercapTree machine;
    for (const auto& [id, name] : kLaptop) machine.zone(id, name);
    machine.gpu("card0", "power1_average", 20'000'000, c.memory_bytes);
    LinuxPowercapComponentSampler apu(machine.root(), machine.reader(), clocks.source());
    apu.sample();
    clocks.run(5);
    machine.add("intel-rapl:0:0", 40);
    machine.add("intel-rapl:0:1", 10);
    expectPower(apu.sample(), {0, 8, c.gpuWatts, 0, 0, true});
  }
}

TEST_F(SamplerFixture, GpuReadingsKeepTheGlitchBoundAndTheSleepRule) {
  tree.gpu("card0", "energy1_input", 0, 16 * kGiB);
  tree.gpu("card1", "power1_input", 100'000'001);  // just beyond the bound
  build(kLaptop);
  tree.gpu("card0", "energy1_input", 500'000'000);  // exactly 100 W over 5 s: kept
  expectPower(step(5, {{"intel-rapl:0:0", 5}}), {0, 1, 100, 0, 0, true});

  // The energy used across a sleep is no one's: the first pair after it starts at the wake.
  clocks.suspend(600);
  tree.gpu("card0", "energy1_input", 900'000'000);
  tree.gpu("card1", "power1_input", 4'000'000);
  EXPECT_EQ(step(5, {{"intel-rapl:0:0", 5}}), std::nullopt);
  tree.gpu("card0", "energy1_input", 920'000'000);
  expectPower(step(5, {{"intel-rapl:0:0", 5}}), {0, 1, 4 + 4, 0, 0, true});
}

}  // namespace
}  // namespace quorel
