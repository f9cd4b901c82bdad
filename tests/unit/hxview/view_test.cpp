#include <hxerror/mutex.h>
#include <hxview/cell.h>
#include <hxview/clock.h>
#include <hxview/shown.h>
#include <hxview/view.h>

#include <array>
#include <chrono>
#include <ctime>
#include <memory>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace HX::view {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kCells = 4096;

std::int64_t systemNow() {
  timespec time{};
  ::clock_gettime(CLOCK_REALTIME, &time);
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

/// One life of a broker that shows one key by a cell and a ring.
class Showing : public Waker {
 public:
  explicit Showing(const RingShape& shape)
      : cells_(std::make_shared<Segment>(kCells)),
        ring_(std::make_shared<Segment>(shape.bytes())),
        shape_(shape),
        cell_(reinterpret_cast<Cell*>(cells_->data() + sizeof(SegmentHead))) {
    giveTo(*cell_, 1);
    Shown::Parts parts;
    parts.cell = cell_;
    parts.rings.emplace_back(ring_->data(), shape_, 1);
    parts.segments = {cells_, ring_};
    shown_ = std::make_shared<Shown>(parts);
    beat();
  }

  void write(const HXValue& value) {
    Afterwards after;
    const MutexLock lock(mutex_);
    const Preparation prepared(shown_.get(), value, after);
    shown_->publish(value, systemNow());
  }
  void write(State state) {
    Afterwards after;
    const MutexLock lock(mutex_);
    const Preparation prepared(shown_.get(), state, after);
    shown_->publish(state);
  }
  void beat(std::uint64_t time = monotonicNow()) { cells_->head().beat = ring_->head().beat = time; }
  void end() { cells_->head().ended = ring_->head().ended = 1; }
  void giveAway() { giveTo(*cell_, 2); }

  void addBell(const std::shared_ptr<Word>& word, bool isOfCell) {
    const auto bell = std::make_shared<Bell>();
    bell->word = word.get();
    const MutexLock lock(mutex_);
    words_.push_back(word);
    Shown::Parts parts = shown_->parts();
    parts.targets.push_back({isOfCell ? &cell_->sequence : &parts.rings.front().sequence(), {bell}});
    parts.waker.reset(this, [](Showing*) {});
    shown_ = std::make_shared<Shown>(parts);
  }
  void wakeLater(std::shared_ptr<const Shown> shown) noexcept override { shown->ring(); }

  std::shared_ptr<const Place> cellPlace() const {
    auto mapping = std::make_shared<Mapping>(cells_->file(), cells_->size());
    const auto* const cell = reinterpret_cast<const Cell*>(mapping->data() + sizeof(SegmentHead));
    return std::make_shared<Place>(Place{mapping, cell, {}, 1});
  }
  std::shared_ptr<const Place> ringPlace() const {
    auto mapping = std::make_shared<Mapping>(ring_->file(), ring_->size());
    return std::make_shared<Place>(Place{mapping, nullptr, RingReader(mapping->data(), shape_, 1), 1});
  }

 private:
  std::shared_ptr<Segment> cells_;
  std::shared_ptr<Segment> ring_;
  RingShape shape_;
  Cell* cell_;
  Mutex mutex_;  // As the lock of the value in the memory.
  std::shared_ptr<Shown> shown_ HX_GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<Word>> words_ HX_GUARDED_BY(mutex_);  // A viewer may go before the next write.
};

class Opening : public Opened {
 public:
  Opening(Showing& showing, bool isOfCell) : isOfCell_(isOfCell) { connectTo(showing); }
  void connectTo(Showing& showing) {
    showing_ = &showing;
    connect(isOfCell_ ? showing.cellPlace() : showing.ringPlace());
  }
  void lose() { disconnect(); }
  std::shared_ptr<Word> newBell() override {
    auto word = std::make_shared<Word>(0);
    showing_->addBell(word, isOfCell_);
    return word;
  }

 private:
  Showing* showing_ = nullptr;
  const bool isOfCell_;
};

// The broker may beat late here: none but the test does it.
template <class T>
View<T> viewOf(const std::shared_ptr<Opening>& opened) {
  return View<T>(opened, {.aliveWithin = 1h});
}

class Views : public testing::Test {
 protected:
  Showing showing_{RingShape{64, 3}};
  std::shared_ptr<Opening> cell_ = std::make_shared<Opening>(showing_, true);
  std::shared_ptr<Opening> ring_ = std::make_shared<Opening>(showing_, false);
};

TEST_F(Views, SayHowItStandsAndNeverHandOutWhatIsNotThere) {
  auto number = viewOf<float>(cell_);
  auto text = viewOf<std::string>(ring_);
  auto any = viewOf<HXValue>(ring_);
  auto list = viewOf<std::array<float, 2>>(ring_);
  struct Step {
    const char* what;
    std::function<void()> take;
    State number;
    State text;
    State any;
    State list;
  };
  using enum State;
  const Step steps[] = {
      {"a key that is not there", [&] { showing_.write(Absent); }, Absent, Absent, Absent, Absent},
      {"a key without a value", [&] { showing_.write(HXValue()); }, OtherType, OtherType, Present, OtherType},
      {"a float", [&] { showing_.write(0.5F); }, Present, OtherType, Present, OtherType},
      {"a double", [&] { showing_.write(0.5); }, OtherType, OtherType, Present, OtherType},
      {"a text", [&] { showing_.write("two"); }, OtherType, Present, Present, OtherType},
      {"a text that is too large", [&] { showing_.write(std::string(65, 'x')); }, OtherType, TooLarge, TooLarge,
       TooLarge},
      {"a list",
       [&] {
         showing_.write(std::array{1.0F, 2.0F});
       },
       OtherType, OtherType, Present, Present},
      {"a list of another size", [&] { showing_.write(std::array{1.0F}); }, OtherType, OtherType, Present, OtherType},
      {"an address", [&] { showing_.write(AddressKnown); }, AddressKnown, AddressKnown, AddressKnown, AddressKnown},
      {"another use of the cell", [&] { showing_.giveAway(); }, Disconnected, AddressKnown, AddressKnown, AddressKnown},
      {"an orderly end", [&] { showing_.end(); }, Disconnected, Disconnected, Disconnected, Disconnected}};
  for (const Step& step : steps) {
    SCOPED_TRACE(step.what);
    step.take();
    EXPECT_EQ(number.read().state, step.number);
    EXPECT_EQ(text.read().state, step.text);
    EXPECT_EQ(any.read().state, step.any);
    EXPECT_EQ(list.read().state, step.list);
    if (step.number != Present) {
      EXPECT_THROW(number.read().value(), std::runtime_error);
    }
    EXPECT_EQ(number.read().isFresh(1h), step.number == Present);
  }
  // What was seen last remains to be shown.
  EXPECT_EQ(number.read().last(), 0.5F);
  EXPECT_EQ(text.read().last(), "two");
  EXPECT_EQ(list.read().last(), (std::array{1.0F, 2.0F}));
}

TEST_F(Views, AreFreshWhileTheValueIsYoungAndTheBrokerRuns) {
  auto number = viewOf<int>(cell_);
  showing_.write(1);
  EXPECT_TRUE(number.read().isFresh(1h));
  EXPECT_TRUE(number.alive(1h));
  EXPECT_GE(number.read().age(), 0ns);
  EXPECT_LT(number.read().age(), 1h);
  EXPECT_FALSE(number.read().isFresh(-1h));
  EXPECT_FALSE(number.alive(-1h));
  // Written by a broker that is told to run an hour from now: the value is young, and nothing else counts.
  showing_.beat(monotonicNow() + 3'600'000'000'000);
  EXPECT_TRUE(number.alive(0ms));
}

TEST_F(Views, DoNotCallAnOldValueFreshWhenTheBrokerIsFrozen) {
  auto text = View<std::string>(ring_, {.capacity = 64, .aliveWithin = 20ms});
  showing_.write("x");
  showing_.beat(0);
  text.read();
  std::this_thread::sleep_for(50ms);  // Nobody else can make a value old.
  EXPECT_FALSE(text.read().isFresh(1h));
  EXPECT_FALSE(text.alive(20ms));
  showing_.beat(monotonicNow() + 3'600'000'000'000);  // However long it takes from here to the read.
  EXPECT_TRUE(text.read().isFresh(1h));
}

TEST_F(Views, FollowTheBrokerThroughItsEndAndReturn) {
  auto number = viewOf<int>(cell_);
  for (int i = 1; i <= 5; ++i) showing_.write(i);
  EXPECT_EQ(number.read().value(), 5);
  cell_->lose();
  EXPECT_EQ(number.read().state, State::Disconnected);
  EXPECT_FALSE(number.alive());
  Showing restarted(RingShape{64, 3});
  restarted.write(7);
  cell_->connectTo(restarted);
  EXPECT_TRUE(number.read().isReconnected);
  EXPECT_EQ(number.read().value(), 7);
  EXPECT_FALSE(number.read().isReconnected);
  showing_.write(8);
  EXPECT_EQ(number.read().value(), 7);
}

TEST_F(Views, AreWokenByTheNextWriteAndByTheEnd) {
  for (const bool isOfCell : {true, false}) {
    auto any = viewOf<int>(cell_);
    auto stream = Stream<int>(ring_, {});
    showing_.write(1);
    const std::uint64_t revision = any.read().revision;
    EXPECT_TRUE(any.wait(revision - 1, 1h));
    EXPECT_FALSE(any.wait(revision, 1ms));
    Seen<int> item;
    while (stream.next(item) == ReadResult::Value) {
    }
    std::thread writer([&] { showing_.write(2); });
    EXPECT_TRUE(isOfCell ? any.wait(revision, 1h) : stream.wait(1h));
    writer.join();
  }
  auto any = viewOf<int>(cell_);
  // Before the broker goes: who has read that it is gone waits for another.
  const std::uint64_t latest = any.read().revision;
  std::thread broker([&] { cell_->lose(); });
  EXPECT_TRUE(any.wait(latest, 1h));
  broker.join();
  EXPECT_EQ(any.read().state, State::Disconnected);
}

TEST(Streams, GiveEveryValueOrSayExactlyHowManyWereLost) {
  Showing showing(RingShape{8, 5});
  showing.write(0);
  const auto opened = std::make_shared<Opening>(showing, false);
  Stream<int> stream(opened, {});
  Seen<int> item;
  const auto write = [&](int from, int to) {
    for (int i = from; i <= to; ++i) showing.write(i);
  };
  const auto expect = [&](int from, int to) {
    for (int i = from; i <= to; ++i) {
      ASSERT_EQ(stream.next(item), ReadResult::Value);
      EXPECT_EQ(item.value(), i);
    }
    EXPECT_EQ(stream.next(item), ReadResult::Nothing);
  };
  expect(0, 0);
  write(1, 4);
  expect(1, 4);
  write(5, 104);
  EXPECT_EQ(stream.next(item), ReadResult::Lost);
  EXPECT_EQ(stream.lost(), 96U);
  expect(101, 104);
  write(105, 106);
  opened->lose();
  std::array<Seen<int>, 8> items;
  EXPECT_EQ(stream.read(items), 2U);
  EXPECT_EQ(stream.next(item), ReadResult::Ended);
  Showing restarted(RingShape{8, 5});
  restarted.write(1);
  opened->connectTo(restarted);
  EXPECT_EQ(stream.next(item), ReadResult::Reconnected);
  ASSERT_EQ(stream.next(item), ReadResult::Value);
  EXPECT_EQ(item.value(), 1);
}

TEST(Clock, IsRightAlsoWhenTheSystemsClockIsSet) {
  constexpr std::int64_t kTick = 20'000'000;
  for (const std::int64_t step : {std::int64_t{0}, std::int64_t{-3'600'000'000'000}, std::int64_t{5'000'000'000}}) {
    const std::uint64_t before = monotonicNow();
    const std::uint64_t told = monotonicAt(systemNow() + step);
    EXPECT_LE(before, told + kTick);
    EXPECT_LE(told, monotonicNow() + kTick);
  }
}

}  // namespace
}  // namespace HX::view
