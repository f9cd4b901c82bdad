#include "store_fixture.h"

namespace HX {
namespace {

using store::errorOf;
using store::FakeClock;
using store::Fields;
using testing::ElementsAre;
using namespace std::chrono_literals;

class StoredValues : public store::StoreFixture {};

struct Failure {
  const char* what;
  void (*action)(HXMemory& memory);
  Fields fields;
};

void PrintTo(const Failure& failure, std::ostream* out) { *out << failure.what; }

HXValue listOf(HXValue element) { return HXValue::list({HXValue::list({"before", 1}), std::move(element)}); }

class StoreError : public store::StoreFixture, public testing::WithParamInterface<Failure> {};

TEST_P(StoreError, HasTheFieldsThatCallersRelyOn) {
  testing::internal::CaptureStdout();
  const bool fixedLine = GetParam().fields.line != Fields::kSomeLine;
  EXPECT_EQ(errorOf([&] { GetParam().action(*memory); }, fixedLine), GetParam().fields);
  testing::internal::GetCapturedStdout();
}

const std::string kMissing = "Data not found gone";
const std::string kShort = "unable to insert to Memory data with a size < 2. Must be : ['name', value]";
const std::string kNameless = "malformed preferences. No HXMemory data name.";

INSTANTIATE_TEST_SUITE_P(
    Store, StoreError,
    testing::Values(
        Failure{"getData", [](HXMemory& m) { m.getData("gone"); }, {"getData", kMissing, 535}},
        Failure{"getDataWithNumber", [](HXMemory& m) { m.getData("gone", 7); }, {"getData", kMissing, 535}},
        Failure{"removeData", [](HXMemory& m) { m.removeData("gone"); }, {"removeData", kMissing, 1175}},
        Failure{"removeEvent", [](HXMemory& m) { m.removeEvent("gone"); }, {"removeData", kMissing, 1175}},
        Failure{"removeMicroEvent", [](HXMemory& m) { m.removeMicroEvent("gone"); }, {"removeData", kMissing, 1175}},
        Failure{"removeMarked",
                [](HXMemory& m) {
                  m.getIntPtr("held");
                  m.removeData("held");
                },
                {"removeData", "Data held can't be erased because it has been accessed using getDataPtr", 1179}},
        Failure{"listScalar", [](HXMemory& m) { m.insertListData(listOf(5)); }, {"InsertListData", kShort, 902}},
        Failure{"listString", [](HXMemory& m) { m.insertListData(listOf("ab")); }, {"InsertListData", kShort, 902}},
        Failure{"listMap",
                [](HXMemory& m) {
                  m.insertListData(listOf(HXValue::map({{"a", 1}, {"b", 2}})));
                },
                {"InsertListData", kShort, 902}},
        Failure{"listShort",
                [](HXMemory& m) { m.insertListData(listOf(HXValue::list({"one"}))); },
                {"InsertListData", kShort, 902}},
        Failure{"listNumberAsName",
                [](HXMemory& m) {
                  m.insertListData(listOf(HXValue::list({5, 6})));
                },
                {"InsertListData", kNameless, 907}},
        Failure{
            "retypeMarked",
            [](HXMemory& m) {
              m.getIntPtr("held");
              m.insertData("held", HXValue("text"));
            },
            {"setValue",
             "Can't change the type of the value from Int to String because getDataPtr has been called on it.", 0, ""}},
        Failure{"getTimestamp", [](HXMemory& m) { m.getDataTimestamp("gone"); }, {"getData", kMissing}},
        Failure{"getEventHistory", [](HXMemory& m) { m.getEventHistory("gone"); }, {"getEventHistory", kMissing}},
        Failure{"getType", [](HXMemory& m) { m.getStrDataType("gone"); }, {"getStrDataType", kMissing}},
        Failure{"getDataType", [](HXMemory& m) { m.getDataType("gone"); }, {"getDataType", kMissing}},
        Failure{"getDataOnChangeEmpty",
                [](HXMemory& m) { m.getDataOnChange("", 0); },
                {"getDataOnChange", "Empty data name cannot be found."}},
        Failure{"getDataOnChange", [](HXMemory& m) { m.getDataOnChange("gone", 0); }, {"getData", kMissing, 535}},
        Failure{
            "setDescription", [](HXMemory& m) { m.setDescription("gone", "x"); }, {"setDescription", "gone not found"}},
        Failure{"getDescriptionList",
                [](HXMemory& m) {
                  m.getDescriptionList({"KorvoReady", "gone"});
                },
                {"getDescriptionList", "gone not found"}}),
    [](const auto& one) { return std::string(one.param.what); });

TEST_F(StoredValues, ComeBackAsTheyWereInserted) {
  const HXValue values[] = {1, 1.5F, "text", true, 2.5, std::int64_t{3}, HXValue::list({1, "a"}), HXValue()};
  for (const HXValue& value : values) {
    memory->insertData("key", value);
    EXPECT_EQ(memory->getData("key"), value);
    EXPECT_EQ(memory->getData("key", 99), value);
  }
}

TEST_F(StoredValues, AreToldOfWhenTheirKeyIsAddedRetypedAndRemoved) {
  memory->insertData("Foo", 1);
  memory->insertData("Foo", 2);
  EXPECT_THAT(added(), ElementsAre("Foo"));
  EXPECT_THAT(retyped(), ElementsAre());

  memory->raiseEvent("Foo", 3);
  memory->raiseMicroEvent("Foo", 3);
  memory->raiseMicroEvent("Foo", 3);
  memory->insertData("Foo", 3);
  EXPECT_THAT(retyped(), ElementsAre("Foo", "Foo", "Foo"));

  memory->removeData("Foo");
  memory->raiseEvent("Foo", 1);
  EXPECT_THAT(added(), ElementsAre("Foo", "Foo"));
  EXPECT_THAT(removed(), ElementsAre("Foo"));
  EXPECT_EQ(memory->getData("HXMemory/KeyRemoved"), HXValue("Foo"));
}

TEST_F(StoredValues, OfBehaviourBoxesAreToldOfToNobody) {
  const std::string names[] = {"_Behavio", "_Behavior", "_BehaviorX", "_behaviorX", "x_Behavior", ""};
  for (const std::string& name : names) {
    memory->insertData(name, 1);
    memory->raiseEvent(name, 1);
    memory->removeData(name);
  }
  const auto noisy = ElementsAre("_Behavio", "_behaviorX", "x_Behavior", "");
  EXPECT_THAT(added(), noisy);
  EXPECT_THAT(retyped(), noisy);
  EXPECT_THAT(removed(), noisy);
}

TEST_F(StoredValues, KeepBookkeepingAliveWhenItsOwnKeysAreTouched) {
  for (const auto& event : {Memory::keyAddedKey, Memory::keyRemovedKey, Memory::keyTypeChanged}) {
    memory->removeEvent(event);
    memory->insertData(event, 1);
  }
  memory->insertData("Foo", 1);
  memory->raiseEvent("Foo", 1);
  memory->removeData("Foo");
  for (const auto& event : {Memory::keyAddedKey, Memory::keyRemovedKey, Memory::keyTypeChanged}) {
    EXPECT_EQ(memory->getData(event), HXValue("Foo")) << event;
    EXPECT_EQ(memory->getStrDataType(event), "Event");
  }
}

TEST_F(StoredValues, AreOfTheKindOfTheLastWrite) {
  memory->insertData("key", 1);
  EXPECT_EQ(memory->getStrDataType("key"), "Data");
  EXPECT_EQ(memory->getDataType("key"), STMValue::Data);
  memory->raiseEvent("key", 1);
  EXPECT_EQ(memory->getStrDataType("key"), "Event");
  memory->raiseMicroEvent("key", 1);
  EXPECT_EQ(memory->getStrDataType("key"), "MicroEvent");
  memory->xRequireSTMValue("unknown", STMValue::UnknownData, HXValue());
  EXPECT_EQ(memory->getStrDataType("unknown"), "Unknown data");
  memory->xRequireSTMValue("shared", STMValue::ShmData, HXValue());
  EXPECT_EQ(memory->getStrDataType("shared"), "ShmData");
  EXPECT_STREQ(STMValue::kindText(static_cast<STMValue::dataType>(5)), "Unknown");
}

TEST_F(StoredValues, CarryTheTimeOfTheirLastWriteAlsoWhenItChangedNothing) {
  const FakeClock clock(12s + 345678999ns);
  memory->insertData("key", 1);
  EXPECT_EQ(memory->getDataTimestamp("key"), HXValue::list({1, 12, 345678}));
  FakeClock::set(13s);
  memory->insertData("key", 1);
  EXPECT_EQ(memory->getDataTimestamp("key"), HXValue::list({1, 13, 0}));
  EXPECT_EQ(memory->getEventHistory("key"), HXValue());
}

TEST_F(StoredValues, StayWithThoseWhoHoldTheirItemAfterItsRemoval) {
  memory->insertData("key", HXValue("held"));
  const auto item = memory->xGetSTMValue("key");
  memory->removeData("key");
  memory->insertData("key", HXValue("new"));
  EXPECT_EQ(item->getValue(), HXValue("held"));
  EXPECT_NE(memory->xGetSTMValue("key"), item);
}

TEST_F(StoredValues, RequiredWithoutAWriteAreQuietAndHaveNoTime) {
  const auto item = memory->xRequireSTMValue("quiet", STMValue::Event, HXValue(7));
  EXPECT_EQ(memory->xRequireSTMValue("quiet", STMValue::Data, HXValue(8)), item);
  EXPECT_EQ(memory->getDataTimestamp("quiet"), HXValue::list({7, 0, 0}));
  EXPECT_THAT(added(), ElementsAre());
  EXPECT_THAT(memory->getEventList(), testing::Not(testing::Contains("quiet")));
}

}  // namespace
}  // namespace HX
