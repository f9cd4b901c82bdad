#include <hxtiming/stopwatch.h>

#include <chrono>

#include <gtest/gtest.h>

namespace {

using Clock = std::chrono::steady_clock;

TEST(Stopwatch, measuresAtLeastWhatPassedBetweenStartAndStopAndNoMoreThanAroundThem) {
  HX::Stopwatch watch(0);
  const auto before = Clock::now();
  watch.start();
  const auto inside = Clock::now();
  while (Clock::now() == inside) {
  }
  const auto insideEnd = Clock::now();
  watch.stop();
  const auto after = Clock::now();

  EXPECT_GE(std::chrono::nanoseconds(watch.diffNs()), insideEnd - inside);
  EXPECT_LE(std::chrono::nanoseconds(watch.diffNs()), after - before);
  EXPECT_EQ(watch.diffNs(), watch.diffNs());
}

TEST(Stopwatch, addsItsOffsetAndWrapsRoundBeyondTheRangeOfInt) {
  EXPECT_EQ(HX::Stopwatch(-250).diffNs(), -250);
  HX::Stopwatch watch(2'147'483'647);
  watch.start();
  const auto inside = Clock::now();
  while (Clock::now() == inside) {
  }
  watch.stop();
  EXPECT_LT(watch.diffNs(), 0);
}

}  // namespace
