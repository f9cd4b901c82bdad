#include <hxvalue/hxvalue.h>

#include <limits>
#include <tuple>

#include <gtest/gtest.h>

namespace HX {
namespace {

TEST(Text, isOneReadableLine) {
  const std::tuple<HXValue, std::string, std::string> cases[] = {
      {5'000'000'000L, "5000000000", "Int64 5000000000"},
      {0.1F, "0.1", "Float 0.1"},
      {1e30, "1e+30", "Double 1e+30"},
      {-0.0, "-0.0", "Double -0.0"},
      {-std::numeric_limits<float>::quiet_NaN(), "nan", "Float nan"},
      {-std::numeric_limits<double>::infinity(), "-inf", "Double -inf"},
      {"a\"\n\x1b", R"("a\"\n\u001b")", R"(String "a\"\n\u001b")"},
      {"\x7f\xc2\x80\xc2\x9f\xc2\xa0", "\"\\u007f\\u0080\\u009f\xc2\xa0\"", "String \"\\u007f\\u0080\\u009f\xc2\xa0\""},
      {"a\xff", "\"a\uFFFD\"", "String \"a\uFFFD\""},
      {HXValue::Binary(4), "<4 bytes>", "Binary <4 bytes>"},
      {HXValue::list({"a", 1, HXValue::list({2.0F}), HXValue()}), R"(["a", 1, [2.0], null])",
       R"(List [String "a", Int 1, List [Float 2.0], Invalid])"},
      {HXValue::map({{"y", true}, {"x", HXValue::map()}}), R"({"x": {}, "y": true})",
       R"(Map {"x": Map {}, "y": Bool true})"}};
  for (const auto& [value, compact, typed] : cases) {
    EXPECT_EQ(value.toString(), compact);
    EXPECT_EQ(value.toString(HXValue::Verbosity::Typed), typed);
  }
}

}  // namespace
}  // namespace HX
