#include "events_fixture.h"
#include "sitter.h"

#include <functional>
#include <future>

namespace HX {
namespace {

class Dispatch : public EventsFixture {};

TEST_F(Dispatch, ErrorsBeyondTheRuntimeFamilyReachTheRaiserAndReleaseTheEvent) {
  const auto a = subscribed("a");
  const auto b = subscribed("b");
  memory->raiseEvent("E", HXValue(0));
  a->react = [](const auto&) { throw std::logic_error("programming mistake"); };
  EXPECT_THROW(memory->raiseEvent("E", HXValue(1)), std::logic_error);
  EXPECT_THAT(b->values(), ElementsAre(HXValue(0)));
  a->react = [](const auto&) { throw 42; };
  EXPECT_THROW(memory->raiseEvent("E", HXValue(2)), int);

  std::async(std::launch::async, [this] { memory->subscribeToEvent("E", "c", "heard"); }).get();
  EXPECT_THAT(subscribers(), ElementsAre("a", "b", "c"));
}

TEST_F(Dispatch, TellsTheOthersWhateverOneDoes) {
  const auto first = subscribed("a");
  const auto last = subscribed("c");
  const auto fail = [](const auto&) { throw std::runtime_error("tired"); };
  const std::pair<const char*, std::function<void()>> rows[] = {
      {"is not there", [] {}},
      {"has a message that is no text", [&] { offer("b"), memory->xSubscribeToEvent("E", "b", HXValue(5), "heard"); }},
      {"lacks the method", [&] { offer("b"), memory->subscribeToEvent("E", "b", "deaf"); }},
      {"fails when it is found", [&] { offer("b")->react = fail; }},
      {"fails when it is known",
       [&] {
         const auto b = offer("b");
         memory->raiseEvent("E", HXValue("before"));
         b->react = fail;
       }},
      {"has left", [&] {
         offer("b");
         memory->raiseEvent("E", HXValue("before"));
         withdraw("b");
       }}};
  for (const auto& [what, prepare] : rows) {
    SCOPED_TRACE(what);
    memory->subscribeToEvent("E", "b", "heard");
    prepare();
    memory->raiseEvent("E", HXValue(what));
    EXPECT_EQ(first->values().back(), HXValue(what));
    EXPECT_EQ(last->values(), first->values());
    EXPECT_THAT(subscribers(), ElementsAre("a", "c"));
    withdraw("b");
  }
}

TEST_F(Dispatch, LeavesTheEventFreeWhileItTellsTheSignalsClients) {
  subscribed("a");
  memory->subscriber("E")->signal.connect(mw::SignalSubscriber([this](const HXValue&) {
    const auto other = std::async(std::launch::async, [this] { return subscribers(); });
    EXPECT_EQ(other.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  }));
  memory->raiseEvent("E", HXValue(1));
}

TEST_F(Dispatch, LogsWhomItCallsAndWhomItDrops) {
  const auto failure = [](const auto&) { throw std::runtime_error("tired"); };
  const kit::CaptureLog log({"HXMemory"});
  const auto a = subscribed("a");
  memory->raiseEvent("E", HXValue(1));
  a->react = failure;
  memory->raiseEvent("E", HXValue(2));
  subscribed("b")->react = failure;
  memory->raiseEvent("E", HXValue(3));
  const auto entry = [](const char* function, const std::string& text, mw::LogLevel level = mw::LogLevel::Verbose) {
    return Entry{level, "HXMemory", function, text};
  };
  const auto ended = [&](const char* function, const std::string& who) {
    return entry(function, "the subscription of " + who + " to E has ended: tired", mw::LogLevel::Warning);
  };
  EXPECT_THAT(
      log.entries(),
      ElementsAre(entry("operator()", "notifying module: a for datachange for key: E"),
                  entry("notify", "notifying module: a for datachange for key: E"),
                  entry("notify", "a not found, removing module reference:tired"), ended("notify", "a"),
                  entry("operator()", "notifying module: b for datachange for key: E"),
                  entry("operator()", "b not found, removing module reference:tired"), ended("operator()", "b")));
}

TEST_F(Dispatch, SaysWhoWaitsLongForWhom) {
  kit::Sitter sitter;
  const auto slow = subscribed("slow");
  slow->react = [&](const auto& heard) {
    if (heard.value == HXValue(1)) sitter.sit();
  };
  subscribed("other", "F")->react = [this](const auto&) { memory->raiseEvent("E", HXValue(2)); };

  NotifierLock::setPatience(std::chrono::milliseconds(1));
  const kit::CaptureLog log({"HXMemory"});
  auto first = std::async(std::launch::async, [this] { memory->raiseEvent("E", HXValue(1)); });
  sitter.awaitEntry();
  auto second = std::async(std::launch::async, [this] { memory->raiseEvent("F", HXValue(1)); });
  ASSERT_TRUE(log.waitFor(3)) << "slow is notified, other is notified, and other waits";
  sitter.release();
  first.get();
  second.get();
  NotifierLock::setPatience(std::chrono::seconds(5));
  EXPECT_THAT(log.entries(), testing::Contains(Entry{
                                 mw::LogLevel::Warning, "HXMemory", "notify",
                                 "event E has been waited for longer than 1 ms, while it notifies slow; waiting is "
                                 "other, which was notified of event F"}));
  EXPECT_THAT(slow->values(), ElementsAre(HXValue(1), HXValue(2)));
}

TEST_F(Dispatch, NamesTheSubscriberThatDoesNotReturnToItsRaiser) {
  std::promise<void> mayReturn;
  subscribed("slow")->react = [&](const auto&) { mayReturn.get_future().wait(); };
  NotifierLock::setPatience(std::chrono::milliseconds(1));
  const kit::CaptureLog log({"HXMemory"});
  auto raise = std::async(std::launch::async, [this] { memory->raiseEvent("E", HXValue(1)); });
  while (log.texts().size() < 2) NotifierLock::patrol();  // It is notified, and lasts.
  for (int i = 0; i < 3; ++i) NotifierLock::patrol();
  mayReturn.set_value();
  raise.get();
  NotifierLock::setPatience(std::chrono::seconds(5));
  const std::string report = "event E has been notifying slow for longer than 1 ms; who raised it waits";
  EXPECT_EQ(std::ranges::count(log.texts(), report), 1);
}

}  // namespace
}  // namespace HX
