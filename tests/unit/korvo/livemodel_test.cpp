#include "live/model.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvo {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

const mw::SystemTimePoint kStart{1000s};

/// Looks twice a second, for five seconds, at what changes with this period.
std::optional<double> estimateOf(std::chrono::milliseconds period, std::chrono::milliseconds lookPeriod = 500ms) {
  RateEstimate rate;
  for (auto now = 0ms; now < 5000ms; now += lookPeriod) rate.see(kStart + now / period * period, kStart + now);
  return rate.perSecond();
}

TEST(RateEstimate, CountsWhatChangesSeldomAndGuessesWhatChangesOften) {
  EXPECT_EQ(RateEstimate().perSecond(), std::nullopt);
  EXPECT_THAT(estimateOf(1h), Optional(0.0));
  EXPECT_THAT(estimateOf(1000ms), Optional(testing::DoubleNear(1.0, 0.2)));
  // Looks that drift against the changes, as real ones do.
  EXPECT_THAT(estimateOf(100ms, 513ms), Optional(testing::DoubleNear(10.0, 4.0)));
  EXPECT_THAT(estimateOf(20ms, 507ms), Optional(testing::DoubleNear(50.0, 20.0)));
}

class LiveModelTest : public testing::Test {
 protected:
  LiveModelTest() {
    model.setKeys({"c", "a", "b/x", "b/y"});
    learn("a", 3, 1s, 0);
    learn("c", 1, 3s, 1);
    learn("b/x", 2, 2s, 5);
  }
  void learn(const char* key, int value, std::chrono::seconds age, std::size_t subscribers) {
    model.learn(key, {"Data", value, kStart - age, subscribers}, kStart);
  }
  std::vector<std::string> page(std::size_t rows = 10) {
    std::vector<std::string> keys;
    for (const LiveRow& row : model.page(rows)) keys.push_back(row.key);
    return keys;
  }
  LiveModel model{""};
};

TEST_F(LiveModelTest, SortsByWhatIsKnownAndTurnsRound) {
  EXPECT_THAT(page(), ElementsAre("a", "b/x", "b/y", "c"));
  model.sortBy(LiveColumn::Value);
  EXPECT_THAT(page(), ElementsAre("c", "b/x", "a", "b/y")) << "what is not known comes last";
  model.sortBy(LiveColumn::Value);
  EXPECT_THAT(page(), ElementsAre("b/y", "a", "b/x", "c"));
  model.sortBy(LiveColumn::Age);
  EXPECT_THAT(page(2), ElementsAre("a", "b/x"));
  model.sortBy(LiveColumn::Subscribers);
  EXPECT_THAT(page(2), ElementsAre("b/x", "c"));
}

TEST_F(LiveModelTest, ShowsWhatPassesTheFilter) {
  model.setFilter("b/");
  EXPECT_THAT(page(), ElementsAre("b/x", "b/y"));
  EXPECT_EQ(model.shownCount(), 2U);
  EXPECT_EQ(model.keyCount(), 4U);
  model.setFilter("nothing");
  EXPECT_THAT(page(), IsEmpty());
}

TEST_F(LiveModelTest, ScrollsWithTheChosenRowInsideTheTable) {
  const auto chosen = [&](std::size_t rows) {
    std::string key;
    for (const LiveRow& row : model.page(rows)) key += row.isChosen ? row.key : "";
    return key;
  };
  model.move(-1);
  EXPECT_EQ(chosen(2), "a");
  model.move(1);
  EXPECT_THAT(page(2), ElementsAre("a", "b/x"));
  model.move(1);
  EXPECT_THAT(page(2), ElementsAre("b/x", "b/y"));
  EXPECT_EQ(chosen(2), "b/y");
  model.moveToEnd();
  EXPECT_THAT(page(3), ElementsAre("b/x", "b/y", "c"));
  model.move(-2);
  EXPECT_THAT(page(3), ElementsAre("b/x", "b/y", "c"));
  EXPECT_EQ(chosen(3), "b/x");
  model.move(-1);
  EXPECT_THAT(page(3), ElementsAre("a", "b/x", "b/y"));
}

TEST_F(LiveModelTest, KeepsItsColumnsUntilAnotherFilter) {
  EXPECT_EQ(model.keyColumns(), 3U);
  model.add("漢字");
  EXPECT_EQ(model.keyColumns(), 4U);
  model.remove("漢字");
  EXPECT_EQ(model.keyColumns(), 4U);
  model.setFilter("a");
  EXPECT_EQ(model.keyColumns(), 1U);
}

TEST_F(LiveModelTest, KeepsWhatItKnowsOfKeysThatStay) {
  model.setKeys({"a", "d"});
  model.add("e");
  model.remove("d");
  learn("gone", 1, 1s, 1);
  EXPECT_THAT(page(), ElementsAre("a", "e"));
  EXPECT_TRUE(model.page(1)[0].facts);
}

TEST_F(LiveModelTest, GivesEveryKeyItsTurn) {
  EXPECT_THAT(model.nextInTurn(3), ElementsAre("a", "b/x", "b/y"));
  EXPECT_THAT(model.nextInTurn(3), ElementsAre("c", "a", "b/x"));
  model.setFilter("c");
  EXPECT_THAT(model.nextInTurn(3), ElementsAre("c"));
}

}  // namespace
}  // namespace korvo
