#include "far_memory.h"

#include <hxcommon/feed.h>
#include <hxjournal/replica.h>

#include <chrono>
#include <condition_variable>
#include <expect_error.h>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

// A follower in this process, and the memory in another one.

namespace HX {
namespace {

using namespace std::chrono_literals;

class FarMemory : public kit::FarMemoryFixture {
 protected:
  void write(const std::string& key, int value) { memory().insertData(key, value); }
  static bool holds(const journal::Replica& replica, const std::string& key, int value) {
    const auto item = replica.find(key);
    return item && item->value == HXValue(value);
  }
};

TEST_F(FarMemory, IsFollowedAcrossItsEndAndAnother) {
  run();
  join();
  write("Arm/Speed", 1);
  write("Arm/Old", 1);
  journal::Replica replica;
  auto options = replica.following();
  std::mutex mutex;
  std::vector<journal::Gap> gaps;
  options.onGap = [&, inner = options.onGap](const journal::Gap& gap) {
    inner(gap);
    const std::lock_guard lock(mutex);
    gaps.push_back(gap);
  };
  auto followed = follow(broker_, journal::Filter({"Arm/"}), replica.listener(), options);
  await([&] { return replica.completeAt().has_value(); });
  EXPECT_TRUE(holds(replica, "Arm/Old", 1));
  write("Arm/Speed", 2);
  await([&] { return holds(replica, "Arm/Speed", 2); });
  const auto before = followed.position();

  kill();
  run();
  await([&] { return client_->isConnected() && broker_->getProxy("HXMemory") != nullptr; });
  write("Arm/Speed", 3);
  await([&] { return holds(replica, "Arm/Speed", 3) && !replica.find("Arm/Old"); });
  {
    const std::lock_guard lock(mutex);
    ASSERT_EQ(gaps.size(), 1U);
    EXPECT_EQ(gaps[0].from, before);
    EXPECT_TRUE(gaps[0].full);
    EXPECT_NE(gaps[0].to.epoch, before.epoch);
  }
  EXPECT_EQ(replica.counts().atLeast, true);
  const auto place = followed.position();
  EXPECT_EQ(place.epoch, retainedChanges(broker_).latest.epoch);
  followed.end();

  // What changed meanwhile is told to who comes back.
  write("Arm/Speed", 4);
  options.since = place;
  const auto again = follow(broker_, journal::Filter({"Arm/"}), replica.listener(), options);
  await([&] { return holds(replica, "Arm/Speed", 4); });
  const std::lock_guard lock(mutex);
  EXPECT_EQ(gaps.size(), 1U) << "nothing was missed";
}

TEST_F(FarMemory, TellsAFollowerThatIsSlowWhatItMissedAndKeepsTheLinkSmall) {
  run();
  join();
  std::mutex mutex;
  std::condition_variable goOn;
  bool mayGoOn = false;
  bool isWaiting = false;
  journal::Replica replica;
  const auto count = replica.listener();
  auto options = replica.following();
  options.snapshot = false;
  const auto followed = follow(
      broker_, journal::Filter({"Arm/"}),
      [&](const journal::Change& change) {
        {
          std::unique_lock lock(mutex);
          isWaiting = true;
          goOn.wait(lock, [&] { return mayGoOn; });
        }
        count(change);
      },
      options);
  const auto memory = broker_->getSpecialisedProxy<HXMemoryProxy>("HXMemory");
  const auto begin = retainedChanges(broker_).latest.revision;
  constexpr int kWrites = 100'000;
  constexpr int kAtOnce = 1000;
  for (int i = 0; i < kWrites; i += kAtOnce) {
    HXValue::List list;
    for (int j = 0; j < kAtOnce; ++j) list.push_back(HXValue::list({"Arm/Speed", i + j}));
    memory->insertListData(HXValue::list(std::move(list)));
  }
  {
    const std::lock_guard lock(mutex);
    EXPECT_TRUE(isWaiting);
    mayGoOn = true;
  }
  goOn.notify_all();
  await([&] { return holds(replica, "Arm/Speed", kWrites - 1); });
  const auto counts = replica.counts();
  // No more had been sent than is allowed without an answer.
  EXPECT_LT(counts.told, 40'000U);
  EXPECT_EQ(counts.told + counts.leftOut, static_cast<std::uint64_t>(kWrites));
  EXPECT_GE(retainedChanges(broker_).latest.revision, begin + kWrites);
}

TEST_F(FarMemory, SaysWhyItIsNotFollowed) {
  const auto hear = [](const journal::Change&) {};
  run({"--no-journal"});
  join();
  EXPECT_EQ(errorOf([&] { follow(broker_, {}, hear); }),
            "the broker offers no journal: it was started with --no-journal, or without its module journal");
  const auto alone = HXBroker::create("alone");
  EXPECT_EQ(errorOf([&] { follow(alone, {}, hear); }), "there is no memory whose changes could be followed");
}

TEST_F(FarMemory, MayEndItsFollowerFromItsCallback) {
  run({"--journal", "keep"});
  join();
  std::mutex mutex;
  int told = 0;
  journal::Follow followed;
  journal::FollowOptions options;
  options.snapshot = false;
  {
    const std::lock_guard lock(mutex);
    followed = follow(
        broker_, journal::Filter({"Arm/"}),
        [&](const journal::Change&) {
          const std::lock_guard inner(mutex);
          ++told;
          followed.end();
        },
        options);
  }
  for (int i = 0; i < 10; ++i) write("Arm/Speed", i);
  await([&] {
    const std::lock_guard lock(mutex);
    return told != 0;
  });
  std::this_thread::sleep_for(20ms);
  const std::lock_guard lock(mutex);
  EXPECT_EQ(told, 1);
}

}  // namespace
}  // namespace HX
