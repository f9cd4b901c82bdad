#include "expect_error.h"
#include "print_value.h"
#include "together.h"

#include <hxvalue/hxvalue.h>

#include <atomic>
#include <limits>

namespace HX {
namespace {

TEST(Slot, addressOfAScalarStaysThroughAssignmentsAndStores) {
  HXValue value(1);
  const int* address = value.getIntPtr();
  value = 2;
  EXPECT_EQ(*address, 2);
  value.storeScalar(3);
  EXPECT_EQ(*address, 3);
  EXPECT_EQ(value.getIntPtr(), address);
  *value.getIntPtr() = 4;
  EXPECT_EQ(value.loadScalar(), 4);
  EXPECT_EQ(errorOf([&] { value.getFloatPtr(); }), "the value is of type Int, not Float");
  HXValue text("text");
  EXPECT_EQ(errorOf([&] { text.getPtrValue(); }), "the value is of type String, not a scalar");
  EXPECT_EQ(errorOf([&] { text.storeScalar("other"); }), "the value is of type String, not a scalar");
}

TEST(Slot, ofAnInvalidValueIsZeroAndTakesAnIntOrAFloatOnly) {
  for (const HXValue& given : {HXValue(5), HXValue(0.5F)}) {
    HXValue value;
    EXPECT_EQ(*static_cast<const int*>(value.getPtrValue()), 0);
    value.storeScalar(given);
    EXPECT_EQ(value, given);
  }
  for (const HXValue& refused : {HXValue(), HXValue(true), HXValue(1L), HXValue(1.0), HXValue("text")}) {
    HXValue value;
    EXPECT_EQ(errorOf([&] { value.storeScalar(refused); }),
              std::string("the value is of type ") + HXValue::TypeToString(refused.getType()) + ", not Int or Float");
    EXPECT_FALSE(value.isValid());
  }
}

TEST(Slot, storesOnlyWhatHasTheTypeThatIsThere) {
  for (HXValue value : {HXValue(true), HXValue(1), HXValue(1L), HXValue(1.0F), HXValue(1.0)}) {
    EXPECT_EQ(value.getPtrValue(), static_cast<void*>(&value));
    const HXValue before = value;
    for (const HXValue& other : {HXValue("text"), HXValue(), before.isInt() ? HXValue(1.5F) : HXValue(7)}) {
      errorOf([&] { value.storeScalar(other); });
    }
    EXPECT_EQ(value, before);
    value.storeScalar(before);
    EXPECT_EQ(value.loadScalar(), before);
  }
}

// A 64-bit number is where a torn access would show on some machines.
TEST(Slot, holdersOfTheAddressSeeOldOrNewNumbersWhileTheValueIsStoredAndLoaded) {
  constexpr int kRounds = 20'000;
  const auto number = [](int round) { return std::int64_t{round % 2 == 0 ? -1 : 0}; };
  const auto isTorn = [](std::int64_t seen) { return seen != 0 && seen != -1; };
  HXValue value(std::int64_t{0});
  auto* address = static_cast<std::int64_t*>(value.getPtrValue());
  const auto read = [&] {
    int torn = 0;
    for (int i = 0; i < kRounds; ++i) torn += isTorn(std::atomic_ref(*address).load(std::memory_order_relaxed));
    EXPECT_EQ(torn, 0);
  };
  const auto write = [&] {
    for (int i = 0; i < kRounds; ++i) std::atomic_ref(*address).store(number(i), std::memory_order_relaxed);
  };
  const auto use = [&] {
    int torn = 0;
    for (int i = 0; i < kRounds; ++i) {
      value.storeScalar(number(i));
      torn += isTorn(value.loadScalar().asInt64());
    }
    EXPECT_EQ(torn, 0);
  };
  ::kit::together({read, write, use});
}

}  // namespace
}  // namespace HX
