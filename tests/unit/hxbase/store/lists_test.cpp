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

TEST_F(InsertedLists, StoreEachPairWithItsType) {
  const HXValue nested = HXValue::list({1, HXValue::map({{"x", 2}})});
  memory->insertListData(HXValue::list({HXValue::list({"int", 1}), HXValue::list({"float", 1.5F, "ignored"}),
                                        HXValue::list({"list", nested}), HXValue::list({"int", true})}));
  EXPECT_EQ(memory->getListData(HXValue::list({"int", "float", "list"})), HXValue::list({true, 1.5F, nested}));
  EXPECT_THAT(added(), ElementsAre("int", "float", "list"));
}

TEST_F(InsertedLists, ThatHoldNothingChangeNothing) {
  for (const HXValue& nothing : {HXValue(), HXValue::list(), HXValue(5), HXValue("text")}) {
    EXPECT_NO_THROW(memory->insertListData(nothing));
  }
  EXPECT_THAT(added(), ElementsAre());
}

TEST_F(InsertedLists, AreStoredUpToTheElementThatIsMalformed) {
  const HXValue malformed[] = {HXValue::list({"lonely"}), HXValue::list({5, "\n"}), HXValue("text"), HXValue()};
  const char* const printed[] = {"[\"lonely\"]", "[5, \"\\n\"]", "\"text\"", "null"};
  for (int i = 0; i < 4; ++i) {
    testing::internal::CaptureStdout();
    EXPECT_THROW(memory->insertListData(
                     HXValue::list({HXValue::list({"before", i}), malformed[i], HXValue::list({"after", i})})),
                 HXError);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), std::string("malformed data : ") + printed[i] + "\n");
    EXPECT_EQ(memory->getData("before"), HXValue(i));
  }
  EXPECT_THAT(added(), ElementsAre("before"));
}

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
