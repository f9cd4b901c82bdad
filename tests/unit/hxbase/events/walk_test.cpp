#include "events_fixture.h"

#include <functional>
#include <future>
#include <tuple>

namespace HX {
namespace {

/// How the subscribers are reached: through proxies known from an earlier raise, or by look-ups that end at once.
enum class Route { Direct, LookUp };

class Walk;

struct Change {
  const char* name;
  std::function<void(Walk&)> happens;  ///< Inside the notification of "c".
  std::vector<std::string> notified;
  std::vector<std::string> stayed;
};

/// "a", "c" and "e" are subscribed, and "c" changes the subscriptions while it is notified. "b" and "d" are at hand.
class Walk : public EventsFixture, public testing::WithParamInterface<std::tuple<Route, Change>> {
 public:
  using EventsFixture::memory;

  void SetUp() override {
    EventsFixture::SetUp();
    for (const char* name : {"a", "b", "c", "d", "e"}) {
      listeners_[name] = offer(name);
      listeners_[name]->react = [this, name](const auto& heard) {
        order_.push_back(heard.method == "heard" ? name : std::string(name) + " " + heard.method);
        if (change_ && *name == 'c') std::exchange(change_, nullptr)();
      };
    }
    for (const char* name : {"a", "c", "e"}) memory->subscribeToEvent("E", name, "heard");
  }

  void primeIf(Route route) {
    if (route == Route::Direct) memory->raiseEvent("E", HXValue(0));
    order_.clear();
  }

 protected:
  std::map<std::string, std::shared_ptr<kit::Listener>> listeners_;
  std::vector<std::string> order_;
  std::function<void()> change_;
};

TEST_P(Walk, SurvivesChangesFromInsideANotification) {
  const auto& [route, change] = GetParam();
  primeIf(route);
  change_ = [this, what = change.happens] { what(*this); };
  memory->raiseEvent("E", HXValue(1));
  EXPECT_EQ(order_, change.notified);
  EXPECT_EQ(memory->xGetSTMValue("E") ? subscribers() : std::vector<std::string>{}, change.stayed);

  order_.clear();
  memory->raiseEvent("E", HXValue(2));
  EXPECT_EQ(order_.size(), change.stayed.size()) << "whoever stayed subscribed is notified once by the next raise";
}

const std::vector<Change> kChanges = {
    {"NothingChanges", [](Walk&) {}, {"a", "c", "e"}, {"a", "c", "e"}},
    {"UnsubscribesItself", [](Walk& t) { t.memory->unsubscribeToEvent("E", "c"); }, {"a", "c", "e"}, {"a", "e"}},
    {"UnsubscribesTheNext", [](Walk& t) { t.memory->unsubscribeToEvent("E", "e"); }, {"a", "c"}, {"a", "c"}},
    {"UnsubscribesTheOneBefore", [](Walk& t) { t.memory->unsubscribeToEvent("E", "a"); }, {"a", "c", "e"}, {"c", "e"}},
    {"UnsubscribesAll",
     [](Walk& t) {
       for (const char* name : {"a", "c", "e"}) t.memory->unsubscribeToEvent("E", name);
     },
     {"a", "c"},
     {}},
    {"SubscribesOneBefore",
     [](Walk& t) { t.memory->subscribeToEvent("E", "b", "heard"); },
     {"a", "c", "e"},
     {"a", "b", "c", "e"}},
    {"SubscribesOneBehind",
     [](Walk& t) { t.memory->subscribeToEvent("E", "d", "heard"); },
     {"a", "c", "d", "e"},
     {"a", "c", "d", "e"}},
    {"SubscribesItselfAnew",
     [](Walk& t) { t.memory->subscribeToEvent("E", "c", "heardToo"); },
     {"a", "c", "e"},
     {"a", "c", "e"}},
    {"LeavesAndComesBack",
     [](Walk& t) {
       t.memory->unsubscribeToEvent("E", "c");
       t.memory->subscribeToEvent("E", "c", "heardToo");
     },
     {"a", "c", "e"},
     {"a", "c", "e"}},
    {"SubscribesTheNextAnew",
     [](Walk& t) { t.memory->subscribeToEvent("E", "e", "heardToo"); },
     {"a", "c", "e heardToo"},
     {"a", "c", "e"}},
    {"RemovesTheEvent", [](Walk& t) { t.memory->removeEvent("E"); }, {"a", "c", "e"}, {}},
    {"RemovesAndDeclaresTheEvent",
     [](Walk& t) {
       t.memory->removeEvent("E");
       t.memory->subscribeToEvent("E", "b", "heard");
     },
     {"a", "c", "e"},
     {"b"}},
    {"RaisesTheEvent",
     [](Walk& t) { t.memory->raiseEvent("E", HXValue(9)); },
     {"a", "c", "a", "c", "e", "e"},
     {"a", "c", "e"}},
    {"UnsubscribesAllAndRaises",
     [](Walk& t) {
       for (const char* name : {"a", "c", "e"}) t.memory->unsubscribeToEvent("E", name);
       t.memory->subscribeToEvent("E", "d", "heard");
       t.memory->raiseEvent("E", HXValue(9));
     },
     {"a", "c", "d", "d"},
     {"d"}},
    {"Fails", [](Walk&) { throw std::runtime_error("no"); }, {"a", "c", "e"}, {"a", "e"}},
    {"FailsWithAnHXError", [](Walk&) { throw HXError("c", "heard", "no"); }, {"a", "c", "e"}, {"a", "e"}},
    {"LeavesAndFails",
     [](Walk& t) {
       t.memory->unsubscribeToEvent("E", "c");
       throw std::runtime_error("no");
     },
     {"a", "c", "e"},
     {"a", "e"}},
    {"RemovesTheEventAndFails",
     [](Walk& t) {
       t.memory->removeEvent("E");
       throw std::runtime_error("no");
     },
     {"a", "c", "e"},
     {}},
};

std::string caseName(const testing::TestParamInfo<Walk::ParamType>& one) {
  return std::string(std::get<Route>(one.param) == Route::Direct ? "Direct" : "LookUp") +
         std::get<Change>(one.param).name;
}

INSTANTIATE_TEST_SUITE_P(Routes, Walk,
                         testing::Combine(testing::Values(Route::Direct, Route::LookUp), testing::ValuesIn(kChanges)),
                         caseName);

class Dispatch : public EventsFixture {};

TEST_F(Dispatch, GivesKeyValueAndMessage) {
  const auto one = offer("one");
  memory->subscribeToEvent("E", "one", "heard");
  memory->raiseEvent("E", HXValue(1));
  memory->subscribeToMicroEvent("E", "one", "mine", "heardToo");
  memory->raiseMicroEvent("E", HXValue("2"));
  EXPECT_THAT(one->notifications(),
              ElementsAre(kit::Listener::Notification{"heard", "E", HXValue(1), HXValue("")},
                          kit::Listener::Notification{"heardToo", "E", HXValue("2"), HXValue("mine")}));
}

TEST_F(Dispatch, TellsEveryRaiseAlsoOfTheSameValue) {
  const auto one = subscribed("one");
  for (int i = 0; i < 3; ++i) memory->raiseEvent("E", HXValue(7));
  EXPECT_THAT(one->values(), ElementsAre(HXValue(7), HXValue(7), HXValue(7)));
}

TEST_F(Dispatch, OrdersSubscribersByTheBytesOfTheirNames) {
  std::vector<std::string> order;
  for (const char* name : {"b", "a", "B"}) {
    subscribed(name)->react = [&order, name](const auto&) { order.emplace_back(name); };
  }
  for (int i = 0; i < 2; ++i) memory->raiseEvent("E", HXValue(i));
  EXPECT_THAT(order, ElementsAre("B", "a", "b", "B", "a", "b"));
  EXPECT_THAT(subscribers(), ElementsAre("B", "a", "b"));
}

TEST_F(Dispatch, BoundedRaisingOfTheSameEventFromInsideEnds) {
  const auto one = subscribed("one");
  one->react = [this](const auto& heard) {
    if (heard.value.asInt() < 20) memory->raiseEvent("E", HXValue(heard.value.asInt() + 1));
  };
  memory->raiseEvent("E", HXValue(0));
  EXPECT_EQ(one->notifications().size(), 21U);
}

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

TEST_F(Dispatch, OnTheFirstNotificationEveryStandardErrorEndsTheSubscription) {
  const kit::CaptureLog log({"HXMemory"});
  subscribed("a")->react = [](const auto&) { throw std::logic_error("programming mistake"); };
  memory->raiseEvent("E", HXValue(1));
  EXPECT_THAT(subscribers(), IsEmpty());
  const auto verbose = mw::LogLevel::Verbose;
  EXPECT_THAT(log.entries(),
              ElementsAre(Entry{verbose, "HXMemory", "operator()", "notifying module: a for datachange for key: E"},
                          Entry{verbose, "HXMemory", "operator()",
                                "a not found, removing module reference:programming mistake"}));
}

TEST_F(Dispatch, LogsWhomItCallsAndWhomItDrops) {
  const auto a = subscribed("a");
  memory->raiseEvent("E", HXValue(1));
  a->react = [](const auto&) { throw std::runtime_error("tired"); };
  const kit::CaptureLog log({"HXMemory"});
  memory->raiseEvent("E", HXValue(2));
  const auto verbose = mw::LogLevel::Verbose;
  EXPECT_THAT(log.entries(),
              ElementsAre(Entry{verbose, "HXMemory", "notify", "notifying module: a for datachange for key: E"},
                          Entry{verbose, "HXMemory", "notify", "a not found, removing module reference:tired"}));
}

TEST_F(Dispatch, DropsSubscribersThatLeftOrLackTheMethodOrTakeNoText) {
  subscribed("left");
  memory->raiseEvent("E", HXValue(1));
  withdraw("left");
  subscribed("right");
  offer("lacking");
  memory->subscribeToEvent("E", "lacking", "noSuchMethod");
  offer("odd");
  memory->xSubscribeToEvent("E", "odd", HXValue(5), "heard");
  memory->raiseEvent("E", HXValue(2));
  EXPECT_THAT(subscribers(), ElementsAre("right"));
}

TEST_F(Dispatch, SaysWhoWaitsLongForWhom) {
  std::promise<void> entered;
  std::promise<void> mayReturn;
  const auto slow = subscribed("slow");
  slow->react = [&](const auto& heard) {
    if (heard.value != HXValue(1)) return;
    entered.set_value();
    mayReturn.get_future().wait();
  };
  subscribed("other", "F")->react = [this](const auto&) { memory->raiseEvent("E", HXValue(2)); };

  NotifierLock::setPatience(std::chrono::milliseconds(1));
  const kit::CaptureLog log({"HXMemory"});
  auto first = std::async(std::launch::async, [this] { memory->raiseEvent("E", HXValue(1)); });
  entered.get_future().wait();
  auto second = std::async(std::launch::async, [this] { memory->raiseEvent("F", HXValue(1)); });
  ASSERT_TRUE(log.waitFor(3)) << "slow is notified, other is notified, and other waits";
  mayReturn.set_value();
  first.get();
  second.get();
  NotifierLock::setPatience(std::chrono::seconds(5));
  EXPECT_THAT(log.entries(), testing::Contains(Entry{
                                 mw::LogLevel::Warning, "HXMemory", "notify",
                                 "event E has been waited for longer than 1 ms, while it notifies slow; waiting is "
                                 "other, which was notified of event F"}));
  EXPECT_THAT(slow->values(), ElementsAre(HXValue(1), HXValue(2)));
}

TEST_F(Dispatch, FollowsASubscriberThatIsOfferedAnewAndSubscribesAgain) {
  subscribed("one");
  memory->raiseEvent("E", HXValue(1));
  withdraw("one");
  const auto again = subscribed("one");
  memory->raiseEvent("E", HXValue(2));
  memory->raiseEvent("E", HXValue(3));
  EXPECT_THAT(again->values(), ElementsAre(HXValue(2), HXValue(3)));
}

}  // namespace
}  // namespace HX
