#include "commands/keyrecord.h"

#include "expect_error.h"

#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvo {
namespace {

using HX::HXValue;
using testing::HasSubstr;

TEST(KeyRecord, ComesBackFromItsLineAsItWas) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  const HXValue values[] = {
      {}, 1, 1L, 1.5, 1.5f, kInfinity, "text", "\xff", HXValue::binary({}), HXValue::list({1, 2.0f})};
  for (const HXValue& value : values) {
    EXPECT_EQ(toRecord(toLine({"", "Data", value, ""})).key, "") << "a name like any";
    const KeyRecord back = toRecord(toLine({"Left arm", "Event", value, "A \"text\""}));
    EXPECT_EQ(back.key, "Left arm");
    EXPECT_EQ(back.kind, "Event");
    EXPECT_EQ(back.value, value);
    EXPECT_EQ(back.description, "A \"text\"");
  }
}

TEST(KeyRecord, SaysWhatIsWrongWithALine) {
  const std::pair<const char*, const char*> cases[] = {
      {"{", "JSON"},
      {"[1]", "it is no object"},
      {"{\"value\":1}", "it has no key"},
      {"{\"key\":1,\"value\":1}", "key is no string"},
      {"{\"key\":\"k\"}", "it has no value"},
      {"{\"key\":\"k\",\"kind\":\"event\",\"value\":1}", "event is no kind"},
      {"{\"key\":\"k\",\"value\":1,\"msgpack\":\"0\"}", "msgpack: no hexadecimal digits at character 1"},
      {"{\"key\":\"k\",\"value\":1,\"msgpack\":\"01zz\"}", "at character 3"},
      {"{\"key\":\"k\",\"value\":1,\"msgpack\":\"c1\"}", "byte"}};
  for (const auto& [line, error] : cases) {
    EXPECT_THAT(errorOf([&text = line] { toRecord(text); }), HasSubstr(error)) << line;
  }
}

}  // namespace
}  // namespace korvo
