#include <hxvalue/msgpack.h>
#include <hxview/codec.h>

#include <array>
#include <limits>

#include <gtest/gtest.h>

namespace HX::view {
namespace {

template <class T>
std::optional<T> decoded(const HXValue& value) {
  const auto bytes = toMsgpack(value);
  T result{};
  const Kind kind{value.getType(), State::Present, static_cast<std::uint32_t>(bytes.size())};
  return decode(kind, bytes, result) ? std::optional(result) : std::nullopt;
}

constexpr std::int64_t kLarge = std::int64_t{1} << 40;

TEST(Codec, ReadsListsOfNumbersAsTheyWereStored) {
  const std::vector<std::int64_t> integers{
      0,    127,  128,    -32,     -33,    255,     256,
      -128, -129, 65'535, -32'768, kLarge, -kLarge, std::numeric_limits<std::int64_t>::min()};
  EXPECT_EQ(decoded<std::vector<std::int64_t>>(HXValue(integers)), integers);
  const std::vector<std::int32_t> small{0, 1, -1, 127, 128, -32, -33, 40'000, 70'000, -70'000};
  EXPECT_EQ(decoded<std::vector<std::int32_t>>(HXValue(small)), small);
  const std::array<float, 3> decimals{0.5F, -1.25F, 1e30F};
  EXPECT_EQ((decoded<std::array<float, 3>>(HXValue(decimals))), decimals);
  EXPECT_EQ(decoded<std::vector<double>>(HXValue(std::array{0.1, -2.0})), (std::vector{0.1, -2.0}));
  EXPECT_EQ(decoded<std::vector<bool>>(HXValue(std::vector<bool>{true, false})), (std::vector<bool>{true, false}));
  EXPECT_EQ(decoded<std::vector<float>>(HXValue(std::vector<float>(70'000, 2.0F))), std::vector<float>(70'000, 2.0F));
}

TEST(Codec, TakesOtherNumbersWhereNothingIsLost) {
  const auto mixed = HXValue::list({1, 0.5F, std::int64_t{2}});
  EXPECT_EQ((decoded<std::array<double, 3>>(mixed)), (std::array{1.0, 0.5, 2.0}));
  EXPECT_EQ((decoded<std::array<float, 3>>(mixed)), (std::array{1.0F, 0.5F, 2.0F}));
  EXPECT_FALSE((decoded<std::array<std::int64_t, 3>>(mixed)));
  EXPECT_FALSE((decoded<std::array<float, 1>>(HXValue::list({0.5}))));
  EXPECT_FALSE((decoded<std::array<float, 1>>(HXValue::list({(1 << 24) + 1}))));
  EXPECT_FALSE((decoded<std::array<std::int32_t, 1>>(HXValue::list({kLarge}))));
  EXPECT_FALSE((decoded<std::array<std::int32_t, 1>>(HXValue::list({true}))));
  EXPECT_FALSE((decoded<std::array<double, 1>>(HXValue::list({"1"}))));
  EXPECT_FALSE((decoded<std::array<double, 2>>(HXValue::list({1.0}))));
  EXPECT_FALSE((decoded<std::array<double, 2>>(HXValue::list({1.0, 2.0, 3.0}))));
}

TEST(Codec, NeverReadsBeyondTheBytes) {
  const auto whole = toMsgpack(HXValue::list({1, kLarge, 0.5F, 0.25, "text", true}));
  const HXValue::Type kTypes[] = {HXValue::Type::List, HXValue::Type::Map,    HXValue::Type::String,
                                  HXValue::Type::Bool, HXValue::Type::Double, static_cast<HXValue::Type>(200)};
  for (const auto type : kTypes) {
    for (std::size_t size = 0; size < whole.size(); ++size) {
      const std::vector<std::byte> cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
      std::vector<double> numbers;
      HXValue value;
      const Kind kind{type, State::Present, static_cast<std::uint32_t>(size)};
      EXPECT_FALSE(decode(kind, cut, numbers)) << size;
      const bool mayBeOne = type != HXValue::Type::List && type <= HXValue::Type::Map;
      EXPECT_TRUE(mayBeOne || !decode(kind, cut, value)) << size;
    }
  }
}

}  // namespace
}  // namespace HX::view
