#include <hxbase/detail/scalarview.h>

#include <atomic>
#include <cstdint>
#include <thread>

#include <gtest/gtest.h>

namespace HX {
namespace {

TEST(ScalarView, ShowsNothingWhileHidden) {
  ScalarView view;
  view.show(1);
  view.hide();
  HXValue seen("as it was");
  EXPECT_FALSE(view.read(seen));
  EXPECT_EQ(seen, HXValue("as it was"));
  view.show(2);
  ASSERT_TRUE(view.read(seen));
  EXPECT_EQ(seen, HXValue(2));
}

// Whole numbers are written as multiples of 3, the others as multiples of 7: what was mixed from two writes is neither.
TEST(ScalarView, ReadersGetTheTypeAndContentOfOneWrite) {
  ScalarView view;
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (std::int64_t i = 1; !done; ++i) {
      view.show(i * 3);
      view.show(static_cast<double>(i * 7));
    }
  });
  std::int64_t mixed = 0;
  for (int reads = 0; reads < 500'000;) {
    HXValue seen;
    if (!view.read(seen) || !seen.isValid()) continue;
    // Bits of a whole number, taken for the others', are a tiny fraction.
    const std::int64_t number = seen.isInt64() ? seen.asInt64() : static_cast<std::int64_t>(seen.asDouble());
    const bool whole = number > 0 && number % (seen.isInt64() ? 3 : 7) == 0;
    mixed += whole ? 0 : 1;
    ++reads;
  }
  done = true;
  writer.join();
  EXPECT_EQ(mixed, 0);
}

}  // namespace
}  // namespace HX
