#include "remote/burst.h"

#include <chrono>
#include <string>

#include <gtest/gtest.h>

namespace mw::remote {
namespace {

using namespace std::chrono_literals;

/// What becomes of calls at times that the test sets: "A" for one that leaves at once, "F" for the first of a burst
/// that is expected, "." for one that follows.
class BurstForecastTest : public testing::Test {
 protected:
  std::string burst(int size, std::chrono::nanoseconds apart = 1us, std::chrono::nanoseconds sending = 1us) {
    std::string places;
    pass(1ms);
    for (int i = 0; i < size; ++i) {
      now_ += apart;
      const auto place = forecast_.place(now_);
      places += "AF."[static_cast<int>(place)];
      if (place == BurstForecast::Place::Follows) continue;
      now_ += sending;
      forecast_.sent(now_);
    }
    return places;
  }
  void pass(std::chrono::nanoseconds time) { now_ += time; }
  void bursts(int count, int size) {
    for (int i = 0; i < count; ++i) burst(size);
  }

 private:
  BurstForecast forecast_;
  BurstForecast::Clock::time_point now_{1h};
};

TEST_F(BurstForecastTest, HoldsBackWhatFollows) {
  EXPECT_EQ(burst(1), "A");
  EXPECT_EQ(burst(4), "A...");
  EXPECT_EQ(burst(4, 1us, 30us), "A...") << "the first takes longer than those that follow are apart";
  EXPECT_EQ(burst(4, BurstForecast::kApart), "AAAA");
}

TEST_F(BurstForecastTest, ExpectsABurstAfterSeveralInARow) {
  bursts(BurstForecast::kSure, BurstForecast::kMany);
  EXPECT_EQ(burst(3), "F..");
  EXPECT_EQ(burst(3), "A..") << "the last was none";
  bursts(BurstForecast::kSure, BurstForecast::kMany - 1);
  EXPECT_EQ(burst(3), "A..");
  bursts(BurstForecast::kSure - 1, BurstForecast::kMany);
  EXPECT_EQ(burst(1), "A");
  bursts(100, 50);
  EXPECT_EQ(burst(1), "F");
  EXPECT_EQ(burst(1), "A");
  bursts(100, 50);
  pass(BurstForecast::kForgotten);
  EXPECT_EQ(burst(1), "A");
}

}  // namespace
}  // namespace mw::remote
