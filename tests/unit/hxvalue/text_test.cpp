#include <hxvalue/hxvalue.h>

#include <limits>

#include <gtest/gtest.h>

namespace HX {
namespace {

struct TextCase {
  HXValue value;
  const char* compact;
  const char* typed;
};

void PrintTo(const TextCase& testCase, std::ostream* out) { *out << testCase.compact; }

class Text : public testing::TestWithParam<TextCase> {};

INSTANTIATE_TEST_SUITE_P(
    HXValue, Text,
    testing::Values(TextCase{{}, "null", "Invalid"}, TextCase{true, "true", "Bool true"}, TextCase{-5, "-5", "Int -5"},
                    TextCase{5'000'000'000L, "5000000000", "Int64 5000000000"}, TextCase{1.0F, "1.0", "Float 1.0"},
                    TextCase{0.1F, "0.1", "Float 0.1"}, TextCase{0.1, "0.1", "Double 0.1"},
                    TextCase{1e30, "1e+30", "Double 1e+30"}, TextCase{-0.0, "-0.0", "Double -0.0"},
                    TextCase{-std::numeric_limits<float>::quiet_NaN(), "nan", "Float nan"},
                    TextCase{-std::numeric_limits<double>::infinity(), "-inf", "Double -inf"},
                    TextCase{"a\"\n\x1b", R"("a\"\n\u001b")", R"(String "a\"\n\u001b")"},
                    TextCase{"a\xff", "\"a\uFFFD\"", "String \"a\uFFFD\""},
                    TextCase{HXValue::Binary(4), "<4 bytes>", "Binary <4 bytes>"},
                    TextCase{HXValue::list(), "[]", "List []"},
                    TextCase{HXValue::list({"a", 1, HXValue::list({2.0F}), HXValue()}), R"(["a", 1, [2.0], null])",
                             R"(List [String "a", Int 1, List [Float 2.0], Invalid])"},
                    TextCase{HXValue::map({{"y", 1}, {"x", HXValue::map()}}), R"({"x": {}, "y": 1})",
                             R"(Map {"x": Map {}, "y": Int 1})"}));

TEST_P(Text, isOneReadableLine) {
  const auto& [value, compact, typed] = GetParam();
  EXPECT_EQ(value.toString(), compact);
  EXPECT_EQ(value.toString(HXValue::Verbosity::Typed), typed);
}

}  // namespace
}  // namespace HX
