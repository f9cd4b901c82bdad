#include "program.h"
#include "temporary_folder.h"

#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace run {
namespace {

using namespace std::chrono_literals;
using kit::module;
using kit::Process;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// The command line `korvo run ARGUMENT...`. What the memory logs is no part of these tests.
std::vector<std::string> korvoRun(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {"run", "--log-level", "error"});
  return kit::korvo(std::move(arguments));
}

Process::Result korvo(const std::vector<std::string>& arguments, std::string_view input = {}) {
  return kit::runProcess(korvoRun(arguments), input);
}

TEST(Console, GoesOnBehindAWrongLine) {
  const auto result = korvo({"--console"}, "frobnicate\nset Foo 2\nget Foo");
  EXPECT_EQ(result.out, "2\n");
  EXPECT_EQ(result.err, "error: no command frobnicate; help lists them\n");
  EXPECT_EQ(result.status, 0);
}

TEST(Console, EndsWhileACallLasts) {
  Process process(korvoRun({"--no-memory", "--module", module("sleeper"), "--console"}));
  process.write("call Sleeper sleep\n");
  ASSERT_TRUE(process.waitFor("sleeping"));
  process.send(SIGTERM);
  EXPECT_EQ(process.finish().status, 0) << "a call that outlasts the limit of the end has it fail";
}

TEST(Live, PrintsSnapshotsWhereThereIsNoTerminal) {
  Process process(korvoRun({"--live"}));
  ASSERT_TRUE(process.waitFor("KorvoReady  MicroEvent"));
  process.send(SIGINT);
  EXPECT_EQ(process.finish().status, 0);
}

TEST(Modules, AreLoadedInOrderAndLeaveInReverse) {
  const auto result = korvo({"--module", module("greeter"), "--module", module("sleeper"), "--console"},
                            "services\ncall Greeter greet \"you\"\n");
  EXPECT_EQ(result.out,
            "HXMemory\nHXJournal\nHXFreshness\nHXViews\nGreeter\nSleeper\nBroker\n\"Hello, you\"\nSleeper "
            "leaves\nGreeter leaves\n");
  EXPECT_EQ(result.err, "");
}

TEST(BrokenModules, AreOneLineAndTheOthersRun) {
  const std::pair<std::string, const char*> libraries[] = {{module("missing"), "no such file"},
                                                           {module("throwsininit"), "ThrowsInInit.init: no motor"}};
  for (const auto& [library, why] : libraries) {
    const auto result = korvo({"--module", library, "--module", module("greeter"), "--console"}, "services\n");
    EXPECT_THAT(result.out, StartsWith("HXMemory\nHXJournal\nHXFreshness\nHXViews\nGreeter\n"));
    EXPECT_EQ(result.err, "error: module library " + library + ": " + why + "\n");
    EXPECT_EQ(result.status, 0);
  }
  EXPECT_EQ(korvo({"--no-memory", "--module", module("missing")}).status, 1) << "there is no other";
  const auto strict = korvo({"--module", module("greeter"), "--strict", "--module", module("missing"), "--console"});
  EXPECT_EQ(strict.out, "Greeter leaves\n");
  EXPECT_EQ(strict.status, 1);
}

TEST(MissingMapOfSignals, IsExplainedBehindTheMemorysWarningAndOneThatIsThereIsNot) {
  const kit::TemporaryFolder folder;
  const auto told = [&] {
    Process process(kit::korvo({"run", "--data-dir", folder.path(), "--log-level", "info"}));
    EXPECT_TRUE(process.waitFor(" is running"));
    process.send(SIGINT);
    return process.finish().err;
  };
  constexpr const char* kExplanation = "without hxmemory_map_signal_event.txt no signals are raised as events";
  EXPECT_THAT(told(), ContainsRegex(std::string("Can't not open file(.|\n)*") + kExplanation));
  std::ofstream(folder.path() / "hxmemory_map_signal_event.txt") << "\n";
  EXPECT_THAT(told(), Not(HasSubstr(kExplanation)));
}

TEST(SecondSignal, EndsTheProgramAtOnceWhenTheFirstOneCannot) {
  Process process(korvoRun({"--no-memory", "--module", module("sleeper"), "--console"}));
  process.write("call Sleeper hang\n");
  ASSERT_TRUE(process.waitFor("hanging"));
  process.send(SIGINT);
  ASSERT_TRUE(process.waitFor("Sleeper leaves"));
  process.send(SIGINT);
  EXPECT_EQ(process.finish(10s).status, 130);
}

TEST(RobotFile, SaysWhatRunsAndItsWrongSettingsKeepAllFromRunning) {
  const kit::TemporaryFolder folder;
  const std::string path = folder.path() / "robot.toml";
  std::ofstream(path) << "[modules.greeter]\nlibrary = \"" << module("greeter") << "\"\n";
  EXPECT_EQ(korvo({path, "--console"}, "call Greeter greet \"you\"").out.substr(0, 13), "\"Hello, you\"\n");
  std::ofstream(path) << "[modules.greeter]\nlibrary = \"" << module("greeter") << "\"\nname = \"you\"\n";
  const auto refused = korvo({path, "--console"});
  EXPECT_EQ(refused.err, "error: " + path + ":3:1: greeter.name: no such setting; there are none\n");
  EXPECT_EQ(refused.out, "");
  EXPECT_EQ(refused.status, 2);
}

class WrongUsage : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(WrongUsage, IsToldAndExitsWithTwo) {
  const auto result = kit::runKorvo(GetParam());
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  EXPECT_EQ(result.status, 2);
}

using Words = std::vector<std::string>;
INSTANTIATE_TEST_SUITE_P(CommandLines, WrongUsage,
                         testing::Values(Words{}, Words{"fly"}, Words{"run", "--fly"}, Words{"run", "--name", "a/b"},
                                         Words{"run", "--name", ".."}, Words{"run", "--name", ""},
                                         Words{"run", "--name", std::string(100, 'n')}, Words{"run", "--module"},
                                         Words{"run", "--log-level", "loud"}, Words{"run", "--live", "--console"},
                                         Words{"run", "--data-dir", "/nowhere/at/all"}, Words{"get"},
                                         Words{"get", "a", "--fly"}, Words{"get", "a", "--timeout", "soon"},
                                         Words{"set", "a", "{"}, Words{"set", "\xff", "1"}, Words{"unwatch", "a"},
                                         Words{"host"}, Words{"check-map"}, Words{"help", "fly"},
                                         Words{"brokers", "more"}, Words{"hz"}, Words{"rm", "--prefix", "a", "--ye"}));

}  // namespace
}  // namespace run
