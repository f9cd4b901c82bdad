#include "events_fixture.h"

#include <libmw/anyvalue.h>

namespace HX {
namespace {

/// A client of an event's wrapper, which it uses as clients do: as an object with a signal.
class Wrapper : public EventsFixture {
 protected:
  mw::AnyObject wrapper(const std::string& event = "E") { return generic->call<mw::AnyObject>("subscriber", event); }

  mw::SignalLink follow(const mw::AnyObject& object) {
    return object->connect("signal", mw::SignalSubscriber([this](const HXValue& value) { received_.push_back(value); }))
        .value();
  }

  std::vector<HXValue> received_;
};

TEST_F(Wrapper, IsRefusedWhenSomebodyRemovesTheEventMeanwhile) {
  subscribed("bookkeeper", Memory::keyAddedKey)->react = [this](const auto& heard) {
    memory->removeEvent(heard.value.asString());
  };
  EXPECT_EQ(errorOf([&] { memory->subscriber("E"); }), "event not found");
}

TEST_F(Wrapper, RefusesWhatCannotBeRaised) {
  const auto object = wrapper();
  follow(object);
  EXPECT_EQ(errorOf([&] { object->post("signal", 1, 2); }), "Invalid number of arguments");
  EXPECT_THROW(object->post("signal", object), mw::ConversionError);
  EXPECT_THAT(received_, IsEmpty());
}

TEST_F(Wrapper, LetsItsClientsUseTheMemoryWhenTheyGoWithTheEvent) {
  std::size_t left = 0;
  std::shared_ptr<void> last(nullptr, [&](void*) { left = memory->getDataList("E").size(); });
  memory->insertData("Echo", 1);
  memory->subscriber("E")->signal.connect(mw::SignalSubscriber([last = std::move(last)](const HXValue&) {}));
  memory->removeEvent("E");
  EXPECT_EQ(left, 1U);
}

TEST_F(Wrapper, OutlivesTheMemoryAndSaysSo) {
  const auto object = wrapper();
  const auto held = memory->subscriber("E");
  shutDown();
  const std::string gone = "cannot raise E: its memory is gone";
  EXPECT_EQ(errorOf([&] { object->post("signal", 1); }), gone);
  EXPECT_EQ(errorOf([&] { held->signal(mw::AnyValue(1)); }), gone);
  EXPECT_EQ(errorOf([] { HXMemorySubscriber().signal(mw::AnyValue(1)); }), "this signal stands for no event");
}

TEST_F(Wrapper, MayBeTriggeredByAClientThatEndsTheMemory) {
  auto object = wrapper();
  object->connect("signal", mw::SignalSubscriber([this](const HXValue&) { shutDown(); })).value();
  memory->subscribeToEvent("E", "nobody", "cb");
  object->post("signal", 1);
  EXPECT_EQ(memory, nullptr);
}

TEST_F(Wrapper, DescribesItsSignal) {
  const auto object = wrapper();
  const mw::MetaObject& offered = object->metaObject();
  EXPECT_EQ(offered.typeName(), "HXMemorySubscriber");
  ASSERT_EQ(offered.signals().size(), 1U);
  EXPECT_EQ(offered.signals()[0].signature, "(dynamic)");
}

}  // namespace
}  // namespace HX
