#include "door.h"
#include "expect_error.h"
#include "print_value.h"

#include <libmw/anyvalue.h>
#include <libmw/genericobject.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using HX::HXValue;
using mw::AnyReference;
using mw::AnyValue;
using mw::Fit;
using testing::HasSubstr;

template <class T>
void expectBothWays(const char* name, const T& object, const HXValue& value) {
  EXPECT_EQ(mw::typeOf<T>()->name, name);
  EXPECT_EQ(AnyReference::of(object).template to<HXValue>(), value);
  EXPECT_TRUE(AnyReference::of(value).template to<T>() == object) << name;
}

enum class Gait : std::uint8_t { Walk = 2 };

TEST(Conversion, GoesBothWays) {
  using Strings = std::vector<std::string>;
  using Tree = std::map<std::string, std::vector<std::map<std::string, int>>>;
  expectBothWays("bool", true, true);
  expectBothWays("int", -7, -7);
  expectBothWays("int64", std::int64_t{1} << 40, std::int64_t{1} << 40);
  expectBothWays("int8", std::int8_t{-128}, -128);
  expectBothWays("uint8", std::uint8_t{255}, 255);
  expectBothWays("int8", 'c', 99);
  expectBothWays("int16", std::int16_t{-7}, -7);
  expectBothWays("uint16", std::uint16_t{65535}, 65535);
  expectBothWays("uint", std::uint32_t{4'000'000'000U}, std::int64_t{4'000'000'000});
  expectBothWays("int64", 1LL << 40, std::int64_t{1} << 40);
  expectBothWays("uint64", std::size_t{1} << 40, std::int64_t{1} << 40);
  expectBothWays("uint8", Gait::Walk, 2);
  expectBothWays("optional<int>", std::optional<int>(7), 7);
  expectBothWays("optional<string>", std::optional<std::string>(), HXValue());
  expectBothWays("binary", HXValue::Binary{std::byte{1}}, HXValue::Binary{std::byte{1}});
  expectBothWays("map<value>", HXValue::Map{{"k", 1}}, HXValue::map({{"k", 1}}));
  expectBothWays("float", 1.5F, 1.5F);
  expectBothWays("double", 0.1, 0.1);
  expectBothWays("string", std::string("a\0b", 3), std::string("a\0b", 3));
  expectBothWays("value", HXValue("inside"), "inside");
  expectBothWays("list<bool>", std::vector<bool>{true, false}, HXValue::list({true, false}));
  expectBothWays("list<value>", std::vector<HXValue>{1, "x"}, HXValue::list({1, "x"}));
  expectBothWays("list<list<string>>", std::vector<Strings>{{}, {"a"}},
                 HXValue::list({HXValue::list(), HXValue::list({"a"})}));
  expectBothWays("map<list<map<int>>>", Tree{{"k", {{{"x", 1}}}}},
                 HXValue::map({{"k", HXValue::list({HXValue::map({{"x", 1}})})}}));
}

TEST(Conversion, OfAValueSucceedsExactlyWhereItFits) {
  const auto* const integer = mw::typeOf<int>();
  const auto* const wide = mw::typeOf<std::int64_t>();
  const auto* const unsignedInt = mw::typeOf<std::uint32_t>();
  const auto* const real = mw::typeOf<float>();
  const auto* const doubled = mw::typeOf<double>();
  const auto* const text = mw::typeOf<std::string>();
  const auto* const doubles = mw::typeOf<std::vector<double>>();
  const std::int64_t big = std::int64_t{1} << 32;
  // What becomes of a value in a parameter of a type.
  const std::tuple<HXValue, const mw::TypeInterface*, Fit> cases[] = {
      {1, integer, Fit::Exact},
      {1, wide, Fit::Widening},
      {1, doubled, Fit::Widening},
      {true, integer, Fit::None},
      {std::int64_t{1}, integer, Fit::None},
      {big, doubled, Fit::None},
      {1, unsignedInt, Fit::Widening},
      {-1, unsignedInt, Fit::None},
      {big - 1, unsignedInt, Fit::Widening},
      {big, unsignedInt, Fit::None},
      {255, mw::typeOf<std::uint8_t>(), Fit::Widening},
      {std::int64_t{-128}, mw::typeOf<std::int8_t>(), Fit::Widening},
      {300, mw::typeOf<std::uint8_t>(), Fit::None},
      {-129, mw::typeOf<std::int8_t>(), Fit::None},
      {-1, mw::typeOf<std::uint64_t>(), Fit::None},
      {std::numeric_limits<std::int64_t>::max(), mw::typeOf<std::uint64_t>(), Fit::Widening},
      {1.0, mw::typeOf<std::uint8_t>(), Fit::None},
      {300, mw::typeOf<Gait>(), Fit::None},
      {1, mw::typeOf<std::optional<std::int64_t>>(), Fit::Widening},
      {"x", mw::typeOf<std::optional<int>>(), Fit::None},
      {1.5F, doubled, Fit::Widening},
      {1.5, real, Fit::None},
      {1, text, Fit::None},
      {HXValue(), integer, Fit::None},
      {HXValue(), mw::typeOf<HXValue>(), Fit::Variant},
      {HXValue::list({1.0, 2}), doubles, Fit::Widening},
      {HXValue::list({1.0, true}), doubles, Fit::None},
      {HXValue::list({1}), mw::typeOf<std::vector<HXValue>>(), Fit::Variant},
      {HXValue::map({{"k", 1}}), mw::typeOf<std::map<std::string, std::int64_t>>(), Fit::Widening},
      {1, mw::typeOf<AnyValue>(), Fit::Variant},
      {1, mw::typeOf<mw::AnyObject>(), Fit::None}};
  for (const auto& [value, type, fit] : cases) {
    const auto given = AnyReference::of(value);
    EXPECT_EQ(given.fit(type), fit) << value.toString() << " as " << type->name;
    EXPECT_EQ(static_cast<bool>(given.convert(type)), fit != Fit::None) << value.toString() << " as " << type->name;
  }
}

TEST(Conversion, OfANumberOutOfRangeNamesIt) {
  EXPECT_EQ(errorOf([] { AnyReference::of(300).to<std::uint8_t>(); }), "300 does not fit uint8");
  EXPECT_EQ(errorOf([] { AnyReference::of(-1).to<Gait>(); }), "-1 does not fit uint8");
  EXPECT_EQ(errorOf([] { AnyReference::of(std::int64_t{1} << 40).to<int>(); }), "cannot convert int64 to int");
  EXPECT_EQ(errorOf([] { AnyReference::of(~std::uint64_t{0}).to<HXValue>(); }),
            "the number 18446744073709551615 does not fit Int64");
}

TEST(Conversion, OfSharedPointersToObjectsAndBackKeepsTheIdentity) {
  registerHouse();
  const auto door = std::make_shared<Door>();
  const auto object = AnyReference::of(door).to<mw::AnyObject>();
  EXPECT_EQ(object, mw::AnyObject::from(door)) << "whatever the handle";
  EXPECT_NE(object, mw::AnyObject::from(std::make_shared<Door>()));
  EXPECT_EQ(AnyReference::of(AnyValue(object)).to<std::shared_ptr<Door>>(), door);
  EXPECT_EQ(AnyReference::of(std::shared_ptr<Door>()).to<mw::AnyObject>(), mw::AnyObject());
  EXPECT_EQ(AnyReference::of(mw::AnyObject()).to<std::shared_ptr<Door>>(), nullptr);
  EXPECT_EQ(errorOf([] { mw::AnyObject()->call("open"); }), "This object is null");
  EXPECT_THROW(AnyReference::of(object).to<std::shared_ptr<Window>>(), mw::ConversionError);
  EXPECT_EQ(errorOf([&] { AnyReference::of(object).to<HXValue>(); }), "cannot convert object to value");
  EXPECT_EQ(errorOf([] { mw::AnyObject::from(std::make_shared<Unregistered>()); }),
            "type Unregistered is not registered with the middleware");
}

/// Claims to fit, and fails halfway through a list.
struct Brittle {
  int number = 0;
};

}  // namespace

template <>
struct mw::TypeTraits<Brittle> {
  static std::string name() { return "Brittle"; }
  [[maybe_unused]] static constexpr TypeKind kind = TypeKind::Int;
  static Fit fit(const HXValue&) { return Fit::Exact; }
  static bool toValue(const Brittle& from, HXValue& out) { return TypeTraits<int>::toValue(from.number, out); }
  static bool fromValue(const HXValue& value, Brittle* to) {
    if (!value.isInt()) return false;
    new (to) Brittle{value.asInt()};
    return true;
  }
};

namespace {

// What was converted before the failure must go, and nothing else: seen by the address sanitizer.
TEST(Conversion, AnElementThatFailsLeavesNothingBehind) {
  const HXValue value = HXValue::map({{"a", HXValue::list({1, 2})}, {"b", HXValue::list({1, "two"})}});
  using Nested = std::map<std::string, std::vector<Brittle>>;
  EXPECT_THROW(AnyReference::of(value).to<Nested>(), std::logic_error);
}

}  // namespace
