#include "store_fixture.h"

#include <libmw/clock.h>

#include <chrono>

namespace HX {
namespace {

class StoredValues : public store::StoreFixture {};

TEST_F(StoredValues, CarryTheTimeOfTheirLastWriteInWholeMicroseconds) {
  const auto before =
      mw::exchangeSystemClock([]() noexcept { return mw::SystemTimePoint(std::chrono::nanoseconds(12'345'678'999)); });
  memory->raiseEvent("key", 1);
  mw::exchangeSystemClock(before);
  const HXValue raised = HXValue::list({1, 12, 345678});
  EXPECT_EQ(memory->getDataTimestamp("key"), raised);
  EXPECT_EQ(memory->getEventHistory("key"), HXValue::list({raised}));
}

TEST_F(StoredValues, ThatAreMissingAreNamed) {
  EXPECT_EQ(errorOf([&] { memory->getDataType("gone"); }), "HXMemory.getDataType: Data not found gone");
  EXPECT_EQ(errorOf([&] { memory->getDataOnChange("", 0); }),
            "HXMemory.getDataOnChange: Empty data name cannot be found.");
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
