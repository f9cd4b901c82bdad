#include "expect_error.h"
#include "print_value.h"

#include <hxvalue/hxvalue.h>

#include <atomic>
#include <latch>
#include <limits>
#include <thread>

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
}

TEST(Slot, everyScalarHasAnUntypedAddressAndNothingElseHas) {
  for (HXValue value : {HXValue(), HXValue(true), HXValue(1), HXValue(1L), HXValue(1.0F), HXValue(1.0)})
    EXPECT_EQ(value.getPtrValue(), static_cast<void*>(&value));
  HXValue text("text");
  EXPECT_EQ(errorOf([&] { text.getPtrValue(); }), "the value is of type String, not a scalar");
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
    const HXValue before = value;
    errorOf([&] { value.storeScalar("text"); });
    errorOf([&] { value.storeScalar({}); });
    EXPECT_EQ(value, before);
    value.storeScalar(before);
    EXPECT_EQ(value.loadScalar(), before);
  }
  HXValue text("text");
  EXPECT_EQ(errorOf([&] { text.storeScalar("other"); }), "the value is of type String, not a scalar");
}

// A 64-bit number is where a torn access would show on some machines.
TEST(Slot, holdersOfTheAddressSeeOldOrNewNumbersWhileTheValueIsStoredAndLoaded) {
  constexpr std::int64_t kOnes = -1;
  HXValue value(std::int64_t{0});
  auto* address = static_cast<std::int64_t*>(value.getPtrValue());
  std::latch start(3);
  int mixed = 0;
  int torn = 0;
  std::thread reader([&] {
    start.arrive_and_wait();
    for (int i = 0; i < 20'000; ++i) {
      const std::int64_t seen = std::atomic_ref(*address).load(std::memory_order_relaxed);
      mixed += seen == 0 || seen == kOnes ? 0 : 1;
    }
  });
  std::thread writer([&] {
    start.arrive_and_wait();
    for (int i = 0; i < 20'000; ++i) std::atomic_ref(*address).store(i % 2 == 0 ? 0 : kOnes, std::memory_order_relaxed);
  });
  start.arrive_and_wait();
  for (int i = 0; i < 20'000; ++i) {
    value.storeScalar(i % 2 == 0 ? kOnes : 0);
    const std::int64_t seen = value.loadScalar().asInt64();
    torn += seen == 0 || seen == kOnes ? 0 : 1;
  }
  reader.join();
  writer.join();
  EXPECT_EQ(mixed, 0);
  EXPECT_EQ(torn, 0);
}

}  // namespace
}  // namespace HX
