// The powercap energy counters and the component figures made of them, on scratch trees laid
// out as real machines show them, with the kernel's two clocks and its refusals scripted.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <map>
#include <string>

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

 private:
  static std::filesystem::path dir(const std::string& id) {
    return std::filesystem::path("class/powercap") / id;
  }
  SysfsTree tree_;
  std::map<std::string, std::uint64_t> energy_;
};

// A laptop: one package with all three subzones, the platform zone beside it, and the
// memory-mapped duplicate of the package that some kernels also expose.
void writeLaptop(PowercapTree& tree) {
  tree.zone("intel-rapl:0", "package-0");
  tree.zone("intel-rapl:0:0", "core");
  tree.zone("intel-rapl:0:1", "uncore");
  tree.zone("intel-rapl:0:2", "dram");
  tree.zone("intel-rapl:1", "psys");
  tree.zone("intel-rapl-mmio:0", "package-0");
}

struct SamplerFixture : ::testing::Test {
  PowercapTree tree;
  ScriptedClocks clocks;
  std::unique_ptr<LinuxPowercapComponentSampler> sampler;

  void build() {
    sampler = std::make_unique<LinuxPowercapComponentSampler>(tree.root(), tree.reader(),
                                                              clocks.source());
  }
};

TEST(PowercapZoneNamesTest, ZonesAreTheRaplDirectoriesOfAnyVendorAndNothingElse) {
  EXPECT_EQ(powercapZoneGroup("intel-rapl:0"), "intel-rapl:0");
  EXPECT_EQ(powercapZoneGroup("intel-rapl:1:2"), "intel-rapl:1");
  EXPECT_EQ(powercapZoneGroup("amd-rapl:12:0"), "amd-rapl:12");
  for (const char* notAZone : {"intel-rapl", "intel-rapl-mmio:0", "intel-rapl:", "intel-rapl:0:",
                               "intel-rapl:x", "dtpm", "-rapl:0", "intel-rapl:0:1a"}) {
    EXPECT_EQ(powercapZoneGroup(notAZone), std::nullopt) << notAZone;
  }
  EXPECT_EQ(powercapZoneKind("package-12"), PowercapZoneKind::package);
  EXPECT_EQ(powercapZoneKind("package-"), PowercapZoneKind::unknown);
  EXPECT_EQ(powercapZoneKind("package-0x"), PowercapZoneKind::unknown);
  EXPECT_EQ(powercapZoneKind("Core"), PowercapZoneKind::unknown);
}

TEST(PowercapZoneNamesTest, CountersWrapThroughTheirRangeOnce) {
  EXPECT_EQ(energyDelta_uJ(100, 350, 1000), 250u);
  EXPECT_EQ(energyDelta_uJ(900, 50, 1000), 150u) << "100 to the top, then 50 past zero";
  EXPECT_EQ(energyDelta_uJ(900, 50, std::nullopt), std::nullopt);
  EXPECT_EQ(energyDelta_uJ(900, 50, 800), std::nullopt) << "a range below the old value is wrong";
  EXPECT_EQ(energyDelta_uJ(7, 7, std::nullopt), 0u);
}

TEST_F(SamplerFixture, LaptopZonesMapToCoresGraphicsAndMemoryOnceEach) {
  writeLaptop(tree);
  LogCapture logs;
  build();
  ASSERT_TRUE(sampler->isAvailable());
  EXPECT_EQ(sampler->sample(), std::nullopt) << "the first call only takes the baseline";

  clocks.run(5);
  tree.add("intel-rapl:0", 60);  // 12 W package
  tree.add("intel-rapl:0:0", 40);
  tree.add("intel-rapl:0:1", 10);
  tree.add("intel-rapl:0:2", 5);
  tree.add("intel-rapl:1", 150);      // the whole machine: rails, not components
  tree.add("intel-rapl-mmio:0", 60);  // the same package again
  auto power = sampler->sample();
  ASSERT_TRUE(power);
  EXPECT_DOUBLE_EQ(power->pcpuWatts, 8.0);
  EXPECT_DOUBLE_EQ(power->gpuWatts, 2.0);
  EXPECT_DOUBLE_EQ(power->dramWatts, 1.0);
  EXPECT_EQ(power->ecpuWatts, 0);
  EXPECT_EQ(power->aneWatts, 0);
  EXPECT_TRUE(power->cpuAndMemoryAvailable);
  for (const auto& line : logs.messages("Powercap")) {
    EXPECT_EQ(line.find("unmapped"), std::string::npos) << line;
  }
}

TEST_F(SamplerFixture, PackagesAddUpAndAPackageWithoutCoreZoneGivesItsRemainder) {
  // A two-socket server whose second package has no core zone, under another vendor's naming.
  tree.zone("intel-rapl:0", "package-0");
  tree.zone("intel-rapl:0:0", "core");
  tree.zone("intel-rapl:0:1", "dram");
  tree.zone("amd-rapl:1", "package-1");
  tree.zone("amd-rapl:1:0", "uncore");
  tree.zone("amd-rapl:1:1", "dram");
  build();
  sampler->sample();
  clocks.run(10);
  tree.add("intel-rapl:0", 500);
  tree.add("intel-rapl:0:0", 300);
  tree.add("intel-rapl:0:1", 40);
  tree.add("amd-rapl:1", 400);
  tree.add("amd-rapl:1:0", 50);
  tree.add("amd-rapl:1:1", 60);
  auto power = sampler->sample();
  ASSERT_TRUE(power);
  EXPECT_DOUBLE_EQ(power->pcpuWatts, 30.0 + (40.0 - 5.0 - 6.0));
  EXPECT_DOUBLE_EQ(power->gpuWatts, 5.0);
  EXPECT_DOUBLE_EQ(power->dramWatts, 4.0 + 6.0);

  // A package reading less than its parts (counters updated at different moments) is no
  // negative core figure.
  clocks.run(10);
  tree.add("intel-rapl:0:0", 100);
  tree.add("amd-rapl:1", 50);
  tree.add("amd-rapl:1:0", 40);
  tree.add("amd-rapl:1:1", 30);
  power = sampler->sample();
  ASSERT_TRUE(power);
  EXPECT_DOUBLE_EQ(power->pcpuWatts, 10.0);
}

TEST_F(SamplerFixture, ATreeWithPackageAndCoreOnlyHasNoGraphicsOrMemory) {
  tree.zone("intel-rapl:0", "package-0");
  tree.zone("intel-rapl:0:0", "core");
  build();
  sampler->sample();
  clocks.run(4);
  tree.add("intel-rapl:0", 80);
  tree.add("intel-rapl:0:0", 60);
  auto power = sampler->sample();
  ASSERT_TRUE(power);
  EXPECT_EQ(*power, (ComponentPower{0, 15, 0, 0, 0, true}));
}

TEST_F(SamplerFixture, ACounterWrappingThroughItsRangeStillGivesThePower) {
  tree.zone("intel-rapl:0", "package-0", 1'000'000'000);
  tree.zone("intel-rapl:0:0", "core", 1'000'000'000);
  tree.set("intel-rapl:0:0", 990'000'000);
  build();
  sampler->sample();
  clocks.run(5);
  tree.set("intel-rapl:0:0", 15'000'000);  // 10 J to the top, 15 J past zero
  auto power = sampler->sample();
  ASSERT_TRUE(power);
  EXPECT_DOUBLE_EQ(power->pcpuWatts, 5.0);
}

TEST_F(SamplerFixture, AGlitchingZoneContributesNothingAndTheOthersStand) {
  writeLaptop(tree);
  build();
  sampler->sample();
  clocks.run(2);
  tree.add("intel-rapl:0:0", 202);  // 101 W from the cores: a glitch
  tree.add("intel-rapl:0:1", 200);  // exactly 100 W: kept
  tree.add("intel-rapl:0:2", 3);
  auto power = sampler->sample();
  ASSERT_TRUE(power);
  EXPECT_EQ(power->pcpuWatts, 0);
  EXPECT_DOUBLE_EQ(power->gpuWatts, 100.0);
  EXPECT_DOUBLE_EQ(power->dramWatts, 1.5);
  EXPECT_TRUE(power->cpuAndMemoryAvailable) << "memory still read something";
}

TEST_F(SamplerFixture, CoresAndMemoryReadingNothingIsAStallNotIdle) {
  writeLaptop(tree);
  build();
  sampler->sample();
  clocks.run(5);
  tree.add("intel-rapl:0:1", 5);
  auto power = sampler->sample();
  ASSERT_TRUE(power);
  EXPECT_FALSE(power->cpuAndMemoryAvailable);
  EXPECT_DOUBLE_EQ(power->gpuWatts, 1.0) << "the graphics figure stands";

  clocks.run(5);
  tree.add("intel-rapl:0:0", 5);
  power = sampler->sample();
  ASSERT_TRUE(power);
  EXPECT_TRUE(power->cpuAndMemoryAvailable) << "cores alone moving is a measurement";
}

TEST_F(SamplerFixture, AnUnknownZoneIsLoggedOnceAndKeptOutOfTheFigures) {
  tree.zone("intel-rapl:0", "package-0");
  tree.zone("intel-rapl:0:0", "core");
  tree.zone("intel-rapl:0:1", "gt-slice");
  tree.zone("intel-rapl:0:2", "gt-slice");
  LogCapture logs;
  build();
  sampler->sample();
  for (int i = 0; i < 3; ++i) {
    clocks.run(5);
    tree.add("intel-rapl:0:0", 10);
    tree.add("intel-rapl:0:1", 25);
    tree.add("intel-rapl:0:2", 25);
    auto power = sampler->sample();
    ASSERT_TRUE(power);
    EXPECT_EQ(*power, (ComponentPower{0, 2, 0, 0, 0, true}));
  }
  EXPECT_EQ(logs.count("unmapped powercap zone 'gt-slice' (5.00 W) — contribution dropped from "
                       "breakdown"),
            1u);
}

TEST_F(SamplerFixture, CountersReadableByRootOnlyLeaveTheSamplerUnavailable) {
  writeLaptop(tree);
  tree.denied = true;
  LogCapture logs;
  build();
  EXPECT_FALSE(sampler->isAvailable());
  EXPECT_EQ(sampler->sample(), std::nullopt);
  EXPECT_EQ(logs.count(std::string(kRootOnly)), 1u);

  // Losing the right mid-run (a helper that handed the counters over stops, say) ends the
  // figures the same way, and the sentence is not repeated.
  tree.denied = false;
  PowercapTree other;
  writeLaptop(other);
  auto later = std::make_unique<LinuxPowercapComponentSampler>(other.root(), other.reader(),
                                                               clocks.source());
  ASSERT_TRUE(later->isAvailable());
  later->sample();
  other.denied = true;
  clocks.run(5);
  EXPECT_EQ(later->sample(), std::nullopt);
  clocks.run(5);
  EXPECT_EQ(later->sample(), std::nullopt);
  EXPECT_FALSE(later->isAvailable());
  EXPECT_EQ(logs.count(std::string(kRootOnly)), 2u) << "once for each of the two samplers";
}

TEST_F(SamplerFixture, APairSpanningASleepYieldsNothingAndTheNextStartsAfterIt) {
  writeLaptop(tree);
  LogCapture logs;
  build();
  sampler->sample();
  clocks.run(3);
  clocks.suspend(600);
  clocks.run(2);
  tree.add("intel-rapl:0:0", 500);  // whatever the counters did across the sleep
  EXPECT_EQ(sampler->sample(), std::nullopt);
  EXPECT_TRUE(
      logs.contains("sample: skipping sleep-boundary sample (slept 600.0s between "
                    "readings)"));

  clocks.run(30);  // an idle cadence's worth: long, but awake throughout
  tree.add("intel-rapl:0:0", 60);
  auto power = sampler->sample();
  ASSERT_TRUE(power);
  EXPECT_DOUBLE_EQ(power->pcpuWatts, 2.0) << "only the energy after the sleep";
  for (const auto& line : logs.messages("Powercap")) {
    EXPECT_EQ(line.find("consecutive failures"), std::string::npos) << line;
  }
}

TEST_F(SamplerFixture, ACallTooSoonKeepsTheBaselineForTheNextPair) {
  tree.zone("intel-rapl:0", "package-0");
  tree.zone("intel-rapl:0:0", "core");
  build();
  sampler->sample();
  clocks.run(0.01);
  tree.add("intel-rapl:0:0", 0.1);
  EXPECT_EQ(sampler->sample(), std::nullopt);
  clocks.run(4.99);
  tree.add("intel-rapl:0:0", 19.9);
  auto power = sampler->sample();
  ASSERT_TRUE(power);
  EXPECT_DOUBLE_EQ(power->pcpuWatts, 4.0);
}

TEST_F(SamplerFixture, RepeatedReadFailuresRediscoverTheZones) {
  tree.zone("intel-rapl:0", "package-0");
  tree.zone("intel-rapl:0:0", "core");
  tree.zone("intel-rapl:0:1", "dram");
  LogCapture logs;
  build();
  sampler->sample();
  tree.remove("intel-rapl:0:1");  // the driver dropped the memory zone
  for (int i = 0; i < 3; ++i) {
    clocks.run(5);
    EXPECT_EQ(sampler->sample(), std::nullopt);
  }
  EXPECT_EQ(logs.count("sample: energy_uj of intel-rapl:0:1 unreadable (No such file or "
                       "directory) (consecutive failures: 2)"),
            1u);
  EXPECT_TRUE(logs.contains("sample: 3 consecutive failures — rediscovering energy zones"));
  ASSERT_TRUE(sampler->isAvailable());

  sampler->sample();
  clocks.run(5);
  tree.add("intel-rapl:0:0", 25);
  auto power = sampler->sample();
  ASSERT_TRUE(power);
  EXPECT_DOUBLE_EQ(power->pcpuWatts, 5.0);
}

TEST(LinuxPowercapComponentSamplerTest, AMachineWithoutPowercapIsUnavailable) {
  SysfsTree tree;
  LinuxPowercapComponentSampler sampler(sysfs::powercapClassPath(tree.root()));
  EXPECT_FALSE(sampler.isAvailable());
  EXPECT_EQ(sampler.sample(), std::nullopt);
}

}  // namespace
}  // namespace quorel
