#include "console.h"

#include "output.h"
#include "target.h"
#include "watches.h"

#include <hxcommon/hxbroker.h>
#include <hxcommon/hxmodule.h>
#include <libmw/objecttypebuilder.h>

#include <map>
#include <set>
#include <sstream>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvo {
namespace {

using HX::HXValue;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

/// What `subscriber` hands out for a key.
struct Wrapper {
  mw::Signal<mw::AnyValue> signal;
};

/// As much of the memory as the commands under test ask for; every value was set one second after the epoch.
class FakeMemory : public HX::HXModule {
 public:
  FakeMemory(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
    mw::ObjectTypeBuilder<Wrapper> builder("Wrapper");
    builder.advertiseSignal("signal", &Wrapper::signal).registerType();
    bind("getData", &FakeMemory::getData);
    bind("insertData", &FakeMemory::insertData);
    bind("removeData", &FakeMemory::removeData);
    bind("getDataList", &FakeMemory::getDataList);
    bind("getDataListName", &FakeMemory::getDataListName);
    bind("getTimestamp", &FakeMemory::getTimestamp);
    bind("getType", &FakeMemory::getType);
    bind("getEventHistory", &FakeMemory::getEventHistory);
    bind("getSubscribers", &FakeMemory::getSubscribers);
    bind("getExtractorEvent", &FakeMemory::getExtractorEvent);
    bind("getDescriptionList", &FakeMemory::getDescriptionList);
    bind("setDescription", &FakeMemory::setDescription);
    bind("raiseEvent", &FakeMemory::raiseEvent);
    bind("subscriber", &FakeMemory::subscriber);
  }

  HXValue getData(const std::string& key) {
    if (!values.contains(key)) throw HX::HXError("HXMemory", "getData", "Data not found " + key);
    return values[key];
  }
  void insertData(const std::string& key, const HXValue& value) { values[key] = value; }
  void removeData(const std::string& key) {
    getData(key);
    values.erase(key);
  }
  std::vector<std::string> getDataList(const std::string& filter) {
    std::vector<std::string> keys;
    for (const auto& [key, value] : values) {
      if (key.find(filter) != std::string::npos) keys.insert(keys.begin(), key);
    }
    return keys;
  }
  std::vector<std::string> getDataListName() { return getDataList(""); }
  HXValue getTimestamp(const std::string& key) { return HXValue::list({getData(key), 1, 0}); }
  std::string getType(const std::string&) { return "Event"; }
  HXValue getEventHistory(const std::string& key) { return HXValue::list({getTimestamp(key), getTimestamp(key)}); }
  std::vector<std::string> getSubscribers(const std::string&) { return {"Arm", "Head"}; }
  std::vector<std::string> getExtractorEvent(const std::string& extractor) {
    return extractor == "Motor" ? std::vector<std::string>{"Foo"} : std::vector<std::string>{};
  }
  HXValue getDescriptionList(const std::vector<std::string>& keys) {
    HXValue list = HXValue::list(HXValue::List(keys.size()));
    for (const auto& key : keys) list.arrayPush(HXValue::list({key, "event", descriptions[key]}));
    return list;
  }
  void setDescription(const std::string& key, const std::string& text) { descriptions[key] = text; }
  void raiseEvent(const std::string& key, const HXValue& value) {
    insertData(key, value);
    if (wrappers.contains(key)) wrappers[key]->signal(mw::AnyValue(value));
  }
  std::shared_ptr<Wrapper> subscriber(const std::string& key) {
    auto& wrapper = wrappers[key];
    if (!wrapper) wrapper = std::make_shared<Wrapper>();
    return wrapper;
  }

  std::map<std::string, HXValue> values;
  std::map<std::string, std::string> descriptions;
  std::map<std::string, std::shared_ptr<Wrapper>> wrappers;

 private:
  template <class M>
  void bind(const char* name, M member) {
    functionName(name, getName(), "");
    bindMethod(this, member);
  }
};

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

class ConsoleTest : public testing::Test {
 protected:
  ~ConsoleTest() override {
    watches.close();
    memory.reset();
    motor.reset();
    broker->shutdown();
  }

  /// What the lines print as values; errors are in `errors`.
  std::vector<std::string> run(const std::vector<std::string_view>& lines) {
    values_.str("");
    errors_.str("");
    for (const auto line : lines) console.execute(line);
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
  std::shared_ptr<HX::HXBroker> broker = HX::HXBroker::create("test");
  std::shared_ptr<FakeMemory> memory = HX::HXModule::createModule<FakeMemory>(broker, "HXMemory");
  std::shared_ptr<Motor> motor = HX::HXModule::createModule<Motor>(broker, "Motor");
  BrokerTarget target{broker};
  Output output{values_, errors_};
  Watches watches{output};
  Console console{{target, output, watches}};
};

TEST_F(ConsoleTest, SetsGetsAndRemoves) {
  EXPECT_THAT(run({"set Foo {\"x\": [1, 2.0]}", "get Foo", "rm Foo", "get Foo"}), ElementsAre("{\"x\":[1,2.0]}"));
  EXPECT_EQ(error(), "error: HXMemory.getData: Data not found Foo\n");
}

TEST_F(ConsoleTest, TakesKeysWithBlanksAsJsonStrings) {
  EXPECT_THAT(run({"set \"Left arm\" null", "get \"Left arm\"", "ls arm"}), ElementsAre("null", "\"Left arm\""));
}

TEST_F(ConsoleTest, IgnoresBlankLinesAndCarriageReturns) {
  EXPECT_THAT(run({"", " \t", "\r", "set Foo 1\r", "get Foo\r"}), ElementsAre("1"));
  EXPECT_EQ(error(), "");
}

TEST_F(ConsoleTest, ListsKeysInOrder) {
  EXPECT_THAT(run({"set b 1", "set a 1", "set c 1", "ls"}), ElementsAre("\"a\"", "\"b\"", "\"c\""));
}

struct WrongLine {
  std::string line;
  std::string error;
};
void PrintTo(const WrongLine& shown, std::ostream* stream) { *stream << shown.line; }

class WrongLines : public ConsoleTest, public testing::WithParamInterface<WrongLine> {};

TEST_P(WrongLines, AreOneErrorAndChangeNothing) {
  memory->values["Foo"] = 7;
  EXPECT_THAT(run({GetParam().line, "get Foo"}), ElementsAre("7"));
  EXPECT_THAT(errors(), ElementsAre(StartsWith("error: " + GetParam().error)));
}

INSTANTIATE_TEST_SUITE_P(
    Lines, WrongLines,
    testing::Values(WrongLine{"frobnicate Foo", "no command frobnicate"},
                    WrongLine{"set Foo 1 2", "set: unexpected text: 2"}, WrongLine{"rm Foo Bar", "rm: unexpected text"},
                    WrongLine{"set Foo", "set: JSON is missing"}, WrongLine{"get", "get: KEY is missing"},
                    WrongLine{"set Foo [1,", "set: JSON [1,: JSON line 1"}, WrongLine{"set Foo 01", "set: JSON 01"},
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

TEST_F(ConsoleTest, StoresALineOfAMebibyte) {
  const std::string text = "\"" + std::string(std::size_t{1} << 20, 'x') + "\"";
  EXPECT_THAT(run({"set Foo " + text, "get Foo"}), ElementsAre(text));
}

TEST_F(ConsoleTest, ReportsThatThereIsNoMemory) {
  memory->exit();
  run({"get Foo"});
  EXPECT_EQ(error(), "error: no service named HXMemory\n");
}

TEST_F(ConsoleTest, TellsAllAboutAKey) {
  run({"set Foo 1.0", "describe Foo \"A text\""});
  const auto lines = run({"info Foo"});
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_THAT(lines[0], StartsWith("{\"key\":\"Foo\",\"kind\":\"Event\",\"value\":1.0,\"time\":\""));
  EXPECT_THAT(lines[0],
              HasSubstr("\"history\":2,\"subscribers\":2,\"extractor\":\"Motor\",\"description\":\"A text\"}"));
}

TEST_F(ConsoleTest, DescribesKeysWithoutTheInvalidEntriesOfTheAnswer) {
  run({"set Foo 1", "describe Foo \"A text\""});
  EXPECT_THAT(run({"describe Foo", "descriptions Foo Bar"}),
              ElementsAre("\"A text\"", "[\"Foo\",\"event\",\"A text\"]", "[\"Bar\",\"event\",\"\"]"));
}

TEST_F(ConsoleTest, WatchesUntilUnwatched) {
  const auto lines = run({"watch Foo Bar", "watch Foo", "raise Foo 2.0", "unwatch Foo", "raise Foo 3", "raise Bar 4"});
  EXPECT_THAT(lines, ElementsAre(StartsWith("{\"key\":\"Foo\",\"value\":2.0,\"time\":\""),
                                 StartsWith("{\"key\":\"Bar\",\"value\":4,\"time\":\"")));
}

TEST_F(ConsoleTest, EndsEveryWatchWhenClosed) {
  run({"watch Foo"});
  watches.close();
  EXPECT_FALSE(memory->wrappers["Foo"]->signal.hasSubscribers());
  run({"watch Foo"});
  EXPECT_EQ(error(), "error: the console is closing\n");
  EXPECT_FALSE(memory->wrappers["Foo"]->signal.hasSubscribers());
}

TEST_F(ConsoleTest, CallsWithADecimalWhereOnlyAFloatWillDo) {
  EXPECT_THAT(run({"call Motor setSpeed 2.5", "call Motor setSpeed 1.0"}), ElementsAre("0.5", "2.5"));
  run({"call Motor setSpeed 1e300", "call Motor setSpeed 1"});
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("setSpeed(Double)"), HasSubstr("setSpeed(Int)")));
}

TEST_F(ConsoleTest, PrintsNothingForACallThatReturnsNothing) {
  EXPECT_THAT(run({"call HXMemory insertData \"Foo\" [1, 2]", "get Foo"}), ElementsAre("[1,2]"));
}

TEST_F(ConsoleTest, EmitsASignal) {
  int stalls = 0;
  motor->stalled.connect(mw::SignalSubscriber([&](int by) { stalls += by; }));
  run({"emit Motor stalled 3"});
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
  EXPECT_THAT(console.complete("un"), ElementsAre("unwatch"));
  EXPECT_THAT(console.complete("get F"), ElementsAre("Fob", "Foo"));
  EXPECT_THAT(console.complete("get Foo "), ElementsAre("Fob", "Foo"));
}

}  // namespace
}  // namespace korvo
