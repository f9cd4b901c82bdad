#include "broker.h"
#include "temporary_folder.h"

#include <chrono>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// What is told of several processes by one of them, and what outlives it.

namespace {

using namespace std::chrono_literals;
using kit::Broker;
using kit::check;
using kit::isAnswered;
using kit::korvo;
using kit::Process;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

TEST(Inspection, NamesWhoWritesAndWhoFollowsInOtherProcesses) {
  const Broker broker({"--journal", "keep"});
  check({{"set", "Arm/Speed", "1"}});
  check({{"explain", "Arm/Speed"}, ContainsRegex("stored by process [0-9]+, korvo set")});
  const Process host(korvo({"host", "--module", "hosttelemetry", "--set", "hosttelemetry.period=20ms"}));
  EXPECT_TRUE(isAnswered({"explain", "Host/Uptime"}, HasSubstr("stored by HostTelemetry, revision")));
  EXPECT_TRUE(isAnswered({"explain", "Host/Sampled/Memory/Used"}, HasSubstr(" by HostTelemetry, revision")))
      << "declared on another thread than those of the module";
  const Process watch(korvo({"watch", "Arm/"}));
  EXPECT_TRUE(isAnswered({"doctor"}, ContainsRegex("following +process [0-9]+, korvo watch")));
  check({{"settings", "HostTelemetry"}, HasSubstr("period = \"20ms\"")});
}

TEST(Doctor, FailsAsLongAsSomethingIsWrong) {
  const Broker broker;
  check({{"doctor"}, ContainsRegex("wrong +nothing")});
  check({{"expect", "Lidar/Scan", "1ms"}});
  EXPECT_TRUE(isAnswered({"doctor"}, HasSubstr("Lidar/Scan is overdue")));
  check({{"doctor", "--json"}, HasSubstr("\"wrong\":[\"Lidar/Scan"), "error: one thing is wrong\n", 1});
  check({{"expect", "--remove", "Lidar/Scan"}});
  check({{"doctor"}, ContainsRegex("wrong +nothing")});
}

TEST(Kept, KeysAreChosenListedAndForgottenWhileTheBrokerRuns) {
  const kit::TemporaryFolder folder;
  const std::vector<std::string> options{"--keep", "Config/", "--data-dir", folder.path().string()};
  {
    Broker broker(options);
    check({{"set", "Config/Speed", "1", "Arm/Offset", "2", "Arm/Speed", "3", "Leg/Offset", "4"}});
    check({{"keep", "*/Offset", "Arm/Speed"}});
    check({{"kept"}, "Arm/Offset\nArm/Speed\nConfig/Speed\nLeg/Offset\n"});
    check({{"kept", "Arm/", "--json"}, "{\"key\":\"Arm/Offset\"}\n{\"key\":\"Arm/Speed\"}\n"});
    check({{"kept", "--patterns"}, "Config/\n*/Offset\nArm/Speed\n"});
    check({{"forget", "Arm/Speed"}});
    check({{"forget", "Arm/Offset"}, "", "error: HXKeeper.forget: Arm/Offset is kept, by */Offset\n", 1});
    check({{"forget", "Config/"}, "", HasSubstr("is kept by the settings of this broker"), 1});
    check({{"forget", "*/Ofset"}, "", HasSubstr("nothing is kept by */Ofset; did you mean */Offset?"), 1});
    check({{"keep"}, "", HasSubstr("PATTERN is missing"), 2});
    check({{"keep", ""}, "", HasSubstr("an empty pattern names no key"), 1});
    check({{"set", "Config/Speed", "5"}});
    check({{"flush"}});
    check({{"doctor"}, ContainsRegex("kept +3 keys in " + folder.path().string())});
    broker->send(SIGKILL);
    broker->finish();
  }
  {
    const Broker again(options);
    check({{"get", "Config/Speed", "Leg/Offset"}, "5\n4\n"});
    check({{"kept"}, "Arm/Offset\nConfig/Speed\nLeg/Offset\n"});
  }
  const Broker without({"--module", "keeper", "--set", "keeper.folder=" + folder.path().string()});
  check({{"kept"}, "Arm/Offset\nLeg/Offset\n"});
  check({{"forget", "Config/"}});
  check({{"keep", "Config/"}});
  check({{"kept", "Config/"}, ""});
}

TEST(Kept, KeysAreMissedWhereThereIsNoKeeper) {
  const Broker broker;
  for (const std::string command : {"kept", "flush"}) {
    check({{command}, "", "error: the broker keeps no keys (service HXKeeper): korvo run --keep PATTERN does\n", 1});
  }
}

}  // namespace
