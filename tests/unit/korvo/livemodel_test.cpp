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

/// Counts what changes with this period, for so long from the beginning of a second on, and asks so long after it.
std::optional<double> rateOf(std::chrono::milliseconds period, std::chrono::milliseconds span,
                             std::chrono::milliseconds after = 0ms) {
  RateCount rate;
  rate.begin(kStart);
  for (auto now = 0ms; now < span; now += period) rate.add(1, kStart + now);
  return rate.perSecond(kStart + span + after);
}

TEST(RateCount, IsTrueFromTheSecondSecondAndFallsWhenNothingComes) {
  EXPECT_EQ(RateCount().perSecond(kStart - 1000s), std::nullopt);
  EXPECT_EQ(rateOf(10ms, 900ms), std::nullopt);
  EXPECT_THAT(rateOf(10ms, 2000ms), Optional(100.0));
  EXPECT_THAT(rateOf(1ms, 60s), Optional(1000.0));
  EXPECT_THAT(rateOf(10ms, 60s, 1500ms), Optional(50.0)) << "a second without any";
  EXPECT_THAT(rateOf(500ms, 30s), Optional(2.0));
  EXPECT_THAT(rateOf(5000ms, 60s), Optional(testing::DoubleNear(0.2, 0.11)));
  EXPECT_THAT(rateOf(1ms, 5s, 1h), Optional(0.0)) << "slots of long ago do not count";
}

class LiveModelTest : public testing::Test {
 protected:
  LiveModelTest() {
    model.learn("b/y", {"Event", HX::HXValue(), kStart - 9s, std::nullopt}, 1, true, kStart);
    learn("a", 3, 1s, 0);
    learn("c", 1, 3s, 1);
    learn("b/x", 2, 2s, 5);
  }
  void learn(const char* key, int value, std::chrono::seconds age, std::size_t subscribers) {
    model.learn(key, {"Data", value, kStart - age, std::nullopt}, 1, true, kStart);
    model.learnSubscribers(key, subscribers);
  }
  std::optional<double> rateOf(const std::string& key) {
    for (const LiveRow& row : model.page(10, kStart + 2s)) {
      if (row.key == key) return row.rate;
    }
    return std::nullopt;
  }
  std::vector<std::string> page(std::size_t rows = 10) {
    std::vector<std::string> keys;
    for (const LiveRow& row : model.page(rows, kStart)) keys.push_back(row.key);
    return keys;
  }
  LiveModel model{""};
};

TEST_F(LiveModelTest, SortsByWhatIsKnownAndTurnsRound) {
  EXPECT_THAT(page(), ElementsAre("a", "b/x", "b/y", "c"));
  model.sortBy(LiveColumn::Value);
  EXPECT_THAT(page(), ElementsAre("b/y", "c", "b/x", "a"));
  model.sortBy(LiveColumn::Value);
  EXPECT_THAT(page(), ElementsAre("a", "b/x", "c", "b/y"));
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
    for (const LiveRow& row : model.page(rows, kStart)) key += row.isChosen ? row.key : "";
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
  learn("漢字", 1, 1s, 0);
  EXPECT_EQ(model.keyColumns(), 4U);
  model.remove("漢字");
  EXPECT_EQ(model.keyColumns(), 4U);
  model.setFilter("a");
  EXPECT_EQ(model.keyColumns(), 1U);
}

TEST_F(LiveModelTest, CountsChangesThatWereNotTold) {
  const auto change = [&](const char* key, std::uint32_t nth) {
    model.learn(key, {"Data", 1, kStart, std::nullopt}, nth, false, kStart + 1s);
  };
  change("a", 101);
  EXPECT_THAT(rateOf("a"), Optional(100.0));
  EXPECT_THAT(rateOf("c"), Optional(0.0)) << "a state is no change";
  model.remove("c");
  change("new", 1);
  change("b/x", 100);
  change("b/x", 7);
  EXPECT_THAT(rateOf("b/x"), Optional(106.0)) << "it was removed and made anew meanwhile";
}

TEST_F(LiveModelTest, ForgetsWhatASnapshotDoesNotName) {
  model.setOverdue("a", true);
  model.beginSnapshot();
  learn("d", 1, 1s, 1);
  model.keep("a");
  model.remove("gone");
  model.learnSubscribers("gone", 1);
  model.endSnapshot();
  EXPECT_THAT(page(), ElementsAre("a", "d"));
  EXPECT_TRUE(model.page(1, kStart)[0].isOverdue);
  model.learn("a", {"Data", 2, kStart, std::nullopt}, 2, false, kStart);
  EXPECT_FALSE(model.page(1, kStart)[0].isOverdue) << "it was written";
  EXPECT_THAT(model.page(1, kStart)[0].facts->subscribers, Optional(0U)) << "what is known otherwise is kept";
}

}  // namespace
}  // namespace korvo
