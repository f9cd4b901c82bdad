#include "outbox.h"

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace HX::fleet {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

void push(Outbox& outbox, const KeyNamePointer& key, std::uint64_t n, const std::string& payload,
          Event::Clock::time_point raised) {
  outbox.push(std::make_shared<Event>(Event{key.get(), n, payload, raised}));
}

/// An outbox, and what a hub behind a bad line has of it.
class Line {
 public:
  explicit Line(unsigned seed) : random_(seed) {}

  void raise() {
    const auto key = chance(2) ? one_ : other_;
    push(outbox_, key, ++n_[key->key], std::string(chance(10), 'x'), now_ += std::chrono::milliseconds(1));
  }
  void send() {
    for (const EventPointer& event : outbox_.take(chance(12))) underWay_.push_back(event);
  }
  /// The hub gets what was sent first, and its answer arrives, or not.
  void deliver(bool answerArrives) {
    if (underWay_.empty()) return;
    const EventPointer event = underWay_.front();
    underWay_.erase(underWay_.begin());
    if (stored_.insert(event->id).second) inOrder_[event->key->key].push_back(event->n);
    if (answerArrives) outbox_.confirm(event->id);
  }
  void cut() {
    underWay_.clear();
    outbox_.giveBack();
  }
  void step() {
    switch (chance(8)) {
      case 0:
        return cut();
      case 1:
        return deliver(false);
      case 2:
      case 3:
        return deliver(true);
      case 4:
      case 5:
        return send();
      default:
        return raise();
    }
  }
  void heal() {
    cut();
    while (!outbox_.isEmpty()) {
      for (const EventPointer& event : outbox_.take(100)) underWay_.push_back(event);
      while (!underWay_.empty()) deliver(true);
    }
  }
  std::size_t chance(std::size_t outOf) { return random_() % outOf; }

  Outbox outbox_{{20, 150, 8}, 100};
  std::map<std::string, std::vector<std::uint64_t>> inOrder_;
  std::set<std::uint64_t> stored_;
  std::map<std::string, std::uint64_t> n_;

 private:
  std::mt19937 random_;
  Event::Clock::time_point now_{};
  std::vector<EventPointer> underWay_;
  const KeyNamePointer one_ = std::make_shared<const KeyName>(KeyName{"One", "One"});
  const KeyNamePointer other_ = std::make_shared<const KeyName>(KeyName{"Other", "Other"});
};

TEST(Outbox, AccountsForEachRaiseOverABadLineAndKeepsTheOrderOfAKey) {
  for (unsigned seed = 0; seed < 50; ++seed) {
    Line line(seed);
    for (int i = 0; i < 3000; ++i) {
      line.step();
      const Account account = line.outbox_.account();
      ASSERT_TRUE(account.isBalanced());
      ASSERT_LE(account.queued, 20U + 8U);
      ASSERT_LE(account.inFlight, 8U);
    }
    line.heal();
    const Account account = line.outbox_.account();
    EXPECT_EQ(account.raised, line.n_["One"] + line.n_["Other"]);
    EXPECT_EQ(account.confirmed, line.stored_.size()) << "each once, whatever was sent again";
    EXPECT_EQ(account.dropped + account.confirmed, account.raised);
    EXPECT_GT(account.dropped, 0U);
    std::uint64_t told = 0;
    for (const Dropped& dropped : line.outbox_.takeDropped()) {
      told += dropped.count;
      const auto& seen = line.inOrder_[dropped.key];
      EXPECT_EQ(dropped.count + seen.size(), line.n_[dropped.key]) << "receivers count the same";
      EXPECT_FALSE(std::ranges::binary_search(seen, dropped.first));
      EXPECT_FALSE(std::ranges::binary_search(seen, dropped.last));
    }
    EXPECT_EQ(told, account.dropped);
    for (const auto& [key, seen] : line.inOrder_) EXPECT_TRUE(std::ranges::is_sorted(seen)) << key;
  }
}

TEST(Outbox, DropsTheOldestThatNeverLeftWhenBytesRunOut) {
  const auto key = std::make_shared<const KeyName>(KeyName{"A", "A"});
  Outbox outbox({100, 10, 1});
  push(outbox, key, 1, std::string(8, 'x'), {});
  EXPECT_THAT(outbox.take(9), SizeIs(1));
  push(outbox, key, 2, std::string(8, 'x'), {});
  push(outbox, key, 3, std::string(8, 'x'), {});
  outbox.giveBack();
  EXPECT_THAT(outbox.takeDropped(), ElementsAre(Dropped{"A", 2, 2, 1}));
  EXPECT_EQ(outbox.take(1)[0]->n, 1U) << "it may have arrived: it is sent again";
  outbox.returnDropped({Dropped{"A", 2, 2, 1}});
  push(outbox, key, 4, std::string(9, 'x'), {});
  EXPECT_THAT(outbox.takeDropped(), ElementsAre(Dropped{"A", 2, 3, 2}));
}

TEST(Outbox, SendsNothingThatHasGrownTooOld) {
  const auto key = std::make_shared<const KeyName>(KeyName{"A", "A"});
  const Event::Clock::time_point begin{};
  Outbox outbox({100, 100, 1});
  for (std::uint64_t n = 1; n <= 3; ++n) push(outbox, key, n, "x", begin + std::chrono::seconds(n));
  EXPECT_THAT(outbox.take(9), SizeIs(1));
  outbox.giveBack();
  outbox.missOlder(begin + std::chrono::seconds(3));
  outbox.addMissed(5);
  const Account account = outbox.account();
  EXPECT_EQ(account.missed, 7U);
  EXPECT_TRUE(account.isBalanced());
  EXPECT_EQ(outbox.take(9)[0]->n, 3U);
}

TEST(Outbox, CountsWhatTheServerRefusesAsMissedWheneverThatIsKnown) {
  const auto key = std::make_shared<const KeyName>(KeyName{"A", "A"});
  Outbox outbox({100, 100, 100});
  for (std::uint64_t n = 1; n <= 3; ++n) push(outbox, key, n, "x", {});
  outbox.take(9);
  outbox.refuse();
  EXPECT_TRUE(outbox.account().isBalanced());
  EXPECT_EQ(outbox.account().inFlight, 3U) << "the server's answer to all is still to come";
  outbox.confirmAll();
  outbox.refuse();
  EXPECT_EQ(outbox.account().confirmed, 1U);
  EXPECT_EQ(outbox.account().missed, 2U);
  EXPECT_TRUE(outbox.account().isBalanced());
}

}  // namespace
}  // namespace HX::fleet
