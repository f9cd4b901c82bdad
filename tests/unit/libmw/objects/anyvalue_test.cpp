#include "door.h"
#include "expect_error.h"

#include <libmw/anyvalue.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

using HX::HXValue;
using mw::AnyReference;
using mw::AnyValue;

/// Counts its living instances; as large and as aligned as asked for.
template <std::size_t size, std::size_t alignment>
struct alignas(alignment) Counted {
  static inline int alive = 0;
  explicit Counted(int given) : number(given) { ++alive; }
  Counted(const Counted& other) : number(other.number) { ++alive; }
  Counted(Counted&& other) noexcept : number(std::exchange(other.number, -1)) { ++alive; }
  Counted& operator=(const Counted&) = default;
  ~Counted() { --alive; }
  int number;
  std::array<char, size> ballast{};
};

template <class T>
class AnyValueOf : public testing::Test {
 protected:
  ~AnyValueOf() override { EXPECT_EQ(T::alive, 0) << "leaked or destroyed twice"; }
};

using Layouts = testing::Types<Counted<1, 4>, Counted<200, 4>, Counted<8, 64>>;
TYPED_TEST_SUITE(AnyValueOf, Layouts);

TYPED_TEST(AnyValueOf, CopiesMovesAndAssigns) {
  AnyValue first(TypeParam(7));
  const TypeParam* held = first.getIf<TypeParam>();
  ASSERT_TRUE(held);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(held) % alignof(TypeParam), 0U);

  AnyValue copy(first);
  EXPECT_EQ(copy.getIf<TypeParam>()->number, 7);
  EXPECT_EQ(first.getIf<TypeParam>()->number, 7);

  AnyValue moved(std::move(first));
  EXPECT_FALSE(first);
  copy = std::move(moved);
  EXPECT_FALSE(moved);
  copy = AnyValue(TypeParam(8));
  EXPECT_EQ(copy.getIf<TypeParam>()->number, 8);
  AnyValue& same = copy;
  copy = same;
  copy = std::move(same);
  EXPECT_EQ(copy.getIf<TypeParam>()->number, 8);
  copy = AnyValue(std::string("text"));
  EXPECT_EQ(TypeParam::alive, 0);
  EXPECT_EQ(std::move(copy).template take<std::string>(), "text");
}

TEST(AnyValue, HoldsWhatCanOnlyBeMoved) {
  AnyValue value(std::make_unique<int>(5));
  EXPECT_NE(errorOf([&] { AnyValue copy(value); }).find("cannot be copied"), std::string::npos);
  AnyValue moved(std::move(value));
  AnyValue whole = std::move(moved).take<AnyValue>();
  const auto pointer = std::move(whole).take<std::unique_ptr<int>>();
  EXPECT_EQ(*pointer, 5);
}

struct ThrowsWhenMade {
  explicit ThrowsWhenMade(bool now) {
    if (now) throw std::runtime_error("made to fail");
  }
  std::array<char, 100> ballast{};
};

TEST(AnyValue, IsEmptyWhenItsContentCannotBeMade) {
  AnyValue value(std::string("before"));
  EXPECT_EQ(errorOf([&] { value.emplace<ThrowsWhenMade>(true); }), "made to fail");
  EXPECT_FALSE(value);
  value.emplace<ThrowsWhenMade>(false);
  EXPECT_TRUE(value.getIf<ThrowsWhenMade>());
}

TEST(AnyValue, DoesNotNest) {
  const AnyValue inner(3);
  const AnyValue outer{AnyReference::of(inner)};
  EXPECT_EQ(outer.type(), mw::typeOf<int>());
  AnyValue forced;
  forced.emplace<AnyValue>(outer);
  EXPECT_EQ(AnyReference::of(forced).to<int>(), 3);
  EXPECT_FALSE(AnyValue(AnyReference::of(AnyValue())));
}

TEST(AnyValue, NothingConvertsToNothingElse) {
  EXPECT_EQ(errorOf([] { AnyValue().take<int>(); }), "cannot convert nothing to int");
  EXPECT_NO_THROW(AnyValue(1).take<void>());
  EXPECT_FALSE(AnyValue().take<AnyValue>());
}

TEST(AnyValue, IdentityOfObjectsIsTheInstances) {
  registerHouse();
  const auto door = std::make_shared<Door>();
  const auto one = mw::AnyObject::from(door);
  const auto other = AnyReference::of(door).to<mw::AnyObject>();
  EXPECT_NE(one.pointer(), other.pointer());
  EXPECT_EQ(one, other);
  EXPECT_NE(one, mw::AnyObject::from(std::make_shared<Door>()));
  EXPECT_NE(one, mw::AnyObject());
  EXPECT_EQ(mw::AnyObject(), mw::AnyObject::from(std::shared_ptr<Door>()));
  EXPECT_EQ(errorOf([] { mw::AnyObject()->call("open"); }), "This object is null");
}

}  // namespace
