#include <hxvalue/json.h>
#include <hxvalue/jsonschema.h>

#include <limits>

#include <gtest/gtest.h>

namespace {

using HX::HXValue;
using HX::jsonSchemaOf;
using HX::toJsonMessage;

TEST(JsonSchema, NamesTypesThatViewersTakeAndLeavesOutTheOthers) {
  const HXValue bytes = HXValue(HXValue::Binary{std::byte{0xFB}, std::byte{0xEF}, std::byte{0xBE}, std::byte{1}});
  const struct {
    HXValue value;
    const char* schema;  // Of "value"; null where it is left out.
    const char* message;
  } cases[] = {
      {true, R"({"type":"boolean"})", "true"},
      {7, R"({"type":"integer"})", "7"},
      {std::int64_t{1} << 40U, R"({"type":"integer"})", "1099511627776"},
      {0.5F, R"({"type":"number"})", "0.5"},
      {std::numeric_limits<double>::quiet_NaN(), R"({"type":"number"})", "null"},
      {"a\"b", R"({"type":"string"})", R"("a\"b")"},
      {bytes, R"({"type":"string","contentEncoding":"base64"})", R"("++++AQ==")"},
      {HXValue::list({1, 2.5}), R"({"type":"array","items":{"type":"number"}})", "[1,2.5]"},
      {HXValue::list({true, false}), R"({"type":"array","items":{"type":"boolean"}})", "[true,false]"},
      {HXValue::map({{"x", 1.0}, {"raw", bytes}, {"odd", HXValue::list()}}),
       R"({"type":"object","properties":{"raw":{"type":"string","contentEncoding":"base64"},"x":{"type":"number"}}})",
       R"({"odd":[],"raw":"++++AQ==","x":1.0})"},
      {HXValue::list({HXValue::map({{"x", 1}}), HXValue::map({{"x", 2}})}),
       R"({"type":"array","items":{"type":"object","properties":{"x":{"type":"integer"}}}})", R"([{"x":1},{"x":2}])"},
      {HXValue(), nullptr, "null"},
      {HXValue::list(), nullptr, "[]"},
      {HXValue::map(), nullptr, "{}"},
      {HXValue::list({1, true}), nullptr, "[1,true]"},
      {HXValue::list({HXValue::list({1})}), nullptr, "[[1]]"},
  };
  for (const auto& [value, schema, message] : cases) {
    const std::string wanted = schema ? std::string("\"value\":") + schema : std::string();
    EXPECT_EQ(jsonSchemaOf(value).text, R"({"type":"object","properties":{)" + wanted + "}}") << value.toString();
    EXPECT_EQ(toJsonMessage(value), std::string("{\"value\":") + message + "}");
  }
}

TEST(JsonSchema, HasOneNameForOneShape) {
  const auto nameOf = [](const HXValue& value) { return jsonSchemaOf(value).name; };
  EXPECT_EQ(nameOf(1), nameOf(std::int64_t{1} << 40U));
  EXPECT_EQ(nameOf(HXValue::map({{"x", 1}})), nameOf(HXValue::map({{"x", 2}})));
  EXPECT_NE(nameOf(HXValue::map({{"x", 1}})), nameOf(HXValue::map({{"y", 1}})));
  EXPECT_EQ(nameOf(HXValue()), nameOf(HXValue::list())) << "nothing is said of either";
}

TEST(JsonSchema, StaysReadableHoweverDeepAValueIs) {
  HXValue deep = 1;
  for (int i = 0; i < 2000; ++i) deep = i % 2 == 0 ? HXValue::list({deep}) : HXValue::map({{"in", deep}});
  EXPECT_NO_THROW(HX::fromJson(toJsonMessage(deep)));
  EXPECT_LT(jsonSchemaOf(deep).text.size(), 1000U);
}

}  // namespace
