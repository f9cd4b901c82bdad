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
  ASSERT_TRUE(first.getIf<TypeParam>());
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(first.getIf<TypeParam>()) % alignof(TypeParam), 0U);
  AnyValue copy(first);
  EXPECT_EQ(first.getIf<TypeParam>()->number, 7);
  AnyValue moved(std::move(first));
  EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): the point.
  copy = std::move(moved);
  EXPECT_FALSE(moved);  // NOLINT(bugprone-use-after-move): the point.
  AnyValue& same = copy;
  copy = same;
  copy = std::move(same);
  EXPECT_EQ(copy.getIf<TypeParam>()->number, 7);
  copy = AnyValue(std::string("text"));
  EXPECT_EQ(TypeParam::alive, 0);
  EXPECT_EQ(std::move(copy).template take<std::string>(), "text");
}

TEST(AnyValue, HoldsWhatCanOnlyBeMoved) {
  AnyValue value(std::make_unique<int>(5));
  const auto copy = [&]() -> AnyValue { return value; };
  EXPECT_NE(errorOf([&] { copy(); }).find("cannot be copied"), std::string::npos);
  AnyValue whole = std::move(value).take<AnyValue>();
  EXPECT_EQ(*std::move(whole).take<std::unique_ptr<int>>(), 5);
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
  EXPECT_EQ(errorOf([&] { std::move(value).take<int>(); }), "cannot convert nothing to int");
}

TEST(AnyValue, DoesNotNest) {
  const AnyValue inner(3);
  EXPECT_EQ(AnyValue(AnyReference::of(inner)).type(), mw::typeOf<int>());
  AnyValue forced;
  forced.emplace<AnyValue>(inner);
  EXPECT_EQ(AnyReference::of(forced).to<int>(), 3);
  EXPECT_FALSE(AnyValue(AnyReference::of(AnyValue())));
}

}  // namespace
