#include "events_fixture.h"

namespace HX {
namespace {

class Subscriptions : public EventsFixture {};

TEST_F(Subscriptions, MakeUnknownEventsWithoutAnnouncingThem) {
  const auto bookkeeper = subscribed("bookkeeper", Memory::keyAddedKey);
  memory->subscribeToEvent("E", "M", "cb");
  memory->subscribeToMicroEvent("U", "M", "", "cb");
  EXPECT_EQ(memory->getDataType("E"), STMValue::Event);
  EXPECT_EQ(memory->getDataType("U"), STMValue::MicroEvent);
  EXPECT_EQ(memory->getData("E"), HXValue());
  EXPECT_THAT(subscribers(), ElementsAre("M"));
  EXPECT_THAT(bookkeeper->values(), IsEmpty());
}

TEST_F(Subscriptions, LeaveTheKindOfAnItemAlone) {
  memory->insertData("D", 1);
  memory->subscribeToEvent("D", "M", "cb");
  EXPECT_EQ(memory->getDataType("D"), STMValue::Data);
  memory->declareEvent("E");
  memory->subscribeToMicroEvent("E", "M", "", "cb");
  EXPECT_EQ(memory->getDataType("E"), STMValue::Event);
}

TEST_F(Subscriptions, OfOneModuleReplaceEachOther) {
  const auto m = subscribed("M");
  memory->raiseEvent("E", HXValue(1));
  memory->subscribeToEvent("E", "M", "other", "heardToo");
  EXPECT_THAT(subscribers(), ElementsAre("M"));
  memory->raiseEvent("E", HXValue(2));
  ASSERT_EQ(m->notifications().size(), 2U);
  EXPECT_EQ(m->notifications().back(), (kit::Listener::Notification{"heardToo", "E", HXValue(2), HXValue("other")}));
}

TEST_F(Subscriptions, ThatAreNotThereCannotBeEnded) {
  memory->declareEvent("E", "X");
  const auto end = [this](const char* event) { memory->unsubscribeToEvent(event, "M"); };
  const auto endMicro = [this](const char* event) { memory->unsubscribeToMicroEvent(event, "M"); };
  EXPECT_EQ(errorOf([&] { end("E"); }), "HXMemory.UnsubscribeToMicroEvent: M is not subscribed to E");
  EXPECT_EQ(errorOf([&] { endMicro("E"); }), "HXMemory.UnsubscribeToMicroEvent: M is not subscribed to E");
  EXPECT_EQ(errorOf([&] { end("nokey"); }), "HXMemory.getData: Data not found nokey");
  EXPECT_EQ(errorOf([&] { endMicro("nokey"); }), "HXMemory.getData: Data not found nokey");
  EXPECT_EQ(errorOf([&] { memory->getDataSubscriber("nokey"); }), "HXMemory.getDataSubscriber: Data not found nokey");
  EXPECT_EQ(memory->xGetSTMValue("nokey"), nullptr);
}

TEST_F(Subscriptions, GoWithTheItem) {
  const auto m = subscribed("M");
  memory->removeEvent("E");
  memory->raiseEvent("E", HXValue(1));
  EXPECT_THAT(m->values(), IsEmpty());
  EXPECT_THAT(subscribers(), IsEmpty());
}

TEST_F(Subscriptions, ARecordCanBeNamedAnew) {
  STMNotifier record("M", HXValue("message"), "cb");
  record.addSubscriber("ignored", "N", HXValue(1), "other");
  EXPECT_EQ(record.callbackModule, "N");
  EXPECT_EQ(record.callbackMessage, HXValue(1));
  EXPECT_EQ(record.callbackMethod, "other");
  EXPECT_EQ(record.notifyCallState, HXProxy::CallState(0, 0));
}

TEST_F(Subscriptions, MethodsWithoutEffectSaySo) {
  const kit::CaptureLog log({"hxmemory"});
  memory->unregisterModuleReference("M");
  memory->subscribeOnDataSetTimePolicy("E", "M", 10);
  memory->subscribeOnDataSetSynchronizeResponse("E", "M", true);
  EXPECT_THAT(log.entries(), ElementsAre(Entry{mw::LogLevel::Warning, "hxmemory", "unregisterModuleReference",
                                               "unregisterModuleReference is deprecated and can be removed."},
                                         Entry{mw::LogLevel::Error, "hxmemory", "subscribeOnDataSetTimePolicy",
                                               "HXMemory::subscribeOnDataSetTimePolicy is NO-OP"},
                                         Entry{mw::LogLevel::Error, "hxmemory", "subscribeOnDataSetSynchronizeResponse",
                                               "HXMemory::subscribeOnDataSetSynchronizeResponse is NO-OP"}));
}

class Events : public EventsFixture {};

TEST_F(Events, KeepAHistoryAndMicroEventsDoNot) {
  memory->raiseEvent("E", HXValue(1));
  memory->raiseMicroEvent("E", HXValue(2));
  memory->raiseEvent("E", HXValue(3));
  const HXValue history = memory->getEventHistory("E");
  ASSERT_EQ(history.getSize(), 2U);
  EXPECT_EQ(history[0][0], HXValue(1));
  EXPECT_EQ(history[1][0], HXValue(3));
}

TEST_F(Events, AreListedUnderTheirExtractor) {
  memory->declareEvent("b", "X");
  memory->declareEvent("a", "X");
  memory->declareEvent("c", "x");
  memory->declareEvent("d", "");
  memory->subscribeToEvent("undeclared", "M", "cb");
  EXPECT_THAT(memory->getExtractorEvent("X"), ElementsAre("a", "b"));
  EXPECT_THAT(memory->getExtractorEvent("none"), IsEmpty());
  EXPECT_THAT(memory->getExtractorEvent(""), ElementsAre("d")) << "a subscription alone declares nothing";
  memory->declareEvent("a", "x");
  memory->removeMicroEvent("b");
  EXPECT_THAT(memory->getExtractorEvent("X"), IsEmpty());
  EXPECT_THAT(memory->getExtractorEvent("x"), ElementsAre("a", "c"));
}

}  // namespace
}  // namespace HX
