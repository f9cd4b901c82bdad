// Locks under load. Every test ends only if both sides get their turn, and ThreadSanitizer sees what they guard.

#include "together.h"

#include <hxbase/detail/tablelock.h>
#include <hxvalue/detail/wordlock.h>

#include <array>
#include <atomic>
#include <barrier>
#include <mutex>
#include <shared_mutex>
#include <thread>

#include <gtest/gtest.h>

namespace HX {
namespace {

constexpr int kRounds = 2000;

TEST(TableLock, ReadersSeeNoWriteHalfDone) {
  TableLock lock;
  std::array<int, 2> pair{};
  std::atomic<int> torn{0};
  const auto write = [&] {
    for (int i = 0; i < kRounds; ++i) {
      const std::unique_lock guard(lock);
      ++pair[0];
      ++pair[1];
    }
  };
  const auto read = [&] {
    for (int i = 0; i < kRounds; ++i) {
      const std::shared_lock guard(lock);
      torn += pair[0] != pair[1] ? 1 : 0;
    }
  };
  kit::together({write, write, read, read, read, read});
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(pair[0], 2 * kRounds);
}

TEST(TableLock, AnyNumberOfReadersIsInAtOnce) {
  constexpr int kMoreThanCounters = 40;
  TableLock lock;
  std::barrier<> everybody(kMoreThanCounters);
  int guarded = 0;
  kit::together(kMoreThanCounters, [&] {
    const std::shared_lock guard(lock);
    everybody.arrive_and_wait();
  });
  const std::unique_lock guard(lock);  // All have left their counters, those that shared one too.
  EXPECT_EQ(++guarded, 1);
}

/// Two threads that take one side without a pause, and one that has to get the other side often.
template <class Greedy, class Patient>
void expectLetsIn() {
  TableLock lock;
  std::atomic<bool> done{false};
  const auto take = [&] {
    while (!done) const Greedy guard(lock);
  };
  const auto getIn = [&] {
    for (int i = 0; i < kRounds; ++i) const Patient guard(lock);
    done = true;
  };
  kit::together({take, take, getIn});
}

TEST(TableLock, NeitherSideKeepsTheOtherOut) {
  expectLetsIn<std::shared_lock<TableLock>, std::unique_lock<TableLock>>();
  expectLetsIn<std::unique_lock<TableLock>, std::shared_lock<TableLock>>();
}

TEST(TableLock, WriterWaitsForReadersThatAreIn) {
  TableLock lock;
  std::atomic<bool> left{false};
  std::barrier<> inside(2);
  bool leftBeforeWriting = false;
  const auto read = [&] {
    const std::shared_lock guard(lock);
    inside.arrive_and_wait();
    for (int i = 0; i < 100; ++i) std::this_thread::yield();  // More would take seconds on a machine that is busy.
    left = true;
  };
  const auto write = [&] {
    inside.arrive_and_wait();
    const std::unique_lock guard(lock);
    leftBeforeWriting = left;
  };
  kit::together({read, write});
  EXPECT_TRUE(leftBeforeWriting);
}

TEST(WordLock, LetsOneInAtATime) {
  WordLock lock;
  int count = 0;
  kit::together(4, [&] {
    for (int round = 0; round < kRounds * 10; ++round) {
      const std::lock_guard guard(lock);
      ++count;
    }
  });
  EXPECT_EQ(count, 4 * kRounds * 10);
}

}  // namespace
}  // namespace HX
