#include "console/console.h"

#include "base/output.h"
#include "base/target.h"
#include "commands/watches.h"
#include "console/linesource.h"
#include "manual_executor.h"
#include "memory_fixture.h"

#include <hxvalue/json.h>

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
    functionName("move", getName(), "");
    bindMethod(this, &Motor::move);
    bindSignal("stalled", stalled);
  }
  float setSpeed(float next) { return std::exchange(speed, next); }
  std::vector<float> move(std::vector<float> path, int last) {
    path.push_back(static_cast<float>(last));
    return path;
  }
  void fail() { throw std::runtime_error("burnt\nout"); }

  mw::Signal<int> stalled;
  float speed = 0.5f;
};

class ConsoleTest : public kit::MemoryFixture {
 protected:
  void SetUp() override {
    MemoryFixture::SetUp();
    memory->exit();
    generic.reset();
    memory.reset();
    memory = HX::HXModule::createModule<HX::HXMemory>(broker, "HXMemory", HX::HXMemory::JournalSettings{executor, {}});
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
    executor->clear();
  }

  /// What the lines print as values; errors are in `errors`.
  std::vector<std::string> run(const std::vector<std::string>& lines) {
    values_.str("");
    errors_.str("");
    for (const std::string& line : lines) {
      console->execute(line);
      executor->advance(std::chrono::milliseconds(30));  // What is watched is told meanwhile.
    }
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

  const std::shared_ptr<kit::ManualExecutor> executor = std::make_shared<kit::ManualExecutor>();
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
              ElementsAre("\"Left arm\"", "b-arm", "{\"x\":[1,2.0]}"));
  EXPECT_EQ(error(), "error: HXMemory.getData: Data not found Left arm\n");
}

TEST_F(ConsoleTest, TakesSeveralKeysAndThoseOfAPrefix) {
  EXPECT_THAT(
      run({"set A/x 1 A/y \"t\\n\" B 3", "get B A/x", "get --prefix A/", "get --raw A/y", "get B A/z A/v A/x",
           "set --prefix A/ 7 --yes", "get A/x A/y", "rm --prefix \"\" --yes", "ls A", "type KorvoReady"}),
      ElementsAre("3", "1", "A/x\t1", "A/y\t\"t\\n\"", "t", "", "3", "1", "7", "7", "HXMemory/KeyAdded", "MicroEvent"));
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("Data not found A/z"), HasSubstr("Data not found A/v")));
}

TEST_F(ConsoleTest, KeepsTheNumberTypeThatAKeyHas) {
  memory->insertData("F", 1.5f);
  const float* const address = memory->getFloatPtr("F");
  run({"set F 2", "set F 1e300", "set New 1", "set New 2.0", "set New 2.5", "set Wide 1 --type int64", "set Wide 2",
       "set List [1, 2] --type float", "set List [3, 4.5, 5]", "set F --string text", "raise Event 1 --type double",
       "raise Event 2"});
  EXPECT_EQ(*address, 2.0f);
  EXPECT_EQ(errors().size(), 2U) << "neither 1e300 nor a text fits where an address was handed out";
  EXPECT_EQ(memory->getData("New"), HX::HXValue(2.5)) << "an int does not hold it";
  EXPECT_EQ(memory->getData("Wide"), HX::HXValue(std::int64_t{2}));
  EXPECT_EQ(memory->getData("List"), HX::HXValue::list({3.0f, 4.5f, 5.0f}));
  EXPECT_EQ(memory->getData("Event"), HX::HXValue(2.0));
}

TEST_F(ConsoleTest, RaisesSoOftenAndShowsTheLatest) {
  EXPECT_THAT(run({"raise Foo 1 --count 3", "raise Foo 2 --rate 1000 --count 2", "history Foo --last 3"}),
              ElementsAre(StartsWith("{\"value\":1,"), StartsWith("{\"value\":2,"), StartsWith("{\"value\":2,")));
}

TEST_F(ConsoleTest, EndsWhenItIsAskedTo) {
  class Lines : public LineSource {
   public:
    std::optional<std::string> next() override { return lines_.at(next_++); }

   private:
    std::vector<std::string> lines_{"set Foo 1", "quit"};
    std::size_t next_ = 0;
  } lines;
  console->run(lines);
  EXPECT_EQ(error(), "");
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
                    WrongLine{"set Foo 1 2", "set: JSON is missing"}, WrongLine{"get", "get: KEY is missing"},
                    WrongLine{std::string("set Foo\0 1", 10), "the line has a NUL character at byte 8"},
                    WrongLine{"set Foo \"\xff\"", "the line is not UTF-8"},
                    WrongLine{"set Foo " + std::string(100'000, '['), "set: JSON [[["},
                    WrongLine{"call Motr say", "no service named Motr; did you mean Motor?"},
                    WrongLine{"call Motor setsped", "Motor.setsped: no such method; did you mean setSpeed?"},
                    WrongLine{"call Motor setSpeed \"x\"", "Motor.setSpeed(String): no overload"},
                    WrongLine{"call Motor fail", "burnt\\nout"},
                    WrongLine{"emit Motor stuled", "Motor.stuled: no such signal; did you mean stalled?"},
                    WrongLine{"unwatch Foo", "not watched: Foo"},
                    WrongLine{"watch Foo --once --count 2", "watch: --once and --count exclude each other"},
                    WrongLine{"watch Foo --since yesterday",
                              "watch: --since: yesterday is neither a place (EPOCH:REVISION)"},
                    WrongLine{"watch Foo --for 5s", "watch: --for is for a shell; unwatch ends it here"},
                    WrongLine{"help gte", "help: no command gte; did you mean get?"},
                    WrongLine{"methods Motor --jsn", "methods: no option --jsn; did you mean --json?"},
                    WrongLine{"get foo", "HXMemory.getData: Data not found foo; did you mean Foo?"},
                    WrongLine{"set Foo hello", "set: JSON hello: JSON line 1, column 1"},
                    WrongLine{"set Foo 1 --type bool", "set: bool is no type of numbers; there is int, "},
                    WrongLine{"set Foo 1.5 --type int", "set: 1.5 does not fit the type int"},
                    WrongLine{"set Foo 1 --type int --string", "set: --string and --type exclude"},
                    WrongLine{"set --prefix Fo 1", "set: it would set 1 key (Foo): --yes does so"},
                    WrongLine{"rm --prefix Fo", "rm: it would remove 1 key (Foo): --yes does so"},
                    WrongLine{"rm --prefix Ba", "no key begins with Ba"},
                    WrongLine{"raise Foo 1 --rate 5", "raise: --rate needs --count in a console"},
                    WrongLine{"raise Foo 1 --count none", "raise: --count: none is no whole number from 1 on"},
                    WrongLine{"load ./nothing.so", "module library ./nothing.so: "}),
    [](const auto& test) { return "Line" + std::to_string(test.index); });

TEST_F(ConsoleTest, ReportsThatThereIsNoMemory) {
  memory->exit();
  run({"get Foo"});
  EXPECT_EQ(error(), "error: no service named HXMemory\n");
}

TEST_F(ConsoleTest, TellsAllAboutAKey) {
  const auto lines = run({"declare Foo Motor", "raise Foo 1", "raise Foo 2.5", "describe Foo \"A text\"",
                          "describe Foo", "descriptions Foo", "info Foo"});
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0] + lines[1], "\"A text\"[\"Foo\",\"Event\",\"A text\"]");
  EXPECT_THAT(lines[2],
              AllOf(StartsWith("{\"key\":\"Foo\",\"kind\":\"Event\",\"type\":\"Double\",\"value\":2.5,\"time\":\""),
                    HasSubstr("\"history\":2,\"subscribers\":0,\"extractor\":\"Motor\","
                              "\"description\":\"A text\"}")));
}

TEST_F(ConsoleTest, WatchesDataAndEventsAlikeUntilUnwatched) {
  const auto lines = run({"set Foo 1.5", "watch Foo Bar --wait", "watch Foo", "set Foo 2", "raise Foo 3", "unwatch Foo",
                          "raise Foo 4", "raise Bar 5", "rm Bar", "set Bar 6", "set Other 7"});
  EXPECT_THAT(lines, ElementsAre(HasSubstr("  stored    Foo  2.0"), HasSubstr("  raised    Foo  3.0"),
                                 HasSubstr("  raised    Bar  5"), HasSubstr("  removed   Bar"),
                                 HasSubstr("  stored    Bar  6")));
}

TEST_F(ConsoleTest, WatchesPrefixesAndGlobsWithWhatIsAskedFor) {
  EXPECT_THAT(run({"set A/x 1", "set B/Battery 1", "watch A/ --snapshot --json", "watch */Battery --raises --once",
                   "describe A/x text", "set B/Battery 2", "raise B/Battery 3", "raise B/Battery 4"}),
              ElementsAre(StartsWith("{\"key\":\"A/x\",\"what\":\"state\",\"value\":1,\"time\":\""),
                          StartsWith("{\"key\":\"A/x\",\"what\":\"described\",\"value\":\"text\","),
                          HasSubstr("  raised    B/Battery  3")));
  EXPECT_THAT(run({"unwatch A/", "watch *", "set C 1", "rm C"}),
              ElementsAre(HasSubstr("stored    C  1"), HasSubstr("removed   C")))
      << "the memory's own keys are not named";
  EXPECT_THAT(run({"unwatch *", "watch HXMemory/", "set D 1"}), ElementsAre(HasSubstr("HXMemory/KeyAdded  \"D\"")));
}

TEST_F(ConsoleTest, DeclaresNothingForATypo) {
  EXPECT_THAT(run({"set Foo 1", "watch Fooo", "watch Fo/", "watch Fo?o", "hz Fooo", "ls Fo"}), ElementsAre("Foo"));
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("did you mean Foo?"), HasSubstr("no key begins with Fo/; --wait"),
                                    HasSubstr("no key matches Fo?o; --wait"), HasSubstr("did you mean Foo?")));
}

TEST_F(ConsoleTest, GoesOnFromAPlace) {
  const auto at = [&](const std::string& line) {
    const auto found = HX::fromJson(line);
    return found.find("at")->asString();
  };
  const auto lines = run({"set Foo 1", "watch Foo --json", "set Foo 2", "set Foo 3", "unwatch Foo", "set Foo 4"});
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_THAT(run({"watch Foo --since " + at(lines[0])}),
              ElementsAre(HasSubstr("stored    Foo  3"), HasSubstr("stored    Foo  4")));
  EXPECT_THAT(run({"watch Foo --since 5m"}),
              ElementsAre(HasSubstr("Foo  2"), HasSubstr("Foo  3"), HasSubstr("Foo  4")));
  EXPECT_THAT(run({"watch Foo --since 1:5"}),
              ElementsAre(HasSubstr("-- gap: an unknown number of changes was missed"), HasSubstr("state     Foo  4")));
}

TEST_F(ConsoleTest, EndsEveryWatchWhenClosed) {
  run({"set Foo 1", "watch Foo"});
  watches.close();
  EXPECT_THAT(run({"raise Foo 1", "watch Foo", "raise Foo 2"}), IsEmpty());
  EXPECT_THAT(error(), HasSubstr("the console is closing"));
}

TEST_F(ConsoleTest, CallsWithANumberWhereItFitsInValue) {
  EXPECT_THAT(run({"call Motor setSpeed 2.5", "call Motor setSpeed 1", "call Motor move [1, 2.5] 3.0"}),
              ElementsAre("0.5", "2.5", "[1.0,2.5,3.0]"));
  run({"call Motor setSpeed 1e300", "call Motor setSpeed 16777217", "call Motor move [1] 3.5"});
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("setSpeed(Double)"), HasSubstr("setSpeed(Int)"), HasSubstr("move(")));
}

TEST_F(ConsoleTest, CallsWhatReturnsNothingAndEmitsSignals) {
  int stalls = 0;
  motor->stalled.connect(mw::SignalSubscriber([&](int by) { stalls += by; }));
  EXPECT_THAT(run({"call HXMemory insertData \"Foo\" [1, 2]", "get Foo", "emit Motor stalled 3"}),
              ElementsAre("[1,2]"));
  EXPECT_EQ(stalls, 3);
}

TEST_F(ConsoleTest, ListsServicesAndWhatTheyOffer) {
  EXPECT_THAT(run({"services"}), ElementsAre("HXMemory", "Motor"));
  EXPECT_THAT(run({"methods Motor"}),
              ElementsAre("Turns the wheel.", "setSpeed(float speed) -> float", "    Sets the speed.",
                          "      speed: In turns per second.", "      returns before: The speed until now.", "fail()",
                          "move(list<float>, int) -> list<float>", "signal stalled(int)"));
  EXPECT_THAT(run({"methods Motor --json"}),
              ElementsAre("[{\"name\":\"setSpeed\",\"description\":\"Sets the speed.\",\"flags\":4,\"parameters\":"
                          "[{\"name\":\"speed\",\"description\":\"In turns per second.\"}],\"result\":{\"name\":"
                          "\"before\",\"description\":\"The speed until now.\"}},{\"name\":\"fail\",\"description\":"
                          "\"\",\"flags\":0,\"parameters\":[]},{\"name\":\"move\",\"description\":\"\",\"flags\":0,"
                          "\"parameters\":[]}]"));
}

TEST_F(ConsoleTest, HasHelpForEveryCommandUnderANameOfItsOwn) {
  std::set<std::string_view> names;
  for (const Command& command : commands()) {
    EXPECT_TRUE(names.insert(command.name).second) << command.name;
    EXPECT_THAT(run({"help " + std::string(command.name)}), testing::Contains(synopsis(command)));
  }
}

TEST_F(ConsoleTest, CompletesCommandsAndThenKeys) {
  run({"set Foo 1", "set Fob 1", "set \"F x\" 1", "set \"F\\u009b\" 1"});
  EXPECT_THAT(console->complete("un"), ElementsAre("unwatch"));
  EXPECT_THAT(console->complete("get F"), ElementsAre("Fob", "Foo"));
  EXPECT_THAT(console->complete("get Foo Fo"), ElementsAre("Fob", "Foo"));
}

}  // namespace
}  // namespace korvo
