#include <hxview/cell.h>
#include <hxview/ring.h>
#include <hxview/segment.h>

#include <atomic>
#include <map>
#include <mutex>
#include <numeric>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace HX::view {
namespace {

/// Whatever release and acquire let a reader see, one after the other: each load may give any store that the reader
/// does not know to be outdated yet. One writer has stored everything before.
class Walk {
 public:
  using Seen = std::map<const void*, std::size_t>;  // Of each word, the oldest store that may still be seen.
  struct Store {
    std::uint64_t value;
    Seen released;
  };

  static inline Walk* current = nullptr;

  Walk() { current = this; }

  void store(const void* word, std::uint64_t value, std::memory_order order) {
    auto& stores = stores_[word];
    written_[word] = stores.size();
    stores.push_back({value, order == std::memory_order_release ? written_ : Seen{}});
  }

  std::uint64_t load(const void* word, std::memory_order order) {
    const auto& stores = stores_[word];
    if (!isReading) return stores.back().value;
    const std::size_t from = read_[word];
    const std::size_t chosen = from + choose(stores.size() - from);
    read_[word] = chosen;
    if (order == std::memory_order_acquire) {
      for (const auto& [other, oldest] : stores[chosen].released) read_[other] = std::max(read_[other], oldest);
    }
    return stores[chosen].value;
  }

  /// Calls `read` for every way in which its loads can go.
  /// @param known  What the reader has been told before.
  template <class Read>
  std::size_t readInEveryWay(const Seen& known, Read read) {
    std::size_t ways = 0;
    isReading = true;
    choices_.clear();
    do {
      read_ = known;
      place_ = 0;
      read();
      ++ways;
      while (!choices_.empty() && choices_.back().first + 1 == choices_.back().second) choices_.pop_back();
      if (!choices_.empty()) ++choices_.back().first;
    } while (!choices_.empty());
    isReading = false;
    return ways;
  }

  const Seen& written() const { return written_; }

 private:
  std::size_t choose(std::size_t count) {
    if (place_ == choices_.size()) choices_.emplace_back(0, count);
    return choices_[place_++].first;
  }

  std::map<const void*, std::vector<Store>> stores_;
  Seen written_;
  Seen read_;
  std::vector<std::pair<std::size_t, std::size_t>> choices_;
  std::size_t place_ = 0;
  bool isReading = false;
};

struct ModelWord {
  explicit ModelWord(std::uint64_t value) { store(value, std::memory_order_relaxed); }
  void store(std::uint64_t value, std::memory_order order) { Walk::current->store(this, value, order); }
  std::uint64_t load(std::memory_order order) const { return Walk::current->load(this, order); }
};

Content nth(std::uint64_t number) { return {number * 10 + 1, number * 10 + 2, number * 10 + 3}; }

bool isNth(const Content& content, std::uint64_t number) {
  const Content wanted = nth(number);
  return content.written == wanted.written && content.kind == wanted.kind && content.bits == wanted.bits;
}

TEST(Cell, ShowsWholePublicationsOfItsOwnerInOrderInEveryWayThatMemoryAllows) {
  constexpr std::uint64_t kFirst = 7;
  constexpr std::uint64_t kSecond = 9;
  struct Reader {
    std::uint64_t owner;
    std::uint64_t from;  // The publications of that owner.
    std::uint64_t to;
    Walk::Seen known;
  };
  Walk walk;
  CellOf<ModelWord> cell;
  giveTo(cell, kFirst);
  publish(cell, nth(1));
  const Walk::Seen opened = walk.written();
  for (std::uint64_t number = 2; number <= 3; ++number) publish(cell, nth(number));
  giveTo(cell, kSecond);
  publish(cell, nth(4));
  const Walk::Seen openedAgain = walk.written();
  publish(cell, nth(5));

  for (const Reader& reader : {Reader{kFirst, 1, 3, opened}, Reader{kSecond, 4, 5, openedAgain}}) {
    std::size_t whole = 0;
    const std::size_t ways = walk.readInEveryWay(reader.known, [&] {
      Look first;
      Look second;
      if (look(cell, reader.owner, first) != Outcome::Whole) return;
      ++whole;
      EXPECT_TRUE(isNth(first.content, first.sequence)) << first.sequence;
      EXPECT_GE(first.sequence, reader.from);
      EXPECT_LE(first.sequence, reader.to);
      if (look(cell, reader.owner, second) != Outcome::Whole) return;
      EXPECT_GE(second.sequence, first.sequence);
    });
    EXPECT_GT(whole, reader.to - reader.from);
    EXPECT_GT(ways, whole);
  }
}

/// Three write, four read, until so much has been written.
template <class Write, class Read>
void writeAndRead(std::uint64_t writes, Write write, Read read) {
  std::mutex mutex;
  std::uint64_t number = 0;
  std::atomic<bool> isOver{false};
  std::vector<std::thread> readers;
  std::vector<std::thread> writers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&] {
      std::uint64_t last = 0;
      while (!isOver) last = read(last);
      read(last);
    });
  }
  for (int i = 0; i < 3; ++i) {
    writers.emplace_back([&] {
      while (true) {
        const std::lock_guard lock(mutex);
        if (number == writes) return;
        write(++number);
      }
    });
  }
  for (auto& writer : writers) writer.join();
  isOver = true;
  for (auto& reader : readers) reader.join();
}

TEST(Cell, IsNeverSeenTornOrGoingBackByThreads) {
  constexpr std::uint64_t kWrites = 100'000;
  Cell cell;
  giveTo(cell, 1);
  const auto read = [&](std::uint64_t last) {
    Look seen;
    if (look(cell, 1, seen) != Outcome::Whole || seen.sequence == 0) return last;
    EXPECT_TRUE(isNth(seen.content, seen.sequence));
    EXPECT_GE(seen.sequence, last);
    return seen.sequence;
  };
  writeAndRead(
      kWrites, [&](std::uint64_t number) { publish(cell, nth(number)); }, read);
  EXPECT_EQ(read(0), kWrites);
}

class Ring : public testing::TestWithParam<std::size_t> {};

// Copied by words, and where the processor has them by string instructions.
TEST(RingSlot, IsNotBelievedFromWhenItMayBeFilledAgain) {
  const RingShape shape{8, 3};
  std::vector<Word> words(shape.bytes() / sizeof(Word));
  RingWriter writer(reinterpret_cast<std::byte*>(words.data()), shape, 1);
  const RingReader reader(reinterpret_cast<const std::byte*>(words.data()), shape, 1);
  const std::vector<std::byte> bytes(8, std::byte{1});
  Content content;
  std::vector<std::byte> copied;
  for (std::uint64_t number = 1; number <= 5; ++number) {
    writer.prepare({HXValue::Type::Binary, State::Present, 0}, bytes);
    if (number > 2) {
      EXPECT_EQ(reader.look(number - 2, content, copied), Outcome::Whole);
    }
    if (number > 3) {
      EXPECT_EQ(reader.look(number - 3, content, copied), Outcome::Torn) << "it has just been filled";
    }
    writer.commit(number);
    EXPECT_EQ(reader.look(number, content, copied), Outcome::Whole);
  }
}

TEST_P(Ring, IsNeverSeenTornByThreads) {
  const RingShape shape{GetParam(), 3};
  constexpr std::uint64_t kWrites = 20'000;
  const Segment segment(shape.bytes());
  RingWriter writer(segment.data(), shape, 1);
  std::vector<std::byte> bytes(shape.capacity);
  const auto write = [&](std::uint64_t number) {
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::byte>(number + i);
    writer.prepare({HXValue::Type::Binary, State::Present, 0}, bytes);
    writer.commit(number);
  };
  const auto read = [&](std::uint64_t last) {
    thread_local std::vector<std::byte> copied;
    const RingReader reader(segment.data(), shape, 1);
    Content content;
    const std::uint64_t latest = reader.latest();
    if (latest == 0 || reader.look(latest, content, copied) != Outcome::Whole) return last;
    EXPECT_EQ(content.written, latest);
    EXPECT_GE(latest, last);
    std::size_t wrong = 0;
    for (std::size_t i = 0; i < copied.size(); ++i) wrong += copied[i] == static_cast<std::byte>(latest + i) ? 0U : 1U;
    EXPECT_EQ(wrong, 0U);
    return latest;
  };
  writeAndRead(kWrites, write, read);
  EXPECT_EQ(read(0), kWrites);
}

INSTANTIATE_TEST_SUITE_P(Sizes, Ring, testing::Values(500, 4000));

}  // namespace
}  // namespace HX::view
