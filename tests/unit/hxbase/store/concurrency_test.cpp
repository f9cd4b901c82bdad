#include "store_fixture.h"
#include "together.h"

#include <atomic>
#include <mutex>
#include <thread>

namespace HX {
namespace {

constexpr int kRounds = 1500;

class ConcurrentStore : public store::StoreFixture {};

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
  kit::together({insert, insertOthers, use, use});
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
  kit::together({use, declare});
  EXPECT_EQ(*address, kRounds - 1);
}

TEST_F(ConcurrentStore, GivesNoAddressOfAnItemThatIsBeingRemoved) {
  for (int i = 0; i < 300; ++i) {
    const std::string key = "key" + std::to_string(i);
    memory->insertData(key, 1);
    int* address = nullptr;
    kit::together({[&] { address = memory->getIntPtr(key); },
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
  kit::together(3, require);
  std::ranges::sort(addresses);
  addresses.erase(std::unique(addresses.begin(), addresses.end()), addresses.end());
  EXPECT_EQ(addresses.size(), 200U);
}

}  // namespace
}  // namespace HX
