#include "store_fixture.h"

#include <algorithm>
#include <chrono>
#include <future>

namespace HX {
namespace {

using store::FakeClock;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;
using testing::UnorderedElementsAreArray;
using namespace std::chrono_literals;

class Questions : public store::StoreFixture {};

TEST_F(Questions, AboutHistoryGiveTheLastFiftyWithTheirTimes) {
  const FakeClock clock(0s);
  for (int i = 0; i < 60; ++i) {
    FakeClock::set(std::chrono::seconds(i) + 1us);
    memory->raiseEvent("event", i);
    memory->raiseEvent("event", HXValue());
  }
  const HXValue history = memory->getEventHistory("event");
  ASSERT_EQ(history.getSize(), 50U);
  for (std::size_t i = 0; i < 50; ++i) {
    const int number = static_cast<int>(i) + 10;
    EXPECT_EQ(history[i], HXValue::list({number, number, 1}));
  }
}

TEST_F(Questions, AboutHistoryTellNeverRaisedFromRaisedWithNothing) {
  memory->insertData("data", 1);
  memory->raiseMicroEvent("micro", 1);
  memory->declareEvent("declared");
  memory->raiseEvent("empty", HXValue());
  for (const char* key : {"data", "micro", "declared"}) EXPECT_EQ(memory->getEventHistory(key), HXValue()) << key;
  EXPECT_EQ(memory->getEventHistory("empty"), HXValue::list());

  memory->raiseEvent("empty", 1);
  memory->raiseMicroEvent("empty", 2);
  memory->insertData("empty", 3);
  EXPECT_EQ(memory->getEventHistory("empty").getSize(), 1U);
}

TEST_F(Questions, ForKeysFilterByBytes) {
  for (const char* key : {"Sensor/A", "TheSensor", "sensor", "Sens or"}) memory->insertData(key, 1);
  EXPECT_THAT(memory->getDataList("Sensor"), UnorderedElementsAre("Sensor/A", "TheSensor"));
  EXPECT_THAT(memory->getDataList("absent"), IsEmpty());
  EXPECT_THAT(memory->getDataList(""), UnorderedElementsAreArray(memory->getDataListName()));
  EXPECT_EQ(memory->getDataListName().size(), 8U);
}

TEST_F(Questions, ForKeysOfAKindFollowTheKind) {
  memory->insertData("a", 1);
  memory->raiseMicroEvent("b", 1);
  memory->raiseEvent("c", 1);
  EXPECT_THAT(memory->getListTyped(STMValue::Data), ElementsAre("a"));
  EXPECT_THAT(memory->getMicroEventList(), UnorderedElementsAre("KorvoReady", "b"));
  EXPECT_THAT(memory->getListTyped(STMValue::Event), testing::AllOf(Contains("c"), testing::SizeIs(4)));
  EXPECT_THAT(memory->getListTyped(STMValue::ShmData), IsEmpty());
  memory->raiseMicroEvent("a", 1);
  EXPECT_THAT(memory->getMicroEventList(), UnorderedElementsAre("KorvoReady", "a", "b"));
}

TEST_F(Questions, ForValuesGiveOnePlaceToEachKey) {
  memory->insertData("a", 1);
  memory->insertData("b", HXValue("two"));
  memory->insertData("5", 5);
  const HXValue keys =
      HXValue::list({"a", HXValue::list({"b", "ignored"}), "x", 5, "a", HXValue::list({5}), HXValue()});
  EXPECT_EQ(memory->getListData(keys), HXValue::list({1, "two", HXValue(), 5, 1, 5, HXValue()}));
  EXPECT_EQ(memory->getListData(HXValue::list()), HXValue::list());
  EXPECT_EQ(memory->getListData(HXValue()), HXValue::list());
  EXPECT_THROW(memory->getListData(HXValue::list({HXValue::list()})), std::runtime_error);
}

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
  // The first look may come at any time: every number is written once, so that whichever it saw, a later one differs.
  int last = 0;
  do {
    memory->insertData("key", ++last);
  } while (call.wait_for(10ms) != std::future_status::ready);
  const int seen = call.get().asInt();
  EXPECT_GT(seen, 0);
  EXPECT_LE(seen, last);
}

TEST_F(Questions, ForAChangeEndWithAnErrorWhenTheKeyGoes) {
  memory->insertData("key", 0);
  auto call = std::async(std::launch::async,
                         [this] { return store::errorOf([this] { memory->getDataOnChange("key", 0); }, true); });
  memory->removeData("key");
  EXPECT_EQ(call.get(), (store::Fields{"getData", "Data not found key", 535}));
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

TEST_F(Questions, ForEventsGiveThoseThatWereFiledUntilTheEventIsRemoved) {
  const auto events = [this] {
    auto names = memory->getEventList();
    std::erase_if(names, [](const std::string& name) { return name.starts_with("HXMemory/"); });
    return names;
  };
  memory->declareEvent("B");
  memory->declareEvent("A", "X");
  EXPECT_THAT(events(), ElementsAre("A", "B"));
  memory->removeData("A");
  EXPECT_THAT(events(), ElementsAre("A", "B"));
  memory->removeEvent("B");
  memory->subscribeToEvent("C", "somebody", "called");
  memory->raiseMicroEvent("D", 1);
  EXPECT_THAT(events(), ElementsAre("A"));
  memory->raiseEvent("C", 1);
  memory->raiseEvent("D", 1);
  memory->raiseMicroEvent("D", 1);
  EXPECT_THAT(events(), ElementsAre("A", "C", "D"));
  memory->removeMicroEvent("D");
  EXPECT_THAT(events(), ElementsAre("A", "C"));
}

TEST_F(Questions, ForTheEventsOfAnExtractorCompareItsWholeName) {
  const auto of = [this](const std::string& extractor) { return memory->getExtractorEvent(extractor); };
  memory->declareEvent("E2", "X");
  memory->declareEvent("E1", "X");
  memory->declareEvent("F", "XY");
  memory->declareEvent("G", "");
  memory->raiseEvent("H", 1);
  EXPECT_THAT(of("X"), ElementsAre("E1", "E2"));
  EXPECT_THAT(of(""), ElementsAre("G"));
  EXPECT_THAT(of("Unknown"), testing::AllOf(Contains("H"), Not(Contains("E1"))));
  EXPECT_THAT(of("nobody"), IsEmpty());

  memory->declareEvent("F", "X");
  memory->declareEvent("E1");
  memory->raiseEvent("E2", 1);
  EXPECT_THAT(of("X"), ElementsAre("E1", "E2", "F"));
  EXPECT_THAT(of("XY"), IsEmpty());
  memory->removeEvent("E1");
  memory->removeMicroEvent("E2");
  EXPECT_THAT(of("X"), ElementsAre("F"));
}

TEST_F(Questions, ForTheEventsOfAnExtractorLeaveOutThoseThatOnlyExistBySubscription) {
  memory->subscribeToEvent("asked", "somebody", "called");
  EXPECT_THAT(memory->getExtractorEvent(""), IsEmpty());
  EXPECT_THAT(memory->getEventList(), Not(Contains("asked")));
  memory->declareEvent("asked");
  EXPECT_THAT(memory->getExtractorEvent(""), ElementsAre("asked"));
  EXPECT_THAT(memory->getEventList(), Contains("asked"));
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
    EXPECT_EQ(store::errorOf([&] { memory->getData(name); }).message, "Data not found " + name);
  }
}

class Descriptions : public store::StoreFixture {};

TEST_F(Descriptions, ComeBehindAsManyInvalidEntriesAsWereAskedFor) {
  memory->insertData("k", 1);
  memory->setDescription("k", "speed");
  memory->raiseMicroEvent("m", 1);
  memory->xRequireSTMValue("shared", STMValue::ShmData, HXValue());
  EXPECT_EQ(memory->getDescriptionList({"k"}), HXValue::list({HXValue(), HXValue::list({"k", "data", "speed"})}));
  EXPECT_EQ(memory->getDescriptionList({"m", "shared", "m"}),
            HXValue::list({HXValue(), HXValue(), HXValue(), HXValue::list({"m", "event", ""}),
                           HXValue::list({"shared", HXValue(), ""}), HXValue::list({"m", "event", ""})}));
}

TEST_F(Descriptions, OfAllKeysComeAlone) {
  memory->insertData("k", 1);
  memory->setDescription("k", "speed");
  EXPECT_THAT(memory->getDescriptionList({}).asList(),
              UnorderedElementsAre(HXValue::list({"k", "data", "speed"}), HXValue::list({"KorvoReady", "event", ""}),
                                   HXValue::list({"HXMemory/KeyAdded", "event", ""}),
                                   HXValue::list({"HXMemory/KeyRemoved", "event", ""}),
                                   HXValue::list({"HXMemory/KeyTypeChanged", "event", ""})));
}

TEST_F(Descriptions, LeaveValueKindAndEventsAlone) {
  memory->insertData("k", 1);
  const HXValue before = memory->getDataTimestamp("k");
  memory->setDescription("k", "first");
  memory->setDescription("k", "second");
  EXPECT_EQ(memory->getDataTimestamp("k"), before);
  EXPECT_THAT(retyped(), IsEmpty());
  memory->insertData("k", 2);
  EXPECT_EQ(memory->getDescriptionList({"k"})[1][2], HXValue("second"));
  EXPECT_THROW(memory->setDescription("absent", "x"), HXError);
  EXPECT_THAT(memory->getDataList("absent"), IsEmpty());
}

}  // namespace
}  // namespace HX
