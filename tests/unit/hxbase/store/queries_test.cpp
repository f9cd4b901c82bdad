#include "race_point.h"
#include "store_fixture.h"

#include <algorithm>
#include <chrono>
#include <future>

namespace HX {
namespace {

using testing::Contains;
using namespace std::chrono_literals;

class Questions : public store::StoreFixture {};

TEST_F(Questions, ForAHundredThousandValuesAreOneCall) {
  constexpr int kKeys = 100'000;
  HXValue::List keys;
  HXValue::List values;
  for (int i = 0; i < kKeys; ++i) {
    keys.emplace_back("Key/" + std::to_string(i));
    values.emplace_back(i);
    memory->insertData(keys.back().asString(), i);
  }
  EXPECT_EQ(generic->call<HXValue>("getListData", HXValue(std::move(keys))), HXValue(std::move(values)));
}

TEST_F(Questions, ForAChangeWaitUntilTheValueDiffers) {
  memory->insertData("key", 0);
  auto call =
      std::async(std::launch::async, [proxy = generic] { return proxy->call<HXValue>("getDataOnChange", "key", 0); });
  EXPECT_EQ(call.wait_for(700ms), std::future_status::timeout) << "it has looked twice, and nothing has changed";
  memory->insertData("key", 1);
  EXPECT_EQ(call.get(), HXValue(1));
}

TEST_F(Questions, ForAChangeEndWithAnErrorWhenTheKeyGoes) {
  memory->insertData("key", 0);
  auto call = std::async(std::launch::async, [this] { return errorOf([this] { memory->getDataOnChange("key", 0); }); });
  memory->removeData("key");
  EXPECT_EQ(call.get(), "HXMemory.getData: Data not found key");
}

TEST_F(Questions, ForAChangeEndWithAnErrorWhenTheBrokerEnds) {
  memory->insertData("key", 0);
  std::promise<void> calling;
  auto call = std::async(std::launch::async, [&calling, proxy = generic] {
    calling.set_value();
    proxy->call<HXValue>("getDataOnChange", "key", 0);
  });
  calling.get_future().wait();
  shutDown();
  EXPECT_THROW(call.get(), std::runtime_error);
}

TEST_F(Questions, ForADescriptionFinishBeforeItIsReplaced) {
  memory->insertData("key", 1);
  memory->setDescription("key", "first");
  const auto described = [this] { return memory->getDescriptionList({"key"})[1][2]; };
  kit::AtRacePoint meanwhile("a key is being described", [this] { memory->setDescription("key", "second"); });
  EXPECT_EQ(described(), HXValue("first"));
  EXPECT_TRUE(meanwhile.join());
  EXPECT_EQ(described(), HXValue("second"));
}

TEST_F(Questions, WithNamesOfAnyBytesAreAnsweredInFull) {
  const std::string names[] = {std::string("nul\0nul", 7), "line\nline", "\xff\xfe",
                               std::string(65'536, 'n'),   " ",          "\"q"};
  for (const std::string& name : names) {
    memory->raiseEvent(name, 1);
    memory->declareEvent(name, name);
    memory->setDescription(name, name);
    using Strings = std::vector<std::string>;
    EXPECT_EQ(generic->call<Strings>("getDataList", name), Strings{name});
    EXPECT_THAT(generic->call<Strings>("getDataListName"), Contains(name));
    EXPECT_THAT(generic->call<Strings>("getEventList"), Contains(name));
    EXPECT_EQ(generic->call<Strings>("getExtractorEvent", name), Strings{name});
    EXPECT_THAT(memory->getListTyped(STMValue::Event), Contains(name));
    EXPECT_EQ(generic->call<HXValue>("getDescriptionList", Strings{name})[1], HXValue::list({name, "event", name}));
    EXPECT_EQ(memory->getListData(HXValue::list({name})), HXValue::list({HXValue()}));
    EXPECT_EQ(added().back(), name);
    memory->raiseMicroEvent(name, 1);
    EXPECT_THAT(generic->call<Strings>("getMicroEventList"), Contains(name));
    memory->removeMicroEvent(name);
    EXPECT_FALSE(memory->xGetSTMValue(name));
  }
}

}  // namespace
}  // namespace HX
