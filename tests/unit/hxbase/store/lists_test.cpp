#include "store_fixture.h"

#include <future>
#include <thread>

namespace HX {
namespace {

using testing::ElementsAre;

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

TEST_F(InsertedLists, ThatTheIndexCannotCountGoRoundUntilTheBrokerEnds) {
  HXValue::List elements(65'537, HXValue::list({"middle", 1}));
  elements.front() = HXValue::list({"first", 1});
  elements.back() = HXValue::list({"never", 1});
  auto call = std::async(std::launch::async, [proxy = generic, list = HXValue(std::move(elements))] {
    proxy->call("insertListData", list);
  });
  waitFor("first", 1);
  memory->insertData("first", HXValue("overwritten"));
  waitFor("first", 1);
  EXPECT_THAT(memory->getDataList("never"), ElementsAre());
  shutDown();
  EXPECT_THROW(call.get(), std::runtime_error);
}

}  // namespace
}  // namespace HX
