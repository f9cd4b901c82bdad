#include "race_point.h"
#include "store_fixture.h"

#include <libmw/clock.h>

#include <atomic>
#include <chrono>

namespace HX {
namespace {

class StoredValues : public store::StoreFixture {};

TEST_F(StoredValues, CarryTheTimeOfTheirLastWriteInWholeMicroseconds) {
  const auto before =
      mw::exchangeSystemClock([]() noexcept { return mw::SystemTimePoint(std::chrono::nanoseconds(12'345'678'999)); });
  memory->insertData("key", 1);
  mw::exchangeSystemClock(before);
  EXPECT_EQ(memory->getDataTimestamp("key"), HXValue::list({1, 12, 345678}));
}

TEST_F(StoredValues, AreShownWithTheTimeOfTheirOwnWrite) {
  static std::atomic<int> now;
  const auto before =
      mw::exchangeSystemClock([]() noexcept { return mw::SystemTimePoint(std::chrono::seconds(++now)); });
  memory->insertData("key", 1);
  const HXValue first = memory->getDataTimestamp("key");
  kit::AtRacePoint meanwhile("a value is being shown with its time", [this] { memory->insertData("key", 2); });
  EXPECT_EQ(memory->getDataTimestamp("key"), first);
  EXPECT_TRUE(meanwhile.join());
  EXPECT_EQ(memory->getDataTimestamp("key"), HXValue::list({2, now.load(), 0}));
  mw::exchangeSystemClock(before);
}

TEST_F(StoredValues, AreInTheHistoryWithTheTimeOfTheirWayThere) {
  static std::atomic<int> now;
  const auto before =
      mw::exchangeSystemClock([]() noexcept { return mw::SystemTimePoint(std::chrono::seconds(++now)); });
  memory->declareEvent("key");
  for (int value = 0; value < 60; ++value) {  // More than are kept.
    memory->raiseEvent("key", value);
    const HXValue history = memory->getEventHistory("key");
    ASSERT_EQ(history[history.getSize() - 1], HXValue::list({value, now.load(), 0}));
    ASSERT_EQ(memory->getDataTimestamp("key"), HXValue::list({value, now - 1, 0}));
  }
  mw::exchangeSystemClock(before);
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
