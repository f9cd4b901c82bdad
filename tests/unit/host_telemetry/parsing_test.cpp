#include "procfs.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace telemetry {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

const std::string kNetworkHead = "Inter-|   Receive |  Transmit\n face |bytes packets|bytes packets\n";
const std::string kZeros = " 0 0 0 0 0 0 0 ";

TEST(ProcessorTimes, CountEveryFieldOnceAndWaitingForDisksAsIdle) {
  EXPECT_THAT(
      parseProcessorTimes("cpu  10 1 2 300 40 5 6 7 999 999\ncpu17 0 0 0 9 0 0 0 0\nintr 12 0 0\nctxt 5\n"),
      ElementsAre(Pair("Processor/Core17/Load", ProcessorTime{0, 9}), Pair("Processor/Load", ProcessorTime{31, 340})));
}

TEST(Network, ReadsBytesOfEachInterfaceAlsoWhenTheNumberTouchesTheColon) {
  EXPECT_THAT(parseNetwork(kNetworkHead + "    lo:    3267" + kZeros + "88" + kZeros + "\nwlan0:4294967296" + kZeros +
                           "7" + kZeros),
              ElementsAre(Pair("Network/lo/Received", 3267), Pair("Network/lo/Sent", 88),
                          Pair("Network/wlan0/Received", 4294967296), Pair("Network/wlan0/Sent", 7)));
}

TEST(Disks, AreListedWithoutPartitionsAndDisksOfMemory) {
  using Names = std::vector<std::string>;
  const std::pair<Names, Names> cases[] = {{{"sda", "sda1", "sda12", "sdaa"}, {"sda", "sdaa"}},
                                           {{"nvme0n1", "nvme0n1p1", "nvme0n12"}, {"nvme0n1", "nvme0n12"}},
                                           {{"dm-1", "dm-12", "md0"}, {"dm-1", "dm-12", "md0"}},
                                           {{"mmcblk0p1", "mmcblk0"}, {"mmcblk0"}},
                                           {{"vda1"}, {"vda1"}},
                                           {{"loop0", "ram1", "zram0"}, {}}};
  for (const auto& [names, disks] : cases) {
    std::string text;
    for (const auto& name : names) text += "  8  0 " + name + " 1 0 3 0 1 0 5 0 0 0 0\n";
    Counters expected;
    for (const auto& name : disks) {
      expected["Disk/" + name + "/Read"] = 1536;
      expected["Disk/" + name + "/Written"] = 2560;
    }
    EXPECT_EQ(parseDisks(text), expected) << text;
  }
}

TEST(LinesThatAreNotWellFormed, SayNothing) {
  for (const std::string line :
       {"", "cpu", "cpu0 1 2 3 4 5 6 7", "cpux 1 2 3 4 5 6 7 8", "cpu0 1 2 x 4 5 6 7 8", "cpu0 -1 2 3 4 5 6 7 8",
        "cpu0 99999999999999999999 2 3 4 5 6 7 8", "cpu0 1.5 2 3 4 5 6 7 8"}) {
    EXPECT_THAT(parseProcessorTimes(line + "\ncpu1 0 0 0 1 0 0 0 0"), testing::SizeIs(1)) << line;
  }
  const std::string rest = kZeros + "2" + kZeros;
  for (const auto& line :
       {std::string("eth0: 1 2 3"), "eth0 1" + rest, ": 1" + rest, "a/b: 1" + rest, "eth0: x" + rest}) {
    EXPECT_THAT(parseNetwork(kNetworkHead + line), IsEmpty()) << line;
  }
  for (const auto* line : {"8 0 sda 1 0 3 0", "8 0 sda 1 0 x 0 1 0 5 0 0 0 0",
                           "8 0 sda 1 0 18446744073709551615 0 1 0 5 0 0 0 0", "8 0 sda 1 0 3 0 1 0 -5 0 0 0 0"}) {
    EXPECT_THAT(parseDisks(line), IsEmpty()) << line;
  }
  for (const auto* line : {"", "MemTotal:", "MemTotal: kB", "MemTotal: 2", "MemTotal: 2 MB", "MemTotal: -2 kB",
                           "MemTotal: 18446744073709551615 kB"}) {
    EXPECT_EQ(parseMemory(line).total, std::nullopt) << line;
  }
  for (const auto* text : {"", "x 1", "-1", "nan", "inf", "1e999", "0.1.2"}) {
    EXPECT_THAT(parseNumbers(text, 3), IsEmpty()) << text;
  }
  EXPECT_THAT(parseNumbers("0.5 1/123 2", 3), ElementsAre(0.5));
  for (const auto* text : {"", "hot", "1 2", "48.5", "99999999999999999999"}) {
    EXPECT_EQ(parseTemperature(text), std::nullopt) << text;
  }
  for (const auto* text : {" \n", "a/b", "two\nlines", "\x01", "\xff"}) EXPECT_EQ(parseLabel(text), "") << text;
}

}  // namespace
}  // namespace telemetry
