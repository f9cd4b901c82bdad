#include "expect_error.h"
#include "print_value.h"

#include <hxvalue/hxvalue.h>

#include <cmath>
#include <limits>

namespace HX {
namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

TEST(Numbers, convertToIntegersTowardsZeroAndToDecimals) {
  EXPECT_EQ(HXValue(-3.9).toInt(), -3);
  EXPECT_EQ(HXValue(2147483647.9).toInt(), 2147483647);
  EXPECT_EQ(HXValue(-2147483648.9).toInt(), std::numeric_limits<int>::min());
  EXPECT_EQ(HXValue(-0x1p63).toInt64(), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(HXValue(16'777'217).toFloat(), 16'777'216.0F);
  EXPECT_EQ(HXValue(kInfinity).toFloat(), std::numeric_limits<float>::infinity());
  EXPECT_TRUE(std::isnan(HXValue(kNan).toFloat()));
}

TEST(Numbers, convertToBoolByWhetherTheyDifferFromZero) {
  for (const HXValue& yes : {HXValue(true), HXValue(std::int64_t{1} << 40), HXValue(1e-300)}) EXPECT_TRUE(yes.toBool());
  for (const HXValue& no : {HXValue(false), HXValue(0), HXValue(-0.0F)}) EXPECT_FALSE(no.toBool());
  EXPECT_EQ(errorOf([] { HXValue(kNan).toBool(); }), "the number nan is neither true nor false");
}

TEST(Numbers, thatDoNotFitAreNamed) {
  EXPECT_EQ(errorOf([] { HXValue(std::int64_t{1} << 31).toInt(); }), "the number 2147483648 does not fit Int");
  EXPECT_EQ(errorOf([] { HXValue(0x1p31F).toInt(); }), "the number 2147483648.0 does not fit Int");
  EXPECT_EQ(errorOf([] { HXValue(0x1p63).toInt64(); }), "the number 9223372036854775808.0 does not fit Int64");
  EXPECT_EQ(errorOf([] { HXValue(kNan).toInt(); }), "the number nan does not fit Int");
  EXPECT_EQ(errorOf([] { HXValue(-kInfinity).toInt64(); }), "the number -inf does not fit Int64");
  EXPECT_EQ(errorOf([] { HXValue(1e39).toFloat(); }), "the number 1e+39 does not fit Float");
  EXPECT_EQ(errorOf([] { HXValue{~std::uint64_t{0}}; }), "the number 18446744073709551615 does not fit Int64");
}

TEST(Numbers, areNotMadeOfOtherTypes) {
  EXPECT_EQ(errorOf([&] { HXValue(true).toInt(); }), "the value is of type Bool, not a number");
  for (const HXValue& other : {HXValue(), HXValue("5"), HXValue::list({5})}) errorOf([&] { other.toInt(); });
}

}  // namespace
}  // namespace HX
