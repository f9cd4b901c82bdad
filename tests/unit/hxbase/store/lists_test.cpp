#include "store_fixture.h"

#include <future>
#include <thread>

namespace HX {
namespace {

class InsertedLists : public store::StoreFixture {
 protected:
  /// Until another thread has made the key equal `value`; a failing test ends in the time-out of the program.
  void waitFor(const std::string& key, const HXValue& value) {
    while (memory->getListData(HXValue::list({key}))[0] != value) std::this_thread::yield();
  }
};

TEST_F(InsertedLists, EndWhenTheIndexCanCountThem) {
  const HXValue::List elements(65'535, HXValue::list({"key", 1}));
  memory->insertListData(HXValue(elements));
  EXPECT_EQ(memory->getData("key"), HXValue(1));
}

/// Lists that the index cannot count to the end of: their size, and whether it gets as far as the last element.
class EndlessLists : public InsertedLists, public testing::WithParamInterface<std::pair<std::size_t, bool>> {};
INSTANTIATE_TEST_SUITE_P(Sizes, EndlessLists, testing::Values(std::pair(65'536, true), std::pair(65'537, false)));

TEST_P(EndlessLists, GoRoundUntilTheBrokerEnds) {
  const auto& [size, reachesTheLast] = GetParam();
  HXValue::List elements(size, HXValue::list({"middle", 1}));
  elements.front() = HXValue::list({"first", 1});
  elements.back() = HXValue::list({"last", 1});
  auto call = std::async(std::launch::async, [proxy = generic, list = HXValue(std::move(elements))] {
    proxy->call("insertListData", list);
  });
  waitFor("first", 1);
  memory->insertData("first", HXValue("overwritten"));
  waitFor("first", 1);
  EXPECT_EQ(memory->xGetSTMValue("last") != nullptr, reachesTheLast);
  shutDown();
  EXPECT_THROW(call.get(), std::runtime_error);
}

}  // namespace
}  // namespace HX
