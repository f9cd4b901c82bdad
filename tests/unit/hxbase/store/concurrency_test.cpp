#include "store_fixture.h"

#include <atomic>
#include <latch>
#include <map>
#include <mutex>
#include <thread>

namespace HX {
namespace {

constexpr int kRounds = 1500;

class ConcurrentStore : public store::StoreFixture {
 protected:
  /// Runs every job on a thread of its own, all begun at once, and waits for them.
  static void together(const std::vector<std::function<void()>>& jobs) {
    std::latch begin(static_cast<std::ptrdiff_t>(jobs.size()));
    std::vector<std::jthread> threads;
    for (const auto& job : jobs) {
      threads.emplace_back([&begin, &job] {
        begin.arrive_and_wait();
        job();
      });
    }
  }

  /// True when `action` succeeded, false when it failed because the name was absent.
  static bool unlessAbsent(const std::function<void()>& action) {
    try {
      action();
      return true;
    } catch (const HXError& error) {
      EXPECT_THAT(error.message(),
                  testing::AnyOf(testing::StartsWith("Data not found "), testing::EndsWith(" not found")));
      return false;
    }
  }

  /// Has `count` called with the name at each raise of a bookkeeping event.
  void follow(const std::string& event, std::function<void(const std::string&)> count) {
    memory->subscriber(event)->signal.connect(mw::SignalSubscriber(
        [count = std::move(count)](const HXValue& name) { count(name.asString()); }, mw::MetaCallType::Direct));
  }
};

TEST_F(ConcurrentStore, TellsOfEachAdditionAndRemovalOnce) {
  const std::vector<std::string> keys{"a", "b", "c"};
  std::mutex mutex;
  std::map<std::string, int> balance;
  const auto count = [&](int step) {
    return [&mutex, &balance, step](const std::string& name) {
      const std::lock_guard lock(mutex);
      balance[name] += step;
    };
  };
  follow(Memory::keyAddedKey, count(1));
  follow(Memory::keyRemovedKey, count(-1));

  std::atomic<int> removals = 0;
  const auto write = [&] {
    for (int i = 0; i < kRounds; ++i) {
      const std::string& key = keys[static_cast<std::size_t>(i) % keys.size()];
      memory->insertData(key, i);
      if (unlessAbsent([&] { memory->removeData(key); })) ++removals;
      if (i % 7 == 0) memory->raiseEvent(key, i);
    }
  };
  const auto read = [&] {
    for (int i = 0; i < kRounds; ++i) {
      const std::string& key = keys[static_cast<std::size_t>(i) % keys.size()];
      unlessAbsent([&] { EXPECT_TRUE(memory->getData(key).isInt()); });
      unlessAbsent([&] { EXPECT_EQ(memory->getDataTimestamp(key).getSize(), 3U); });
      unlessAbsent([&] { memory->getEventHistory(key); });
      unlessAbsent([&] { memory->setDescription(key, std::to_string(i)); });
      EXPECT_LE(memory->getDataListName().size(), 7U);
      EXPECT_GE(memory->getDescriptionList({}).getSize(), 4U);
      memory->getListTyped(STMValue::Data);
      memory->getEventList();
    }
  };
  together({write, write, read, read});

  EXPECT_GT(removals, 0);
  for (const std::string& key : keys) {
    EXPECT_EQ(balance[key], memory->xGetSTMValue(key) ? 1 : 0) << key;
  }
}

TEST_F(ConcurrentStore, LeavesAnAddressWhereItIsWhileOthersWriteTheKey) {
  int* const address = memory->getIntPtr("speed");
  const auto insert = [&] {
    for (int i = 1; i <= kRounds; ++i) memory->insertData("speed", i);
  };
  const auto insertOthers = [&] {
    for (int i = 0; i < kRounds; ++i) {
      EXPECT_THROW(memory->insertData("speed", HXValue("text")), HXError);
      EXPECT_THROW(memory->removeData("speed"), HXError);
      EXPECT_EQ(memory->getIntPtr("speed"), address);
    }
  };
  const auto use = [&] {
    const std::atomic_ref<int> speed(*address);
    for (int i = 0; i < kRounds; ++i) {
      const int seen = speed.load(std::memory_order_relaxed);
      EXPECT_TRUE(-1 <= seen && seen <= kRounds);
      if (i % 5 == 0) speed.store(-1, std::memory_order_relaxed);
      EXPECT_TRUE(memory->getData("speed").isInt());
    }
  };
  together({insert, insertOthers, use, use});
}

TEST_F(ConcurrentStore, LeavesThePlaceOfAValueThatIsStillToComeToItsHolder) {
  int* const address = static_cast<int*>(memory->getPtrData("later"));
  const auto use = [&] {
    const std::atomic_ref<int> later(*address);
    for (int i = 0; i < kRounds; ++i) later.store(i, std::memory_order_relaxed);
  };
  const auto declare = [&] {
    for (int i = 0; i < kRounds; ++i) {
      memory->declareEvent("later");
      EXPECT_FALSE(memory->getData("later").isValid());
    }
  };
  together({use, declare});
  EXPECT_EQ(*address, kRounds - 1);
}

TEST_F(ConcurrentStore, GivesNoAddressOfAnItemThatIsBeingRemoved) {
  for (int i = 0; i < 300; ++i) {
    const std::string key = "key" + std::to_string(i);
    memory->insertData(key, 1);
    int* address = nullptr;
    together({[&] { address = memory->getIntPtr(key); },
              [&] {
                try {
                  while (true) {
                    memory->removeData(key);
                    memory->insertData(key, 1);
                  }
                } catch (const HXError&) {
                  // Marked, or absent for a moment: the other thread makes it anew.
                }
              }});
    EXPECT_EQ(address, memory->getIntPtr(key));
    memory->insertData(key, 5);
    EXPECT_EQ(*address, 5);
  }
}

TEST_F(ConcurrentStore, MakesOneItemOfANameThatManyRequire) {
  std::mutex mutex;
  std::vector<void*> addresses;
  const auto require = [&] {
    for (int i = 0; i < 200; ++i) {
      void* const address = memory->getIntPtr("key" + std::to_string(i));
      const std::lock_guard lock(mutex);
      addresses.push_back(address);
    }
  };
  together({require, require, require});
  std::ranges::sort(addresses);
  addresses.erase(std::unique(addresses.begin(), addresses.end()), addresses.end());
  EXPECT_EQ(addresses.size(), 200U);
}

}  // namespace
}  // namespace HX
