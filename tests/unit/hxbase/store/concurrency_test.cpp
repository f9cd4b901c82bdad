#include "race_point.h"
#include "store_fixture.h"
#include "together.h"

#include <atomic>

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
  memory->insertData("key", 1);
  kit::AtRacePoint meanwhile("an item is about to be marked as one whose address is known", [this] {
    memory->removeData("key");
    memory->insertData("key", 2);
  });
  const int* const address = memory->getIntPtr("key");
  EXPECT_TRUE(meanwhile.join());
  EXPECT_EQ(*address, 2);
  EXPECT_EQ(memory->getIntPtr("key"), address);
}

TEST_F(ConcurrentStore, MakesOneItemOfANameThatManyRequire) {
  const int* others = nullptr;
  kit::AtRacePoint meanwhile("an item that is required is missing", [&] { others = memory->getIntPtr("key"); });
  const int* const address = memory->getIntPtr("key");
  EXPECT_TRUE(meanwhile.join());
  EXPECT_EQ(address, others);
  EXPECT_EQ(memory->getIntPtr("key"), address);
}

}  // namespace
}  // namespace HX
