#include "ring.h"

#include "fixture.h"

#include <hxauthor/author.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <together.h>

namespace HX::journal {
namespace {

class Rings : public JournalFixture {
 protected:
  Rings() { ring_.open(store_); }

  std::uint64_t append(HXValue value, std::list<Grave>* grave = nullptr) {
    Afterwards after(*journal);
    Entry entry;
    entry.value = std::move(value);
    if (grave) entry.setName(*grave->front().name);
    return ring_.append(entry, grave, after);
  }
  void addReader() {
    Ring::Chunks spare(1);
    ring_.addSpare(spare);
  }

  static constexpr std::size_t kCapacity = 2 * kChunkSize;
  static constexpr std::uint64_t kAll = ~std::uint64_t{0};
  Ring ring_{Journal::Options{.chunks = 2, .bytes = 1 << 20, .linger = {}}};
  Ring::Store store_ = ring_.makeStore();
};

TEST_F(Rings, GiveEachOfManyWritersARevisionOfItsOwn) {
  constexpr std::uint64_t kWriters = 4;
  constexpr std::uint64_t kEach = 500'000;  // They have to meet.
  const std::uint64_t before = ring_.head();
  std::atomic<std::uint64_t> sum{0};
  kit::together(kWriters, [&] {
    std::uint64_t own = 0;
    for (std::uint64_t i = 0; i < kEach; ++i) own += append(1) - before;
    sum += own;
  });
  EXPECT_EQ(ring_.head() - before, kWriters * kEach);
  EXPECT_EQ(sum, kWriters * kEach * (kWriters * kEach - 1) / 2);
}

TEST_F(Rings, ReadsWhatWasAppendedUpToTheTurn) {
  const std::uint64_t first = append(0);
  for (int i = 1; i < 5000; ++i) {
    const std::uint64_t revision = append(i);
    ASSERT_EQ(revision, first + static_cast<std::uint64_t>(i));
    const auto extent = ring_.extent();
    ASSERT_EQ(extent.head, revision + 1);
    ASSERT_GE(extent.head - extent.oldest, std::min<std::uint64_t>(extent.head - first, kCapacity - kChunkSize + 1));
    ASSERT_TRUE(Ring::Pin(ring_, extent.oldest - 1, kAll, kAll).isLapped());
    const Ring::Pin pin(ring_, extent.oldest, kAll, kAll);
    ASSERT_EQ(pin.entries().front().value, HXValue(static_cast<int>(extent.oldest - first)));
  }
}

TEST_F(Rings, LeavesAPinnedChunkAloneHoweverFarItTurns) {
  std::vector<std::unique_ptr<Ring::Pin>> pins;
  int written = 0;
  for (int reader = 0; reader < 5; ++reader) {
    addReader();
    const std::uint64_t cursor = append(written);
    pins.push_back(std::make_unique<Ring::Pin>(ring_, cursor, kAll, kAll));
    for (int i = 0; i < 3000; ++i) append(++written);
    ++written;
    for (int pinned = 0; pinned <= reader; ++pinned) {
      ASSERT_EQ(pins[static_cast<std::size_t>(pinned)]->entries().size(), 1U);
      ASSERT_EQ(pins[static_cast<std::size_t>(pinned)]->entries()[0].value, HXValue(pinned * 3001));
    }
  }
  pins.erase(pins.begin() + 2);
  pins.clear();
  for (int reader = 0; reader < 5; ++reader) EXPECT_EQ(ring_.takeSpare().size(), 1U);
}

TEST_F(Rings, KeepsGravesForWhoReadsThemAndThenLetsGoOfMoreThanCome) {
  addReader();
  constexpr int kGraves = 8;
  std::vector<std::weak_ptr<const std::string>> names;
  const std::uint64_t cursor = ring_.head();
  for (int i = 0; i < kGraves; ++i) {
    std::list<Grave> grave(1);
    grave.front().name = std::make_shared<const std::string>("gone");
    names.emplace_back(grave.front().name);
    append({}, &grave);
  }
  const auto remembered = [&] {
    return std::ranges::count_if(names, [](const auto& name) { return !name.expired(); });
  };
  {
    const Ring::Pin pin(ring_, cursor, kAll, kAll);
    for (int i = 0; i < 3000; ++i) append(i);
    ASSERT_EQ(remembered(), kGraves);
    for (const Entry& entry : pin.entries()) EXPECT_EQ(entry.name(), "gone");
  }
  for (int i = 0; i < kGraves / 2; ++i) append(1);
  EXPECT_EQ(remembered(), 0);
}

// By the owners of the values: each append must have let go of all that is over the budget and not pinned.
TEST_F(Rings, HoldsItsBudgetWhateverItsReadersPin) {
  std::mt19937 random(5);
  for (int reader = 0; reader < 3; ++reader) addReader();
  std::list<std::unique_ptr<Ring::Pin>> pins;
  const HXValue large(std::string(100'000, 'x'));
  for (int round = 0; round < 40; ++round) {
    for (int i = 0; i < 500; ++i) {
      append(random() % 8 == 0 ? large : HXValue(i));
      if (pins.size() == 3 || (!pins.empty() && random() % 100 == 0)) pins.pop_front();
      if (random() % 100 == 0) {
        const auto extent = ring_.extent();
        pins.push_back(
            std::make_unique<Ring::Pin>(ring_, extent.oldest + random() % (extent.head - extent.oldest), kAll, kAll));
      }
      for (const auto& pin : pins) {
        for (const Entry& entry : pin->entries()) ASSERT_TRUE(entry.value.isValid());
      }
    }
    pins.clear();
    for (int i = 0; i < 150; ++i) append(i);  // Four are let go of with each.
    const auto extent = ring_.extent();
    std::size_t count = 0;
    for (std::uint64_t at = extent.oldest; at < extent.head;) {
      const Ring::Pin pin(ring_, at, kAll, kAll);
      for (const Entry& entry : pin.entries()) count += entry.value.isString() ? 1U : 0U;
      at += pin.entries().size();
    }
    ASSERT_LE(count, 10U) << "a mebibyte has room for ten";
    ASSERT_GT(extent.head - extent.oldest, 150U) << "it lets go of more than it has to";
  }
}

TEST_F(Rings, NobodyFallsAsleepOverNews) {
  Ring::Sleeper sleeper;
  const std::uint64_t revision = append(1);
  EXPECT_FALSE(ring_.fallAsleep(sleeper, revision));
  EXPECT_FALSE(ring_.wake(sleeper));
  EXPECT_TRUE(ring_.fallAsleep(sleeper, revision + 1));
  EXPECT_FALSE(ring_.wakeFrom(sleeper, sleeper.nap - 1)) << "by the timer of an earlier nap";
  EXPECT_FALSE(ring_.wakeIfNews(sleeper));
  append(2);
  EXPECT_TRUE(ring_.wakeIfNews(sleeper));
  EXPECT_FALSE(ring_.wake(sleeper)) << "twice";
}

TEST_F(Rings, LeavesAHoleWhereNothingWasRecorded) {
  for (const int appended : {0, 1, 255, 256, 257, 300}) {
    for (int i = 0; i < appended; ++i) append(i);
    const std::uint64_t head = ring_.head();
    std::list<Grave> graves;
    Ring::Store old;
    ring_.close(old, graves);
    EXPECT_EQ(old.chunks.size(), 2U) << "with the values in them";
    store_ = ring_.makeStore();
    ring_.open(store_);
    EXPECT_GT(ring_.extent().began, head);
    EXPECT_TRUE(Ring::Pin(ring_, head, kAll, kAll).isLapped());
    EXPECT_GT(append(1), head);
  }
}

TEST(Authors, KeepTheirNumberAndAreForgotten) {
  const std::size_t before = Author::remembered();
  for (int i = 0; i < 1000; ++i) {
    const Author silent("process " + std::to_string(i));
    const Author again("process " + std::to_string(i));
    EXPECT_EQ(silent.number(), again.number());
  }
  EXPECT_EQ(Author::remembered(), before) << "who wrote nothing";
  std::uint32_t number = 0;
  for (int stay = 0; stay < 2; ++stay) {
    const Author author("writer");
    EXPECT_TRUE(stay == 0 || author.number() == number) << "who comes back";
    number = author.number();
    const Author::Scope scope(author);
    EXPECT_EQ(Author::writing(), number);
  }
  EXPECT_EQ(Author::writing(), 0U);
  ASSERT_TRUE(Author::textOf(number));
  EXPECT_EQ(*Author::textOf(number), "writer");
  for (int i = 0; i < 66'000; ++i) {
    const Author author("korvo set " + std::to_string(i));
    const Author::Scope scope(author);
    Author::writing();
  }
  EXPECT_FALSE(Author::textOf(number)) << "as many have left since as a ring has places";
  EXPECT_LE(Author::remembered(), before + 65'536);
}

}  // namespace
}  // namespace HX::journal
