#include "capture_log.h"
#include "store_fixture.h"

#include <optional>

namespace HX {
namespace {

using store::errorOf;
using testing::ElementsAre;
using testing::StartsWith;

class Addresses : public store::StoreFixture {};

TEST_F(Addresses, OfNewKeysAreQuietlyMadeAndFollowTheKey) {
  int* const number = memory->getIntPtr("int");
  float* const decimal = memory->getFloatPtr("float");
  EXPECT_EQ(*number, 0);
  EXPECT_EQ(*decimal, 0.0F);
  memory->insertData("int", 5);
  memory->raiseEvent("float", 1.5F);
  EXPECT_EQ(*number, 5);
  EXPECT_EQ(*decimal, 1.5F);
  *number = 6;
  EXPECT_EQ(memory->getData("int"), HXValue(6));
  EXPECT_EQ(memory->getIntPtr("int"), number);
  EXPECT_EQ(memory->getPtrData("int"), number);
  EXPECT_THAT(added(), ElementsAre());
  EXPECT_EQ(memory->getStrDataType("int"), "Data");
}

TEST_F(Addresses, OfAnotherTypeAreRefusedAndMarkTheKeyAllTheSame) {
  memory->insertData("text", HXValue("x"));
  memory->insertData("int", 1);
  const std::tuple<std::string, std::string, std::function<void()>> refused[] = {
      {"text", "getIntPtr", [&] { memory->getIntPtr("text"); }},
      {"text", "getPtrData", [&] { memory->getPtrData("text"); }},
      {"int", "getFloatPtr", [&] { memory->getFloatPtr("int"); }},
  };
  for (const auto& [key, method, ask] : refused) {
    const auto fields = errorOf(ask);
    EXPECT_EQ(fields.module + fields.method + fields.file, "HXMemory" + method + store::kSource);
    EXPECT_EQ(fields.line, store::Fields::kSomeLine);
    EXPECT_THAT(fields.message, StartsWith("error getting pointer to \"" + key + "\": "));
    EXPECT_THROW(memory->removeData(key), HXError);
  }
  memory->insertData("text", HXValue("another string"));
  EXPECT_EQ(memory->getData("text"), HXValue("another string"));
}

TEST_F(Addresses, OfValuesWithoutATypeAreGivenWithAWarning) {
  const kit::CaptureLog log({"hxmemory"});
  void* const address = memory->getPtrData("new");
  using Entry = kit::CaptureLog::Entry;
  EXPECT_THAT(log.entries(), ElementsAre(Entry{mw::LogLevel::Warning, "hxmemory", "getPtrData",
                                               "getPtrValue on stmvalue with no type: new"}));
  EXPECT_EQ(memory->getPtrData("new"), address);
  memory->insertData("new", 4);
  EXPECT_EQ(*static_cast<int*>(address), 4);
  EXPECT_EQ(memory->getPtrData("new"), address);
  EXPECT_EQ(log.entries().size(), 2U);
  EXPECT_THROW(memory->removeData("new"), HXError);
}

TEST_F(Addresses, OfValuesWithoutATypeKeepWhatWasWrittenThereUntilThereIsOne) {
  int* const address = static_cast<int*>(memory->getPtrData("event"));
  *address = 4;
  memory->declareEvent("event");
  EXPECT_EQ(*address, 4);
  EXPECT_EQ(memory->getData("event"), HXValue());
}

TEST_F(Addresses, FixTheTypeOfTheValue) {
  const HXValue samples[] = {1, 1.5F, true, std::int64_t{1}, 1.5, "text", HXValue::list({1})};
  for (const HXValue& first : samples) {
    for (const HXValue& later : samples) {
      // An item that has no value yet takes exactly these two.
      const bool firstAllowed = first.isInt() || first.isFloat();
      memory->xRequireSTMValue("key", STMValue::Data, HXValue())->accessPointer([](HXValue&) { return nullptr; });
      const auto item = memory->xGetSTMValue("key");
      const auto write = [&](const HXValue& value) -> std::optional<std::string> {
        try {
          memory->insertData("key", value);
        } catch (const HXError& error) {
          return error.message();
        }
        return std::nullopt;
      };
      EXPECT_EQ(write(first).has_value(), !firstAllowed) << first.toString();
      if (firstAllowed) {
        const auto refusal = write(later);
        EXPECT_EQ(refusal.has_value(), later.getType() != first.getType());
        if (refusal) {
          EXPECT_EQ(*refusal,
                    std::string("Can't change the type of the value from ") + HXValue::TypeToString(first.getType()) +
                        " to " + HXValue::TypeToString(later.getType()) + " because getDataPtr has been called on it.");
        }
      }
      start();
    }
  }
}

TEST_F(Addresses, ProtectValueKindAndTimeFromAWriteThatIsRefused) {
  const store::FakeClock clock(std::chrono::seconds(5));
  memory->insertData("key", 7);
  memory->getIntPtr("key");
  store::FakeClock::set(std::chrono::seconds(6));
  EXPECT_THROW(memory->raiseEvent("key", "text"), HXError);
  EXPECT_THROW(memory->declareEvent("key"), HXError);
  EXPECT_EQ(memory->getDataTimestamp("key"), HXValue::list({7, 5, 0}));
  EXPECT_EQ(memory->getStrDataType("key"), "Data");
  EXPECT_THAT(retyped(), ElementsAre());
  EXPECT_THAT(memory->getEventList(), testing::Not(testing::Contains("key")));
}

TEST_F(Addresses, AreNotNeededToInsertAnObject) {
  memory->_insertObject("object", HXValue::list({1, 2}), -5);
  EXPECT_EQ(memory->getData("object"), HXValue::list({1, 2}));
  EXPECT_EQ(memory->getStrDataType("object"), "Data");
  EXPECT_THAT(added(), ElementsAre("object"));
}

}  // namespace
}  // namespace HX
