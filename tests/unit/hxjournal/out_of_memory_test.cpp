#include "fixture.h"

#include <count_allocations.h>
#include <new>

namespace HX::journal {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class FollowingWithoutMemory : public JournalFixture {};

TEST_F(FollowingWithoutMemory, JoinsWholeOrNotAtAll) {
  make({.chunks = 2, .bytes = 1 << 20, .linger = 1s});
  write("a", 1);
  for (const bool forGood : {false, true}) {
    for (std::size_t nth = 1;; ++nth) {
      SCOPED_TRACE(nth);
      Follow followed;
      {
        Filter filter({"a", "b/"});
        const auto joined = [&] { followed = follow(std::move(filter)); };
        const kit::OutOfMemory fault(nth, forGood);
        try {
          joined();
        } catch (const std::bad_alloc&) {
        }
      }
      if (followed) {
        EXPECT_THAT(heard(), ElementsAre("a:1", "complete"));
      } else {
        EXPECT_THAT(heard(), IsEmpty());
      }
      followed.end();
      executor->advance(2s);
      ASSERT_FALSE(table.recording);
      ASSERT_EQ(executor->waiting(), 0U);
      if (!kit::OutOfMemory::wasMet()) break;
    }
  }
}

// Whatever a follower lacks memory for, it tries again: it never ends, and loses nothing.
TEST_F(FollowingWithoutMemory, GoesOnWhenThereIsSomeAgain) {
  make({.chunks = 2, .bytes = 1 << 20, .linger = 1s});
  for (const double rate : {0.0, 1000.0}) {
    for (std::size_t nth = 1;; ++nth) {
      SCOPED_TRACE(nth);
      table.items.clear();
      for (const char* key : {"a", "b", "c"}) write(key, 1);
      Replica replica;
      FollowOptions options;
      options.rate = rate;
      const auto followed = journal->follow({}, replica.listener(), replica.following(options));
      write("a", 2);
      write("d", std::string(100, 'x'));
      {
        // The callbacks are a replica's, which need memory too; what they throw is not the follower's business.
        const kit::OutOfMemory fault(nth, false);
        for (bool ran = true; ran;) {
          try {
            ran = executor->runOne();
          } catch (const std::bad_alloc&) {
            break;
          }
        }
      }
      const bool met = kit::OutOfMemory::wasMet();
      const auto settle = [&] {
        try {
          executor->advance(1s);
        } catch (const std::bad_alloc&) {
        }
      };
      settle();
      write("a", 3);  // Rings for who could not even be posted.
      settle();
      EXPECT_EQ(replica.find("a").value_or(Replica::Item()).value, HXValue(3));
      if (!met) break;
    }
  }
}

TEST_F(FollowingWithoutMemory, AppendsWithoutAskingForAny) {
  make({.chunks = 2, .bytes = 1 << 10, .linger = 1s});
  const auto followed = follow({}, withoutSnapshot());
  executor->run();  // Awake for a while.
  write("a", 1);
  const HXValue text(std::string(100, 'x'));
  auto& item = table.items["a"];
  const std::size_t before = kit::allocationsOfThisThread();
  for (int i = 0; i < 5000; ++i) {
    Afterwards after(*journal);
    Entry entry;
    entry.value = text;
    entry.setName(*item.name);
    journal->append(std::move(entry), after);
  }
  EXPECT_EQ(kit::allocationsOfThisThread(), before);
}

}  // namespace
}  // namespace HX::journal
