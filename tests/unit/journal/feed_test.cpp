#include "feed.h"

#include "../hxjournal/fixture.h"

#include <hxjournal/replica.h>
#include <hxjournal/request.h>

#include <count_allocations.h>
#include <new>

namespace HX {
namespace {

using namespace std::chrono_literals;

class FeedWithoutMemory : public journal::JournalFixture {
 protected:
  void runAll() {
    for (bool ran = true; ran;) {
      try {
        ran = executor->runOne();
      } catch (const std::bad_alloc&) {
        break;
      }
    }
  }

  /// What a client knows that was told this.
  static std::map<std::string, journal::Replica::Item, std::less<>> readBy(const std::vector<HXValue>& batches) {
    journal::BatchReader reader;
    journal::Replica replica;
    const auto listener = replica.listener();
    const auto options = replica.following();
    for (const HXValue& value : batches) {
      const journal::Batch batch = reader.read(value);
      if (batch.gap) options.onGap(*batch.gap);
      for (const auto& line : batch.lines) {
        if (line.isUnchanged) {
          options.onUnchanged(line.change.key, line.change.at);
        } else {
          listener(line.change);
        }
      }
      if (batch.complete) options.onComplete(*batch.complete);
    }
    return replica.items();
  }
};

// Whatever the broker lacks memory for while it sends: what a client is told stays whole, and leads to the table.
TEST_F(FeedWithoutMemory, TellsAllOnceThereIsSomeAgain) {
  make({.chunks = 2, .bytes = 1 << 20, .linger = 1s});
  const std::shared_ptr<journal::Journal> shared(std::shared_ptr<void>(), &*journal);
  for (std::size_t nth = 1;; ++nth) {
    SCOPED_TRACE(nth);
    table.items.clear();
    for (const char* key : {"a", "b", "c"}) write(key, 1);
    const auto feed = std::make_shared<Feed>(shared, journal::Request());
    std::vector<HXValue> batches;
    batches.reserve(100);
    feed->batch.connect(mw::SignalSubscriber([&](const HXValue& batch) { batches.push_back(batch); }));
    feed->start();
    write("a", 2);
    write("d", std::string(100, 'x'));
    bool met = false;
    {
      const kit::OutOfMemory fault(nth, false);
      runAll();
    }
    met = kit::OutOfMemory::wasMet();
    executor->advance(1s);
    write("a", 3);
    remove("b");
    executor->advance(1s);
    const auto known = readBy(batches);
    EXPECT_FALSE(known.contains("b"));
    for (const auto& [key, item] : table.items) {
      const auto found = known.find(key);
      EXPECT_TRUE(found != known.end() && found->second.value == item.state.value) << key;
    }
    feed->stop();
    executor->advance(2s);
    if (!met) break;
  }
}

}  // namespace
}  // namespace HX
