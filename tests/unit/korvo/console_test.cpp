#include "console.h"

#include "memory_fixture.h"
#include "output.h"
#include "target.h"
#include "watches.h"

#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvo {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class Motor : public HX::HXModule {
 public:
  Motor(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
    setModuleDescription("Turns the wheel.");
    functionName("setSpeed", getName(), "Sets the speed.", 4);
    addParam("speed", "In turns per second.");
    setReturn("before", "The speed until now.");
    bindMethod(this, &Motor::setSpeed);
    functionName("fail", getName(), "");
    bindMethod(this, &Motor::fail);
    bindSignal("stalled", stalled);
  }
  float setSpeed(float next) { return std::exchange(speed, next); }
  void fail() { throw std::runtime_error("burnt\nout"); }

  mw::Signal<int> stalled;
  float speed = 0.5f;
};

class ConsoleTest : public kit::MemoryFixture {
 protected:
  void SetUp() override {
    MemoryFixture::SetUp();
    motor = HX::HXModule::createModule<Motor>(broker, "Motor");
    target.emplace(broker);
    console.emplace(Context{*target, output, watches});
  }
  void TearDown() override {
    watches.close();
    console.reset();
    target.reset();
    motor.reset();
    MemoryFixture::TearDown();
  }

  /// What the lines print as values; errors are in `errors`.
  std::vector<std::string> run(const std::vector<std::string_view>& lines) {
    values_.str("");
    errors_.str("");
    for (const auto line : lines) console->execute(line);
    return split(values_.str());
  }
  std::vector<std::string> errors() const { return split(errors_.str()); }
  std::string error() const { return errors_.str(); }

  static std::vector<std::string> split(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
  }

  std::ostringstream values_;
  std::ostringstream errors_;
  Output output{values_, errors_};
  Watches watches{output};
  std::shared_ptr<Motor> motor;
  std::optional<BrokerTarget> target;
  std::optional<Console> console;
};

TEST_F(ConsoleTest, SetsGetsListsAndRemoves) {
  EXPECT_THAT(run({"", " \t", "\r", "set \"Left arm\" {\"x\": [1, 2.0]}\r", "set b-arm 1", "ls arm", "get \"Left arm\"",
                   "rm \"Left arm\"", "get \"Left arm\""}),
              ElementsAre("\"Left arm\"", "\"b-arm\"", "{\"x\":[1,2.0]}"));
  EXPECT_EQ(error(), "error: HXMemory.getData: Data not found Left arm\n");
}

struct WrongLine {
  std::string line;
  std::string error;
};
void PrintTo(const WrongLine& shown, std::ostream* stream) { *stream << shown.line; }

class WrongLines : public ConsoleTest, public testing::WithParamInterface<WrongLine> {};

TEST_P(WrongLines, AreOneErrorAndChangeNothing) {
  memory->insertData("Foo", 7);
  EXPECT_THAT(run({GetParam().line, "get Foo"}), ElementsAre("7"));
  EXPECT_THAT(errors(), ElementsAre(StartsWith("error: " + GetParam().error)));
}

INSTANTIATE_TEST_SUITE_P(
    Lines, WrongLines,
    testing::Values(WrongLine{"frobnicate Foo", "no command frobnicate"},
                    WrongLine{"set Foo 1 2", "set: unexpected text: 2"}, WrongLine{"get", "get: KEY is missing"},
                    WrongLine{std::string("set Foo\0 1", 10), "the line has a NUL character at byte 8"},
                    WrongLine{"set Foo \"\xff\"", "the line is not UTF-8"},
                    WrongLine{"set Foo " + std::string(100'000, '['), "set: JSON [[["},
                    WrongLine{"call Nobody say", "no service named Nobody"},
                    WrongLine{"call Motor fly", "Motor.fly: no such method"},
                    WrongLine{"call Motor setSpeed \"x\"", "Motor.setSpeed(String): no overload"},
                    WrongLine{"call Motor fail", "burnt\\nout"},
                    WrongLine{"emit Motor lost", "Motor.lost: no such signal"},
                    WrongLine{"unwatch Foo", "not watched: Foo"}, WrongLine{"help fly", "help: no command fly"},
                    WrongLine{"methods Motor --jsn", "methods: unexpected text: --jsn"},
                    WrongLine{"load ./nothing.so", "module library ./nothing.so: "}),
    [](const auto& test) { return "Line" + std::to_string(test.index); });

TEST_F(ConsoleTest, ReportsThatThereIsNoMemory) {
  memory->exit();
  run({"get Foo"});
  EXPECT_EQ(error(), "error: no service named HXMemory\n");
}

TEST_F(ConsoleTest, TellsAllAboutAKey) {
  const auto lines = run({"declare Foo Motor", "raise Foo 1", "raise Foo 2.0", "describe Foo \"A text\"",
                          "describe Foo", "descriptions Foo", "info Foo"});
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0] + lines[1], "\"A text\"[\"Foo\",\"event\",\"A text\"]");
  EXPECT_THAT(lines[2], AllOf(StartsWith("{\"key\":\"Foo\",\"kind\":\"Event\",\"value\":2.0,\"time\":\""),
                              HasSubstr("\"history\":2,\"subscribers\":0,\"extractor\":\"Motor\","
                                        "\"description\":\"A text\"}")));
}

TEST_F(ConsoleTest, WatchesUntilUnwatched) {
  const auto lines = run({"watch Foo Bar", "watch Foo", "raise Foo 2.0", "unwatch Foo", "raise Foo 3", "raise Bar 4"});
  EXPECT_THAT(lines, ElementsAre(StartsWith("{\"key\":\"Foo\",\"value\":2.0,\"time\":\""),
                                 StartsWith("{\"key\":\"Bar\",\"value\":4,\"time\":\"")));
}

TEST_F(ConsoleTest, EndsEveryWatchWhenClosed) {
  run({"watch Foo"});
  watches.close();
  EXPECT_THAT(run({"raise Foo 1", "watch Foo", "raise Foo 2"}), IsEmpty());
  EXPECT_EQ(error(), "error: the console is closing\n");
}

TEST_F(ConsoleTest, CallsWithADecimalWhereOnlyAFloatWillDo) {
  EXPECT_THAT(run({"call Motor setSpeed 2.5", "call Motor setSpeed 1.0"}), ElementsAre("0.5", "2.5"));
  run({"call Motor setSpeed 1e300", "call Motor setSpeed 1"});
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("setSpeed(Double)"), HasSubstr("setSpeed(Int)")));
}

TEST_F(ConsoleTest, CallsWhatReturnsNothingAndEmitsSignals) {
  int stalls = 0;
  motor->stalled.connect(mw::SignalSubscriber([&](int by) { stalls += by; }));
  EXPECT_THAT(run({"call HXMemory insertData \"Foo\" [1, 2]", "get Foo", "emit Motor stalled 3"}),
              ElementsAre("[1,2]"));
  EXPECT_EQ(stalls, 3);
}

TEST_F(ConsoleTest, ListsServicesAndWhatTheyOffer) {
  EXPECT_THAT(run({"services"}), ElementsAre("\"HXMemory\"", "\"Motor\""));
  EXPECT_THAT(run({"methods Motor"}),
              ElementsAre("Turns the wheel.", "setSpeed(float speed) -> float", "    Sets the speed.",
                          "      speed: In turns per second.", "      returns before: The speed until now.", "fail()",
                          "signal stalled(int)"));
  EXPECT_THAT(run({"methods Motor --json"}),
              ElementsAre("[{\"name\":\"setSpeed\",\"description\":\"Sets the speed.\",\"flags\":4,\"parameters\":"
                          "[{\"name\":\"speed\",\"description\":\"In turns per second.\"}],\"result\":{\"name\":"
                          "\"before\",\"description\":\"The speed until now.\"}},{\"name\":\"fail\",\"description\":"
                          "\"\",\"flags\":0,\"parameters\":[]}]"));
}

TEST_F(ConsoleTest, HasHelpForEveryCommandUnderANameOfItsOwn) {
  std::set<std::string_view> names;
  for (const Command& command : commands()) {
    EXPECT_TRUE(names.insert(command.name).second) << command.name;
    EXPECT_THAT(run({"help " + std::string(command.name)}), testing::Contains(synopsis(command)));
  }
}

TEST_F(ConsoleTest, CompletesCommandsAndThenKeys) {
  run({"set Foo 1", "set Fob 1", "set \"F x\" 1"});
  EXPECT_THAT(console->complete("un"), ElementsAre("unwatch"));
  EXPECT_THAT(console->complete("get F"), ElementsAre("Fob", "Foo"));
  EXPECT_THAT(console->complete("get Foo Fo"), ElementsAre("Fob", "Foo"));
}

}  // namespace
}  // namespace korvo
