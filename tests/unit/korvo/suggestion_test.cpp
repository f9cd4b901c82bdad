#include "base/suggestion.h"

#include "commands/frequency.h"

#include <vector>

#include <gtest/gtest.h>

namespace korvo {
namespace {

using namespace std::chrono_literals;

TEST(DidYouMean, NamesTheNearestOrWhatHasItInIt) {
  const std::vector<std::string> names{"get", "set", "descriptions", "describe", "Arm/Speed", "Arm/SpeedLimit", "x"};
  const std::pair<const char*, const char*> cases[] = {{"gte", "get"},
                                                       {"gett", "get"},
                                                       {"GET", "get"},
                                                       {"descriptons", "descriptions"},
                                                       {"Speed", "Arm/Speed"},
                                                       {"arm/sped", "Arm/Speed"},
                                                       {"Limit", "Arm/SpeedLimit"}};
  for (const auto& [typed, meant] : cases) {
    EXPECT_EQ(didYouMean(typed, names), std::string("; did you mean ") + meant + "?") << typed;
  }
  for (const char* typed : {"", "get", "frobnicate", "zzz", "ee"}) EXPECT_EQ(didYouMean(typed, names), "") << typed;
  EXPECT_EQ(didYouMean(std::string(100'000, 'g'), names), "");
}

TEST(EditDistance, CountsLettersLeftOutPutInChangedAndExchanged) {
  const std::tuple<const char*, const char*, std::size_t> cases[] = {
      {"", "abc", 3}, {"abc", "acb", 1}, {"kitten", "sitting", 3}, {"ab", "ba", 1}, {"ABC", "abc", 0}};
  for (const auto& [a, b, distance] : cases) {
    EXPECT_EQ(editDistance(a, b), distance);
    EXPECT_EQ(editDistance(b, a), distance);
  }
}

TEST(Frequency, IsOfTheLatestAndFallsWhenNothingComes) {
  Frequency frequency;
  const mw::SystemTimePoint start{1000s};
  EXPECT_EQ(frequency.summary(start).count, 0U);
  for (int i = 0; i <= 20; ++i) frequency.see(start + i * 1s);
  const auto steady = frequency.summary(start + 20s);
  EXPECT_EQ(steady.count, 11U) << "those of ten seconds";
  EXPECT_DOUBLE_EQ(steady.perSecond, 1.0);
  EXPECT_DOUBLE_EQ(steady.deviation, 0.0);
  frequency.see(start + 23s);
  const auto late = frequency.summary(start + 23s);
  EXPECT_DOUBLE_EQ(late.least, 1.0);
  EXPECT_DOUBLE_EQ(late.most, 3.0);
  EXPECT_GT(late.deviation, 0.5);
  EXPECT_LT(frequency.summary(start + 30s).perSecond, 0.5);
  EXPECT_EQ(frequency.summary(start + 40s).count, 0U);
}

}  // namespace
}  // namespace korvo
