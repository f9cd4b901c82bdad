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
}

TEST(Stopwatch, keepsItsResultUntilStoppedAgain) {
  HX::Stopwatch watch(0);
  watch.start();
  watch.stop();
  const int first = watch.diffNs();

  EXPECT_EQ(watch.diffNs(), first);
}

TEST(Stopwatch, addsItsOffset) {
  EXPECT_EQ(HX::Stopwatch(0).diffNs(), 0);
  EXPECT_EQ(HX::Stopwatch(-250).diffNs(), -250);
}

TEST(Stopwatch, wrapsRoundBeyondTheRangeOfInt) {
  HX::Stopwatch watch(2'147'483'647);
  watch.start();
  const auto inside = Clock::now();
  while (Clock::now() == inside) {
  }
  watch.stop();

  EXPECT_LT(watch.diffNs(), 0);
}

}  // namespace
