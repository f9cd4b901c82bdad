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

TEST_F(StoredValues, TakeTheValuesThatTheirAddressAllows) {
  struct Write {
    HXValue before, after;
    bool isAddressKnown;
    std::string error = {};
  };
  const auto refusal = [](const std::string& from, const std::string& to) {
    return "HXMemory.setValue: Can't change the type of the value from " + from + " to " + to +
           " because getDataPtr has been called on it.";
  };
  const Write writes[] = {{1, "text", false},
                          {1, HXValue(), false},
                          {1, 1, true},
                          {1.5F, 2.5F, true},
                          {HXValue(), 1, true},
                          {HXValue(), 1.5F, true},
                          {HXValue(), HXValue(), true},
                          {HXValue(), 1.5, true, refusal("Invalid", "Double")},
                          {HXValue(), "text", true, refusal("Invalid", "String")},
                          {1, HXValue(), true, refusal("Int", "Invalid")},
                          {1, 1.5F, true, refusal("Int", "Float")},
                          {1.5F, true, true, refusal("Float", "Bool")}};
  const mw::SystemTimePoint later(std::chrono::microseconds(5'000'007));
  for (const Write& write : writes) {
    const auto item = STMValue::create(memory.get(), "key", write.before, STMValue::Data);
    if (write.isAddressKnown) item->accessPointer(HXValue::Type::Invalid);
    const std::string text = write.before.toString() + " to " + write.after.toString();
    const bool isWritten = write.error.empty();
    const auto set = [&] { item->setValue(write.after, STMValue::Event, later); };
    if (isWritten) {
      set();
    } else {
      EXPECT_EQ(errorOf(set), write.error) << text;
    }
    EXPECT_EQ(item->getValueTimeStamp(),
              isWritten ? HXValue::list({write.after, 5, 7}) : HXValue::list({write.before, 0, 0}))
        << text;
    EXPECT_EQ(item->getDataType(), isWritten ? STMValue::Event : STMValue::Data) << text;
  }
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
