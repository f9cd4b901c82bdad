#include "store_fixture.h"

namespace HX {
namespace {

using store::errorOf;
using store::Fields;
using namespace std::chrono_literals;

struct Failure {
  const char* what;
  void (*action)(HXMemory& memory);
  Fields fields;
};

void PrintTo(const Failure& failure, std::ostream* out) { *out << failure.what; }

class StoreError : public store::StoreFixture, public testing::WithParamInterface<Failure> {};

TEST_P(StoreError, HasTheFieldsThatCallersRelyOn) {
  testing::internal::CaptureStdout();
  const bool fixedLine = GetParam().fields.line != Fields::kSomeLine;
  EXPECT_EQ(errorOf([&] { GetParam().action(*memory); }, fixedLine), GetParam().fields);
  testing::internal::GetCapturedStdout();
}

const std::string kMissing = "Data not found gone";

const std::vector<Failure> kFailures = {
    {"getData", [](HXMemory& m) { m.getData("gone"); }, {"getData", kMissing, 535}},
    {"removeData", [](HXMemory& m) { m.removeData("gone"); }, {"removeData", kMissing, 1175}},
    {"removeMarked",
     [](HXMemory& m) { m.getIntPtr("held"), m.removeData("held"); },
     {"removeData", "Data held can't be erased because it has been accessed using getDataPtr", 1179}},
    {"listShort",
     [](HXMemory& m) { m.insertListData(HXValue::list({HXValue::list({"one"})})); },
     {"InsertListData", "unable to insert to Memory data with a size < 2. Must be : ['name', value]", 902}},
    {"listNumberAsName",
     [](HXMemory& m) {
       m.insertListData(HXValue::list({HXValue::list({5, 6})}));
     },
     {"InsertListData", "malformed preferences. No HXMemory data name.", 907}},
    {"retypeMarked",
     [](HXMemory& m) { m.getIntPtr("held"), m.insertData("held", HXValue("text")); },
     {"setValue", "Can't change the type of the value from Int to String because getDataPtr has been called on it.", 0,
      ""}},
    {"getTimestamp", [](HXMemory& m) { m.getDataTimestamp("gone"); }, {"getData", kMissing}},
    {"getEventHistory", [](HXMemory& m) { m.getEventHistory("gone"); }, {"getEventHistory", kMissing}},
    {"getType", [](HXMemory& m) { m.getStrDataType("gone"); }, {"getStrDataType", kMissing}},
    {"getDataType", [](HXMemory& m) { m.getDataType("gone"); }, {"getDataType", kMissing}},
    {"getSubscribers", [](HXMemory& m) { m.getDataSubscriber("gone"); }, {"getDataSubscriber", kMissing}},
    {"unsubscribe", [](HXMemory& m) { m.unsubscribeToEvent("gone", "M"); }, {"getData", kMissing}},
    {"unsubscribeStranger",
     [](HXMemory& m) { m.unsubscribeToEvent("KorvoReady", "M"); },
     {"UnsubscribeToMicroEvent", "M is not subscribed to KorvoReady"}},
    {"getDataOnChangeEmpty",
     [](HXMemory& m) { m.getDataOnChange("", 0); },
     {"getDataOnChange", "Empty data name cannot be found."}},
    {"setDescription", [](HXMemory& m) { m.setDescription("gone", "x"); }, {"setDescription", "gone not found"}},
    {"getDescriptionList",
     [](HXMemory& m) { m.getDescriptionList({"gone"}); },
     {"getDescriptionList", "gone not found"}}};

INSTANTIATE_TEST_SUITE_P(Store, StoreError, testing::ValuesIn(kFailures),
                         [](const auto& one) { return std::string(one.param.what); });

class StoredValues : public store::StoreFixture {};

TEST_F(StoredValues, CarryTheTimeOfTheirLastWriteInWholeMicroseconds) {
  const store::FakeClock clock(12s + 345678999ns);
  memory->raiseEvent("key", 1);
  const HXValue raised = HXValue::list({1, 12, 345678});
  EXPECT_EQ(memory->getDataTimestamp("key"), raised);
  EXPECT_EQ(memory->getEventHistory("key"), HXValue::list({raised}));
}

TEST_F(StoredValues, OfOtherKindsAreNamedButNotDescribed) {
  memory->xRequireSTMValue("unknown", STMValue::UnknownData, HXValue());
  memory->xRequireSTMValue("shared", STMValue::ShmData, HXValue());
  EXPECT_EQ(memory->getStrDataType("unknown"), "Unknown data");
  EXPECT_EQ(memory->getStrDataType("shared"), "ShmData");
  EXPECT_EQ(memory->getListTyped(STMValue::ShmData), std::vector<std::string>{"shared"});
  EXPECT_EQ(memory->getDescriptionList({"shared"})[1], HXValue::list({"shared", HXValue(), ""}));
  EXPECT_STREQ(STMValue::kindText(static_cast<STMValue::dataType>(5)), "Unknown");
}

TEST_F(StoredValues, StayWithThoseWhoHoldTheirItemAfterItsRemoval) {
  memory->insertData("key", HXValue("held"));
  const auto item = memory->xGetSTMValue("key");
  memory->removeData("key");
  memory->insertData("key", HXValue("new"));
  EXPECT_EQ(item->getValue(), HXValue("held"));
  EXPECT_NE(memory->xGetSTMValue("key"), item);
}

}  // namespace
}  // namespace HX
