#include "base/format.h"

#include <libmw/objecttypebuilder.h>

#include <cstdlib>
#include <ctime>
#include <stdexcept>

#include <gtest/gtest.h>

namespace korvo {
namespace {

using HX::HXValue;

struct Door {
  mw::Signal<int> opened;
};

struct Unknown {};

TEST(FormatResult, IsJsonAndNothingForNothing) {
  mw::ObjectTypeBuilder<Door> builder("Door");
  builder.advertiseSignal("opened", &Door::opened).registerType();
  const auto door = std::make_shared<Door>();
  const std::string id = std::to_string(mw::AnyObject::from(door)->number());
  const std::pair<mw::AnyValue, std::optional<std::string>> cases[] = {
      {mw::AnyValue(), std::nullopt},
      {mw::AnyValue(HXValue()), "null"},
      {mw::AnyValue(1.0), "1.0"},
      {mw::AnyValue(0.1f), "0.1"},
      {mw::AnyValue(std::vector<std::string>{"a", "b"}), "[\"a\",\"b\"]"},
      {mw::AnyValue(reinterpret_cast<int*>(0xabc0)), "\"0xabc0\""},
      {mw::AnyValue(door), "{\"object\":\"Door\",\"id\":" + id + "}"},
      {mw::AnyValue(std::shared_ptr<Door>()), "null"}};
  for (const auto& [result, text] : cases) EXPECT_EQ(formatResult(result), text);
  EXPECT_NE(formatResult(mw::AnyValue(Unknown()))->find("Unknown"), std::string::npos) << "it has no value form";
}

TEST(FormatName, IsBareUnlessItsReaderWouldTakeItForAnother) {
  using enum NameReader;
  const std::tuple<const char*, bool, bool> cases[] = {
      {"Arm/Speed", false, false}, {"Left arm", false, true}, {" Arm", true, true},
      {"Arm ", true, true},        {"", true, true},          {"a\nb", true, true},
      {"\"Q", true, true},         {"Höhe", false, false},    {"[0]", false, true},
      {"--json", false, true},     {"a\xc2\x9b", true, true}, {"a\xff", true, true},
      {"$(x)`'", false, false}};
  for (const auto& [name, inShell, inConsole] : cases) {
    EXPECT_EQ(formatName(name, Shell) != name, inShell) << name;
    EXPECT_EQ(formatName(name, Console) != name, inConsole) << name;
  }
}

TEST(FormatTime, IsLocalWithItsOffset) {
  const mw::SystemTimePoint time(std::chrono::seconds(1) + std::chrono::microseconds(250));
  const auto inZone = [&](const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
    return formatTime(time);
  };
  EXPECT_EQ(inZone("UTC"), "1970-01-01T00:00:01.000250+00:00");
  EXPECT_EQ(inZone("XXX-05:30"), "1970-01-01T05:30:01.000250+05:30");
  EXPECT_EQ(inZone("XXX03:30"), "1969-12-31T20:30:01.000250-03:30");
  EXPECT_EQ(inZone("XXX00:30"), "1969-12-31T23:30:01.000250-00:30");
  unsetenv("TZ");
  tzset();
}

TEST(ToStamped, TakesTheThreePartsOnly) {
  const Stamped stamped = toStamped(HXValue::list({"v", 2, 5}));
  EXPECT_EQ(stamped.value, HXValue("v"));
  EXPECT_EQ(stamped.time.time_since_epoch(), std::chrono::microseconds(2'000'005));
  EXPECT_THROW(toStamped(HXValue()), std::runtime_error);
  EXPECT_THROW(toStamped(HXValue::list({"v", 2})), std::runtime_error);
}

TEST(JsonObject, KeepsTheOrderOfItsNamesAndNotesValuesThatJsonCannotTell) {
  EXPECT_EQ(JsonObject().add("z", 1).addText("a", "[2]").addValue("t").text(), "{\"z\":1,\"a\":[2],\"value\":\"t\"}");
  EXPECT_EQ(JsonObject().addValue("\xff").text(), "{\"value\":\"\xef\xbf\xbd\",\"replaced\":true}");
}

}  // namespace
}  // namespace korvo
