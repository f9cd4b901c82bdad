#include "sensors.h"

#include "temporary_folder.h"

#include <cstdint>
#include <fstream>
#include <map>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace telemetry {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;
using testing::Pair;

using Values = std::map<std::string, double>;

/// A machine made of files, and a clock that goes on by hand.
class Machine : public testing::Test {
 protected:
  void write(const fs::path& file, const std::string& content) {
    fs::create_directories((root_ / file).parent_path());
    std::ofstream(root_ / file, std::ios::binary) << content;
  }

  void writeTraffic(const std::string& interface, std::uint64_t received) {
    const std::string zeros = " 0 0 0 0 0 0 0 ";
    write("proc/net/dev", interface + ": " + std::to_string(received) + zeros + "0" + zeros);
  }

  void writeTemperature(int zone, const std::string& milli, const std::string& type) {
    const auto folder = "sys/class/thermal/thermal_zone" + std::to_string(zone);
    write(folder + "/temp", milli);
    if (!type.empty()) write(folder + "/type", type);
  }

  Values sampleAfter(std::chrono::milliseconds passed) {
    now_ += passed;
    Values values;
    for (const auto& reading : sensors_.sample(now_)) {
      EXPECT_TRUE(values.emplace(reading.name, reading.value).second) << reading.name << " is there twice";
    }
    return values;
  }

  const kit::TemporaryFolder folder_;
  const fs::path root_ = folder_.path();

 private:
  Sensors sensors_{root_ / "proc", root_ / "sys"};
  Sensors::Clock::time_point now_{1h};
};

TEST_F(Machine, GivesWhatNeedsNoDifferenceAtOnce) {
  write("proc/meminfo", "MemTotal: 4 kB\nMemAvailable: 1 kB\n");
  write("proc/uptime", "120.5 99.0\n");
  write("proc/loadavg", "0.5 0.25 0.125 1/99 1234\n");
  writeTemperature(0, "48250\n", "acpitz\n");
  writeTemperature(1, "51000\n", "acpitz\n");
  writeTemperature(2, "-1000\n", "");
  EXPECT_EQ(sampleAfter(1s), (Values{{"Memory/Total", 4096},
                                     {"Memory/Available", 1024},
                                     {"Memory/Used", 0.75},
                                     {"Uptime", 120.5},
                                     {"LoadAverage/1min", 0.5},
                                     {"LoadAverage/5min", 0.25},
                                     {"LoadAverage/15min", 0.125},
                                     {"Temperature/Zone0/acpitz", 48.25},
                                     {"Temperature/Zone1/acpitz", 51},
                                     {"Temperature/Zone2", -1}}));
}

TEST_F(Machine, GivesLoadFromTheSecondSampleOn) {
  write("proc/stat", "cpu0 100 0 0 100 0 0 0 0\n");
  EXPECT_THAT(sampleAfter(1s), IsEmpty());
  write("proc/stat", "cpu0 110 0 0 130 0 0 0 0\n");
  EXPECT_THAT(sampleAfter(1s), ElementsAre(Pair("Processor/Core0/Load", 0.25)));
  EXPECT_THAT(sampleAfter(1s), IsEmpty()) << "no time passed for the core";
}

TEST_F(Machine, GivesNoLoadForTheSampleInWhichEitherTimeWentBack) {
  for (const auto* back : {"cpu0 99 0 0 200 0 0 0 0\n", "cpu0 200 0 0 99 0 0 0 0\n"}) {
    write("proc/stat", "cpu0 100 0 0 100 0 0 0 0\n");
    sampleAfter(1s);
    write("proc/stat", back);
    EXPECT_THAT(sampleAfter(1s), IsEmpty()) << back;
    write("proc/stat", "cpu0 300 0 0 300 0 0 0 0\n");
    EXPECT_THAT(sampleAfter(1s), ElementsAre(Key("Processor/Core0/Load"))) << back;
  }
}

TEST_F(Machine, GivesTrafficPerSecondFromTheSecondSampleOn) {
  writeTraffic("eth0", 1000);
  write("proc/diskstats", "8 0 sda 0 0 10 0 0 0 20 0 0 0 0\n");
  EXPECT_THAT(sampleAfter(1s), IsEmpty());
  writeTraffic("eth0", 1500);
  write("proc/diskstats", "8 0 sda 0 0 11 0 0 0 24 0 0 0 0\n");
  EXPECT_EQ(sampleAfter(500ms), (Values{{"Network/eth0/Received", 1000},
                                        {"Network/eth0/Sent", 0},
                                        {"Disk/sda/Read", 1024},
                                        {"Disk/sda/Written", 4096}}));
}

TEST_F(Machine, GivesNoTrafficForTheSampleInWhichACounterWentBackOrTimeStoodStill) {
  writeTraffic("eth0", 1000);
  sampleAfter(1s);
  writeTraffic("eth0", 999);
  EXPECT_THAT(sampleAfter(1s), ElementsAre(Key("Network/eth0/Sent")));
  writeTraffic("eth0", 1000);
  EXPECT_THAT(sampleAfter(0s), IsEmpty());
  EXPECT_THAT(sampleAfter(-1s), IsEmpty());
  writeTraffic("eth0", 1001);
  EXPECT_THAT(sampleAfter(1s), Contains(Pair("Network/eth0/Received", 1)));
}

TEST_F(Machine, CountsAnInterfaceAnewThatWasAway) {
  writeTraffic("eth0", 1000);
  sampleAfter(1s);
  writeTraffic("usb0", 1000);
  EXPECT_THAT(sampleAfter(1s), IsEmpty());
  writeTraffic("eth0", 5000);
  EXPECT_THAT(sampleAfter(1s), IsEmpty());
}

TEST_F(Machine, GivesNoShareOfMemoryThatMakesNoSense) {
  for (const auto* sizes : {"MemTotal: 0 kB\nMemAvailable: 0 kB\n", "MemTotal: 1 kB\nMemAvailable: 2 kB\n"}) {
    write("proc/meminfo", sizes);
    EXPECT_THAT(sampleAfter(1s), ElementsAre(Key("Memory/Available"), Key("Memory/Total"))) << sizes;
  }
}

TEST_F(Machine, WithSomethingElseInPlaceOfItsFilesHasNoReadings) {
  EXPECT_THAT(sampleAfter(1s), IsEmpty()) << "nothing is there";
  fs::create_directories(root_ / "proc/stat");
  fs::create_directories(root_ / "sys/class");
  write("sys/class/thermal", "a file");
  write("proc/meminfo", std::string(64, '\0'));
  write("proc/loadavg", "1 1 1 1" + std::string(std::size_t{5} << 20, ' '));
  ASSERT_EQ(mkfifo((root_ / "proc/uptime").c_str(), 0600), 0);
  EXPECT_THAT(sampleAfter(1s), IsEmpty());
}

TEST(ThisMachine, HasMemoryAndAnUptime) {
  Sensors sensors;
  const auto readings = sensors.sample(Sensors::Clock::now());
  EXPECT_THAT(readings, testing::IsSupersetOf({testing::Field(&Reading::name, "Memory/Total"),
                                               testing::Field(&Reading::name, "Uptime")}));
}

}  // namespace
}  // namespace telemetry
