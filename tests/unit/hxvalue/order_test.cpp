#include "print_value.h"

#include <hxvalue/hxvalue.h>

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

namespace HX {
namespace {

TEST(Order, isByTypeAndThenByContent) {
  constexpr double infinity = std::numeric_limits<double>::infinity();
  constexpr double nan = std::numeric_limits<double>::quiet_NaN();
  // clang-format off
  const std::vector<HXValue> ascending{
      {}, false, true, std::numeric_limits<int>::min(), -1, 1, -1L, 1L, -1.0F, 1.0F,
      -infinity, -1.0, 0.0, 1.0, infinity, nan, "", "a", "a\x7f", "a\x80", "b",
      HXValue::Binary{}, HXValue::Binary{std::byte{1}}, HXValue::Binary{std::byte{200}},
      HXValue::list(), HXValue::list({1}), HXValue::list({1, 1}), HXValue::list({2}), HXValue::list({HXValue::list({1})}),
      HXValue::map(), HXValue::map({{"a", 2}}), HXValue::map({{"a", 2}, {"b", 1}}), HXValue::map({{"b", 1}})};
  // clang-format on
  for (std::size_t i = 0; i < ascending.size(); ++i) {
    for (std::size_t j = 0; j < ascending.size(); ++j) {
      EXPECT_EQ(ascending[i] <=> ascending[j], std::weak_ordering(i <=> j)) << i << " and " << j;
      EXPECT_EQ(ascending[i] == ascending[j], i == j) << i << " and " << j;
    }
  }
}

TEST(Order, countsBothZerosAsOneAndEveryNanAsOne) {
  EXPECT_EQ(HXValue(0.0), HXValue(-0.0));
  EXPECT_EQ(HXValue(0.0F), HXValue(-0.0F));
  EXPECT_EQ(HXValue(std::nan("")), HXValue(-std::nan("")));
}

}  // namespace
}  // namespace HX
