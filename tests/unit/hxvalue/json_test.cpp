#include "expect_error.h"
#include "print_value.h"

#include <hxvalue/json.h>

#include <cmath>
#include <cstdint>
#include <limits>

namespace HX {
namespace {

TEST(Json, writesAndReadsTheSame) {
  using Int = std::numeric_limits<std::int32_t>;
  using Int64 = std::numeric_limits<std::int64_t>;
  const std::pair<HXValue, std::string> cases[] = {
      {{}, "null"},
      {true, "true"},
      {Int::min(), "-2147483648"},
      {Int::max(), "2147483647"},
      {2147483648L, "2147483648"},
      {Int64::min(), "-9223372036854775808"},
      {Int64::max(), "9223372036854775807"},
      {1.0, "1.0"},
      {-0.0, "-0.0"},
      {5e-324, "5e-324"},
      {std::string("a\0\n\"\\\u00e9", 7), R"("a\u0000\n\"\\é")"},
      {HXValue::list({1, HXValue::list(), "b"}), R"([1,[],"b"])"},
      {HXValue::map({{"", 1}, {"k", HXValue::list({HXValue()})}}), R"({"":1,"k":[null]})"}};
  for (const auto& [value, text] : cases) {
    EXPECT_EQ(toJson(value), text);
    EXPECT_EQ(fromJson(text), value);
    EXPECT_FALSE(toJsonText(value).replaced);
  }
}

TEST(Json, readsOtherSpellings) {
  EXPECT_EQ(fromJson(" 1e3\n"), 1000.0);
  EXPECT_EQ(fromJson("-0"), 0);
  EXPECT_EQ(fromJson(R"( [ "\u00e9\ud83e\udd16" , { } ] )"), HXValue::list({"\u00e9\U0001f916", HXValue::map()}));
}

TEST(Json, printsFloatsAsTheShortestOfTheirPrecisionAndNoNumberAsNull) {
  const HXValue floats = HXValue::list({0.1F, 16777216.0F, std::numeric_limits<float>::quiet_NaN(), HUGE_VAL});
  EXPECT_EQ(toJson(floats), "[0.1,16777216.0,null,null]");
}

TEST(Json, tellsWhenBytesThatAreNotUtf8WereReplaced) {
  const HXValue::Binary bytes{std::byte{'a'}, std::byte{0xff}};
  for (const HXValue& value :
       {HXValue("a\xff"), HXValue(bytes), HXValue::map({{"a\xff", 1}}), HXValue::list({"a\xff", "b"})}) {
    const auto [text, replaced] = toJsonText(value);
    EXPECT_THAT(text, testing::HasSubstr("\"a\uFFFD\""));
    EXPECT_TRUE(replaced);
  }
  const HXValue::Binary ascii{std::byte{'a'}};
  EXPECT_EQ(toJson(ascii), R"("a")");
  EXPECT_FALSE(toJsonText(ascii).replaced);
}

TEST(Json, acceptsAsManyLevelsAsItPromises) {
  const auto nested = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  EXPECT_EQ(toJson(fromJson(nested(kMaxJsonDepth))), nested(kMaxJsonDepth));
  EXPECT_EQ(errorOf([&] { fromJson(nested(kMaxJsonDepth + 1)); }), "JSON line 1, column 513: nested deeper than 512");
}

TEST(Json, isRefusedInOneLineThatSaysWhere) {
  const std::string syntax = "syntax error while parsing ";
  const std::pair<std::string, std::string> cases[] = {
      {"", "0: " + syntax + "value - unexpected end of input; expected '[', '{', or a literal"},
      {"[1,   2", "7: " + syntax + "array - unexpected end of input; expected ']'"},
      {"[1] 2", "5: " + syntax + "value - unexpected number literal; expected end of input"},
      {"NaN", "1: " + syntax + "value - invalid literal"},
      {"\"a\xff\"", "3: " + syntax + "value - invalid string: ill-formed UTF-8 byte"},
      {"1e999", "5: number overflow parsing '1e999'"},
      {"[9223372036854775808]", "21: the integer 9223372036854775808 does not fit 64 bits"},
      {"-9223372036854775809", "20: the integer -9223372036854775809 does not fit 64 bits"},
      {"1" + std::string(60, '0'), "61: the integer 1000000000000000000000000000000000000000... does not fit 64 bits"}};
  for (const auto& [text, error] : cases) {
    EXPECT_EQ(errorOf([&text = text] { fromJson(text); }), "JSON line 1, column " + error);
  }
  EXPECT_EQ(errorOf([] { fromJson("{\"a\":1,\n\"a\":2}"); }),
            "JSON line 2, column 3: the key \"a\" occurs twice in one map");
}

}  // namespace
}  // namespace HX
