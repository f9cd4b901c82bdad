#include "expect_error.h"
#include "print_value.h"
#include "random_value.h"

#include <hxvalue/json.h>

#include <cstdint>
#include <limits>

namespace HX {
namespace {

struct JsonCase {
  HXValue value;
  std::string text;
};

void PrintTo(const JsonCase& testCase, std::ostream* out) { *out << testCase.text; }

class BothWays : public testing::TestWithParam<JsonCase> {};

INSTANTIATE_TEST_SUITE_P(
    Json, BothWays,
    testing::Values(JsonCase{{}, "null"}, JsonCase{true, "true"}, JsonCase{false, "false"}, JsonCase{0, "0"},
                    JsonCase{std::numeric_limits<std::int32_t>::min(), "-2147483648"},
                    JsonCase{std::numeric_limits<std::int32_t>::max(), "2147483647"},
                    JsonCase{2147483648L, "2147483648"}, JsonCase{-2147483649L, "-2147483649"},
                    JsonCase{std::numeric_limits<std::int64_t>::min(), "-9223372036854775808"},
                    JsonCase{std::numeric_limits<std::int64_t>::max(), "9223372036854775807"}, JsonCase{1.0, "1.0"},
                    JsonCase{0.1, "0.1"}, JsonCase{-0.0, "-0.0"}, JsonCase{1e300, "1e+300"}, JsonCase{5e-324, "5e-324"},
                    JsonCase{"", R"("")"}, JsonCase{std::string("a\0\n\"\\\u00e9", 7), R"("a\u0000\n\"\\é")"},
                    JsonCase{HXValue::list(), "[]"}, JsonCase{HXValue::map(), "{}"},
                    JsonCase{HXValue::list({1, HXValue::list(), "b"}), R"([1,[],"b"])"},
                    JsonCase{HXValue::map({{"", 1}, {"k", HXValue::list({HXValue()})}}), R"({"":1,"k":[null]})"}));

TEST_P(BothWays, writesAndReadsTheSame) {
  const auto& [value, text] = GetParam();
  EXPECT_EQ(toJson(value), text);
  EXPECT_EQ(fromJson(text), value);
  EXPECT_FALSE(toJsonText(value).replaced);
}

TEST(Json, readsOtherSpellings) {
  EXPECT_EQ(fromJson(" 1e3\n"), 1000.0);
  EXPECT_EQ(fromJson("-0"), 0);
  EXPECT_EQ(fromJson(R"( [ "\u00e9\ud83e\udd16" , { } ] )"), HXValue::list({"\u00e9\U0001f916", HXValue::map()}));
}

TEST(Json, printsDecimalsAsTheShortestOfTheirPrecision) {
  EXPECT_EQ(toJson(0.1F), "0.1");
  EXPECT_EQ(toJson(1e10F), "1e+10");
  EXPECT_EQ(toJson(16777216.0F), "16777216.0");
}

TEST(Json, printsWhatItCannotSayAsNull) {
  EXPECT_EQ(toJson(std::numeric_limits<float>::quiet_NaN()), "null");
  EXPECT_EQ(toJson(std::numeric_limits<double>::infinity()), "null");
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

TEST(Json, roundTripsRandomValues) {
  kit::RandomValues random(2, kit::RandomValues::Kind::Json);
  for (int i = 0; i < 300; ++i) {
    const HXValue value = random.next();
    ASSERT_EQ(fromJson(toJson(value)), value);
  }
}

TEST(Json, acceptsAsManyLevelsAsItPromises) {
  const auto nested = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  EXPECT_EQ(toJson(fromJson(nested(kMaxJsonDepth))), nested(kMaxJsonDepth));
  EXPECT_EQ(errorOf([&] { fromJson(nested(kMaxJsonDepth + 1)); }), "JSON line 1, column 513: nested deeper than 512");
}

struct BadJson {
  std::string text;
  const char* error;
};

void PrintTo(const BadJson& testCase, std::ostream* out) { *out << testCase.text.substr(0, 40); }

class Malformed : public testing::TestWithParam<BadJson> {};

INSTANTIATE_TEST_SUITE_P(
    Json, Malformed,
    testing::Values(
        BadJson{"",
                "JSON line 1, column 0: syntax error while parsing value - unexpected end of input; expected '[', '{', "
                "or a literal"},
        BadJson{"[1,\n 2",
                "JSON line 2, column 2: syntax error while parsing array - unexpected end of input; expected ']'"},
        BadJson{"[1] 2",
                "JSON line 1, column 5: syntax error while parsing value - unexpected number literal; expected end of "
                "input"},
        BadJson{"NaN", "JSON line 1, column 1: syntax error while parsing value - invalid literal"},
        BadJson{"'a'", "JSON line 1, column 1: syntax error while parsing value - invalid literal"},
        BadJson{"\"a\xff\"",
                "JSON line 1, column 3: syntax error while parsing value - invalid string: ill-formed UTF-8 byte"},
        BadJson{"1e999", "JSON line 1, column 5: number overflow parsing '1e999'"},
        BadJson{"[9223372036854775808]",
                "JSON line 1, column 21: the integer 9223372036854775808 does not fit 64 bits"},
        BadJson{"-9223372036854775809",
                "JSON line 1, column 20: the integer -9223372036854775809 does not fit 64 bits"},
        BadJson{"1" + std::string(60, '0'),
                "JSON line 1, column 61: the integer 1000000000000000000000000000000000000000... does not fit 64 bits"},
        BadJson{"{\"a\":1,\n\"a\":2}", "JSON line 2, column 3: the key \"a\" occurs twice in one map"}));

TEST_P(Malformed, isRefusedInOneLineThatSaysWhere) {
  const BadJson& bad = GetParam();
  EXPECT_EQ(errorOf([&] { fromJson(bad.text); }), bad.error);
}

}  // namespace
}  // namespace HX
