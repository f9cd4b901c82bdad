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

TEST_F(Wrapper, OfAnUnknownNameDeclaresTheEvent) {
  const auto bookkeeper = subscribed("bookkeeper", Memory::keyAddedKey);
  const auto object = wrapper();
  EXPECT_EQ(memory->getDataType("E"), STMValue::Event);
  EXPECT_THAT(memory->getExtractorEvent("Unknown"), testing::Contains("E"));
  EXPECT_THAT(bookkeeper->values(), ElementsAre(HXValue("E")));
}

TEST_F(Wrapper, IsRefusedWhenSomebodyRemovesTheEventMeanwhile) {
  subscribed("bookkeeper", Memory::keyAddedKey)->react = [this](const auto& heard) {
    memory->removeEvent(heard.value.asString());
  };
  EXPECT_EQ(errorOf([&] { memory->subscriber("E"); }), "event not found");
}

TEST_F(Wrapper, IsTheSameObjectEachTimeWhateverTheKind) {
  memory->insertData("D", 1);
  memory->raiseMicroEvent("U", HXValue(1));
  for (const char* name : {"D", "U", "E"}) {
    EXPECT_EQ(memory->subscriber(name), memory->subscriber(name));
    EXPECT_EQ(wrapper(name), wrapper(name));
  }
  EXPECT_EQ(memory->getDataType("D"), STMValue::Data);
  EXPECT_EQ(memory->getDataType("U"), STMValue::MicroEvent);
}

TEST_F(Wrapper, EmitsEachRaiseOnceUntilDisconnected) {
  const auto object = wrapper();
  const auto link = follow(object);
  memory->raiseEvent("E", HXValue(1));
  memory->raiseMicroEvent("E", HXValue("two"));
  memory->raiseEvent("E", HXValue());
  memory->insertData("E", 4);
  object->disconnect(link).value();
  memory->raiseEvent("E", HXValue(5));
  EXPECT_THAT(received_, ElementsAre(HXValue(1), HXValue("two"), HXValue()));
}

TEST_F(Wrapper, TellsItsClientsBeforeTheModules) {
  const auto object = wrapper();
  follow(object);
  subscribed("M")->react = [this](const auto& heard) { EXPECT_EQ(received_.back(), heard.value); };
  for (int i = 0; i < 2; ++i) memory->raiseEvent("E", HXValue(i));
}

TEST_F(Wrapper, ConnectingIsNoSubscription) {
  memory->declareEvent("E", "missing extractor");
  follow(wrapper());
  EXPECT_THAT(subscribers(), IsEmpty());
}

TEST_F(Wrapper, RaisesTheEventWhenTriggered) {
  const auto object = wrapper();
  follow(object);
  const auto m = subscribed("M");
  object->post("signal");
  object->post("signal", 7);
  object->post("signal", std::string("text"));
  memory->subscriber("E")->signal(mw::AnyValue(2.5F));
  const auto raised = ElementsAre(HXValue(), HXValue(7), HXValue("text"), HXValue(2.5F));
  EXPECT_THAT(received_, raised);
  EXPECT_THAT(m->values(), raised);
  EXPECT_EQ(memory->getEventHistory("E").getSize(), 3U) << "as an event, with history";
}

TEST_F(Wrapper, RefusesWhatCannotBeRaised) {
  const auto object = wrapper();
  follow(object);
  EXPECT_EQ(errorOf([&] { object->post("signal", 1, 2); }), "Invalid number of arguments");
  EXPECT_THROW(object->post("signal", object), mw::ConversionError);
  EXPECT_THAT(received_, IsEmpty());
}

TEST_F(Wrapper, HandsErrorsOfTheRaiseToWhoeverTriggered) {
  const auto m = subscribed("M");
  const auto object = wrapper();
  memory->raiseEvent("E", HXValue(1));
  m->react = [](const auto&) { throw std::logic_error("programming mistake"); };
  EXPECT_THROW(object->post("signal", 2), std::logic_error);
}

TEST_F(Wrapper, RaisesByNameAfterItsEventWasRemoved) {
  const auto old = wrapper();
  follow(old);
  memory->removeEvent("E");
  old->post("signal", 1);
  EXPECT_EQ(memory->getData("E"), HXValue(1));
  EXPECT_FALSE(wrapper() == old);
  EXPECT_THAT(received_, IsEmpty()) << "its clients followed the event that was removed";
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
