#include "end_broker.h"
#include "expect_error.h"

#include <hxcommon/hxbroker.h>
#include <hxcommon/hxmodule.h>
#include <hxcommon/settings.h>
#include <hxcommon/units.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using HX::GivenSetting;
using HX::GivenSettings;
using HX::HXBroker;
using HX::HXModule;
using HX::HXValue;
using HX::Setting;
using testing::ElementsAre;
using namespace std::chrono_literals;

TEST(Units, AreReadFromTexts) {
  const std::pair<const char*, std::chrono::nanoseconds> durations[] = {{"200ms", 200ms}, {"1.5s", 1500ms}, {"0s", 0s},
                                                                        {"2min", 120s},   {"1h", 3600s},    {"1d", 24h},
                                                                        {"7us", 7us},     {"3ns", 3ns}};
  for (const auto& [text, duration] : durations) EXPECT_EQ(HX::toDuration(text), duration) << text;
  const std::pair<const char*, std::uint64_t> sizes[] = {{"512B", 512},       {"64KiB", 65536},
                                                         {"1GiB", 1U << 30U}, {"1.5kB", 1500},
                                                         {"2MB", 2'000'000},  {"1TiB", std::uint64_t{1} << 40U}};
  for (const auto& [text, bytes] : sizes) EXPECT_EQ(HX::toBytes(text), bytes) << text;
}

TEST(Units, SayWhatIsNone) {
  for (const char* text : {"", "5", "ms", "-1s", "1 s", "1m", "1e3s", "inf s", "nans", "1s "}) {
    EXPECT_THROW(HX::toDuration(text), std::runtime_error) << text;
  }
  EXPECT_EQ(errorOf([] { HX::toDuration(5); }), R"(5 is no duration: write "200ms", "1.5s", "2min" or "1h")");
  EXPECT_EQ(errorOf([] { HX::toDuration("107000d"); }), R"("107000d" is too much for a duration)");
  EXPECT_EQ(errorOf([] { HX::toBytes("1GIB"); }), R"("1GIB" is no size: write "512B", "64KiB" or "1GiB")");
}

/// What a module finds, given `value` for its one setting.
std::string readAs(const Setting& setting, const HXValue& value) {
  try {
    return setting.read(value).toString(HXValue::Verbosity::Typed);
  } catch (const std::exception& error) {
    return error.what();
  }
}

TEST(Settings, AreReadByTheirTypesAndBounds) {
  const auto number = Setting::number("n", 1, "").between(0, 2.5);
  const auto mode = Setting::text("m", "fast", "").oneOf({"fast", "slow"});
  const auto modes = Setting::texts("m", {"fast"}, "").oneOf({"fast", "slow"});
  const auto period = Setting::duration("p", "1s", "").between("10ms", "1h");
  const auto keys = Setting::texts("k", {}, "");
  struct Case {
    const Setting& setting;
    HXValue value;
    const char* read;
  };
  const Case cases[] = {
      {number, 2, "Double 2.0"},
      {number, 3, "3 is not from 0.0 to 2.5"},
      {number, std::numeric_limits<double>::quiet_NaN(), "nan is not from 0.0 to 2.5"},
      {number, true, "true is no number"},
      {number, "1", "\"1\" is no number"},
      {mode, "slow", "String \"slow\""},
      {mode, "slwo", "no \"slwo\"; did you mean slow?"},
      {mode, "x", "no \"x\"; there is fast, slow"},
      {mode, 1, "1 is no text: write it in quotes"},
      {modes, HXValue::list({"slow", "x"}), "no \"x\"; there is fast, slow"},
      {period, "50ms", "String \"50ms\""},
      {period, "9ms", "\"9ms\" is not from \"10ms\" to \"1h\""},
      {keys, HXValue::list({"a", "b"}), "List [String \"a\", String \"b\"]"},
      {keys, HXValue::list({"a", 1}), "[\"a\", 1] is no list of texts: write [\"…\", \"…\"]"},
      {keys, "a", "\"a\" is no list of texts: write [\"…\", \"…\"]"},
  };
  for (const Case& one : cases) EXPECT_EQ(readAs(one.setting, one.value), one.read);
  EXPECT_EQ(period.range(), R"(duration from "10ms" to "1h")");
}

TEST(Settings, ThatCanNeverBeRightAreRefusedWhenTheyAreDeclared) {
  const std::function<void()> faults[] = {
      [] { Setting::text("", "", ""); },
      [] { Setting::text("Two words", "", ""); },
      [] { Setting::duration("p", "soon", ""); },
      [] { Setting::number("n", 5, "").between(0, 1); },
      [] { Setting::number("n", 5, "").between(9, 1); },
      [] { Setting::flag("f", true, "").between(false, true); },
      [] { Setting::text("m", "fast", "").oneOf({"slow"}); },
      [] { Setting::number("n", 5, "").oneOf({"slow"}); },
  };
  for (const auto& fault : faults) EXPECT_THROW(fault(), std::logic_error);
}

/// A module with some settings.
class Gripper : public HXModule {
 public:
  Gripper(const std::shared_ptr<HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
    addSetting(Setting::duration("period", "20ms", "Time from one command to the next."));
    addSetting(Setting::integer("joints", 6, "How many it has.").between(1, 12));
    if (settings()["joints"].asInt() == 7) refuseSetting("joints", "seven make it tip over");
    EXPECT_THROW(refuseSetting("fingers", "nobody declared them"), std::logic_error);
  }
  using HXModule::addSetting;
};

class ModuleSettings : public testing::Test {
 protected:
  void TearDown() override { kit::endBroker(*broker); }

  /// As a file gives them: each value in a line of its own.
  static GivenSettings fromFile(const std::vector<std::pair<std::string, HXValue>>& values) {
    GivenSettings given{{"robot.toml", 1, 2}, {}};
    std::uint32_t line = 1;
    for (const auto& [name, value] : values) {
      ++line;
      given.entries.emplace(name, GivenSetting{value, {"robot.toml", line, 1}, {"robot.toml", line, 9}, nullptr});
    }
    return given;
  }

  std::vector<std::string> problemsWith(const GivenSettings& given) {
    broker->provideSettings("Arm", given);
    try {
      HXModule::createModule<Gripper>(broker, "Arm");
    } catch (const HX::SettingsError& error) {
      EXPECT_THAT(broker->modules(), ElementsAre());
      return error.problems();
    }
    return {};
  }

  std::shared_ptr<HXBroker> broker = HXBroker::create("settings");
};

TEST_F(ModuleSettings, AreWhatWasGivenAndOtherwiseTheDefaults) {
  broker->provideSettings("Arm", GivenSettings::of(HXValue::map({{"joints", 8}})));
  broker->provideSettings("Leg", GivenSettings::of(HXValue::map({{"joints", 3}})));
  const auto arm = HXModule::createModule<Gripper>(broker, "Arm");
  EXPECT_EQ(arm->settings(), HXValue::map({{"joints", 8}, {"period", "20ms"}}));
  const auto told = broker->getProxy("Arm")->call<HXValue>("settings");
  EXPECT_EQ(told, broker->describeModule("Arm").toValue()) << "as other processes ask";
  EXPECT_EQ(told["settings"][0], HXValue::map({{"name", "period"},
                                               {"range", "duration"},
                                               {"text", "Time from one command to the next."},
                                               {"value", "20ms"}}))
      << "in the order of their declaration";
  EXPECT_THROW(arm->addSetting(Setting::flag("late", true, "")), std::logic_error);
}

TEST_F(ModuleSettings, ThatAreWrongOrUnknownKeepTheModuleOutAndAreAllTold) {
  EXPECT_THAT(problemsWith(fromFile({{"joints", 13}, {"perod", "1s"}, {"period", 5}})),
              ElementsAre("robot.toml:4:9: Arm.period: 5 is no duration: write \"200ms\", \"1.5s\", \"2min\" or \"1h\"",
                          "robot.toml:2:9: Arm.joints: 13 is not from 1 to 12",
                          "robot.toml:3:1: Arm.perod: no such setting; did you mean period?"));
  EXPECT_THAT(problemsWith(fromFile({{"x", HXValue::map()}})),
              ElementsAre("robot.toml:2:1: Arm.x: no such setting; there is period, joints"));
  EXPECT_THAT(problemsWith(fromFile({{"joints", 7}, {"perod", "1s"}})),
              ElementsAre("robot.toml:2:9: Arm.joints: seven make it tip over",
                          "robot.toml:3:1: Arm.perod: no such setting; did you mean period?"))
      << "what the module itself finds";
  EXPECT_THAT(problemsWith(fromFile({})), ElementsAre()) << "and mended it starts";
}

TEST_F(ModuleSettings, ThatAreRequiredAreMissed) {
  class Camera : public HXModule {
   public:
    Camera(const std::shared_ptr<HXBroker>& parent, const std::string& name) : HXModule(parent, name) {
      addSetting(Setting::text("device", "/dev/video0", "Where it is.").required());
      EXPECT_THROW(settings(), HX::SettingsError) << "rather than the example";
    }
  };
  broker->provideSettings("Camera", fromFile({}));
  EXPECT_EQ(errorOf([&] { HXModule::createModule<Camera>(broker, "Camera"); }),
            "robot.toml:1:2: Camera.device is missing: Where it is.");
}

/// Two modules in one library, the fixture `pair`: Left and Right, each with the setting `speed`.
class LibrarySettings : public ModuleSettings {
 protected:
  const std::string library = KORVO_TEST_FIXTURES "/libhxcommon_pair.so";

  static GivenSetting tableOf(const HXValue& values) {
    return {values,
            {"robot.toml", 5, 1},
            {"robot.toml", 5, 1},
            std::make_shared<const GivenSettings>(GivenSettings::of(values))};
  }
};

TEST_F(LibrarySettings, AreOfAllItsModulesOrOfOneByItsName) {
  GivenSettings given = fromFile({{"speed", 2}});
  given.entries.emplace("Right", tableOf(HXValue::map({{"speed", 3}})));
  broker->provideSettings("hxcommon_pair", given);
  broker->loadModule(library);
  EXPECT_EQ(broker->describeModule("Left").values, HXValue::map({{"speed", 2}}));
  EXPECT_EQ(broker->describeModule("Right").values, HXValue::map({{"speed", 3}}));
}

TEST_F(LibrarySettings, ThatAreNobodysTakeItsModulesOutAgain) {
  GivenSettings given;
  given.entries.emplace("Rihgt", tableOf(HXValue::map({{"speed", 3}})));
  broker->provideSettings("hxcommon_pair", given);
  EXPECT_EQ(errorOf([&] { broker->loadModule(library); }),
            "robot.toml:5:1: hxcommon_pair.Rihgt: no such setting, nor a module of that name; did you mean Right?");
  EXPECT_THAT(broker->modules(), ElementsAre());
}

TEST_F(LibrarySettings, AreToldWithoutRunningIt) {
  const auto modules = broker->examineModule(library);
  ASSERT_EQ(modules.size(), 2U);
  EXPECT_EQ(modules[1].name, "Right");
  EXPECT_EQ(modules[1].values, HXValue::map({{"speed", 1}}));
  EXPECT_THAT(broker->modules(), ElementsAre());
  EXPECT_EQ(HXBroker::libraryName(library), "hxcommon_pair");
}

}  // namespace
