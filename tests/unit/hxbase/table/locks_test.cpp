// Locks under load. Every test ends only if both sides get their turn, and ThreadSanitizer sees what they guard.

#include <hxbase/tablelock.h>
#include <hxbase/wordlock.h>

#include <array>
#include <atomic>
#include <barrier>
#include <functional>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace HX {
namespace {

constexpr int kRounds = 2000;

/// Threads that all begin at once and have ended when this does.
class Crew {
 public:
  explicit Crew(std::ptrdiff_t size) : start_(size) {}
  void add(std::function<void()> work) {
    threads_.emplace_back([this, work = std::move(work)] {
      start_.arrive_and_wait();
      work();
    });
  }
  ~Crew() {
    for (auto& thread : threads_) thread.join();
  }

 private:
  std::barrier<> start_;
  std::vector<std::thread> threads_;
};

TEST(TableLock, ReadersSeeNoWriteHalfDone) {
  TableLock lock;
  std::array<int, 2> pair{};
  std::atomic<int> torn{0};
  {
    Crew crew(6);
    for (int writer = 0; writer < 2; ++writer) {
      crew.add([&] {
        for (int i = 0; i < kRounds; ++i) {
          const std::unique_lock guard(lock);
          ++pair[0];
          ++pair[1];
        }
      });
    }
    for (int reader = 0; reader < 4; ++reader) {
      crew.add([&] {
        for (int i = 0; i < kRounds; ++i) {
          const std::shared_lock guard(lock);
          torn += pair[0] != pair[1] ? 1 : 0;
        }
      });
    }
  }
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(pair[0], 2 * kRounds);
}

TEST(TableLock, AnyNumberOfReadersIsInAtOnce) {
  constexpr int kMoreThanCounters = 40;
  TableLock lock;
  std::barrier<> everybody(kMoreThanCounters);
  int guarded = 0;
  {
    Crew crew(kMoreThanCounters);
    for (int i = 0; i < kMoreThanCounters; ++i) {
      crew.add([&] {
        const std::shared_lock guard(lock);
        everybody.arrive_and_wait();
      });
    }
  }
  const std::unique_lock guard(lock);  // All have left their counters, those that shared one too.
  EXPECT_EQ(++guarded, 1);
}

TEST(TableLock, ReadersWithoutAPauseLetWritersIn) {
  TableLock lock;
  std::atomic<bool> done{false};
  Crew crew(3);
  for (int reader = 0; reader < 2; ++reader) {
    crew.add([&] {
      while (!done) const std::shared_lock guard(lock);
    });
  }
  crew.add([&] {
    for (int i = 0; i < kRounds; ++i) const std::unique_lock guard(lock);
    done = true;
  });
}

TEST(TableLock, WritersWithoutAPauseLetReadersIn) {
  TableLock lock;
  std::atomic<bool> done{false};
  Crew crew(3);
  for (int writer = 0; writer < 2; ++writer) {
    crew.add([&] {
      while (!done) const std::unique_lock guard(lock);
    });
  }
  crew.add([&] {
    for (int i = 0; i < kRounds; ++i) const std::shared_lock guard(lock);
    done = true;
  });
}

TEST(TableLock, WriterWaitsForReadersThatAreIn) {
  TableLock lock;
  std::atomic<bool> left{false};
  std::barrier<> inside(2);
  bool leftBeforeWriting = false;
  {
    Crew crew(2);
    crew.add([&] {
      std::shared_lock guard(lock);
      inside.arrive_and_wait();
      for (int i = 0; i < kRounds; ++i) std::this_thread::yield();
      left = true;
    });
    crew.add([&] {
      inside.arrive_and_wait();
      const std::unique_lock guard(lock);
      leftBeforeWriting = left;
    });
  }
  EXPECT_TRUE(leftBeforeWriting);
}

TEST(WordLock, LetsOneInAtATime) {
  WordLock lock;
  int count = 0;
  {
    Crew crew(4);
    for (int i = 0; i < 4; ++i) {
      crew.add([&] {
        for (int round = 0; round < kRounds * 10; ++round) {
          const std::lock_guard guard(lock);
          ++count;
        }
      });
    }
  }
  EXPECT_EQ(count, 4 * kRounds * 10);
}

}  // namespace
}  // namespace HX
