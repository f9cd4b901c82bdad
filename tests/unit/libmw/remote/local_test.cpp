#include "capture_log.h"
#include "expect_error.h"
#include "joined_sessions.h"
#include "random_value.h"
#include "service.h"

#include <hxerror/hxerror.h>
#include <libmw/dynamicobject.h>
#include <libmw/objecttypebuilder.h>
#include <libmw/remoteerror.h>
#include <libmw/signal.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>

#include <gmock/gmock.h>

namespace mw {
namespace {

using HX::HXValue;
using testing::HasSubstr;

TEST_F(JoinedSessions, CarryValuesOfEveryTypeUnchanged) {
  broker.registerService("Echo", makeService("Echo")->method("echo", [](const HXValue& v) { return v; }).build());
  const AnyObject echo = lookUp(client, "Echo");
  std::vector<HXValue> values{HXValue::binary(std::vector<std::byte>(70000)), std::string(300000, 'x')};
  HX::kit::RandomValues random(5);
  for (int i = 0; i < 200; ++i) values.push_back(random.next());
  for (const HXValue& value : values) {
    const auto back = echo->call<HXValue>("echo", value);
    EXPECT_EQ(back.getType(), value.getType());
    EXPECT_EQ(back, value);
  }
}

TEST_F(JoinedSessions, ChooseAmongOverloadsAsInTheProcess) {
  broker.registerService("Set", makeService("Set")
                                    ->method("set", [](int) { return std::string("int"); })
                                    .method("set", [](double) { return std::string("double"); })
                                    .method("set", [](const std::vector<std::string>&) { return std::string("list"); })
                                    .method("set", [](const HXValue&) { return std::string("value"); })
                                    .build());
  const AnyObject set = lookUp(client, "Set");
  EXPECT_EQ(set->call<std::string>("set", 1), "int");
  EXPECT_EQ(set->call<std::string>("set", 1.5), "double");
  EXPECT_EQ(set->call<std::string>("set", std::vector<std::string>{"a"}), "list");
  EXPECT_EQ(set->call<std::string>("set", true), "value");
}

TEST_F(JoinedSessions, CarryErrorsOfTheirFamily) {
  struct Odd : std::exception {
    const char* what() const noexcept override { return "odd"; }
  };
  broker.registerService("Bad", makeService("Bad")
                                    ->method("hx", [] { throw HX::HXError("M", "m", "text", "f.cpp", 12); })
                                    .method("runtime", [] { throw std::out_of_range("far"); })
                                    .method("plain", [] { throw std::runtime_error("near"); })
                                    .method("odd", [] { throw Odd(); })
                                    .method(
                                        "pointer", [] { return static_cast<int*>(nullptr); }, kSameProcessOnly)
                                    .build());
  const AnyObject bad = lookUp(client, "Bad");
  try {
    bad->call("hx");
    FAIL();
  } catch (const HX::HXError& error) {
    EXPECT_EQ(error.module() + error.method() + error.message() + error.file(), "Mmtextf.cpp");
    EXPECT_EQ(error.line(), 12);
  }
  EXPECT_THROW(bad->call("plain"), std::runtime_error);
  EXPECT_THROW(bad->call("odd"), RemoteError);
  EXPECT_THROW(bad->call("runtime"), RemoteError);  // std::out_of_range is a logic error.
  EXPECT_THAT(errorOf([&] { bad->call("pointer"); }), HasSubstr("only inside the process of Bad"));
}

TEST_F(JoinedSessions, OfferTheirServicesToEachOtherAndTellOfThem) {
  std::promise<std::string> told;
  client.serviceRegistered.connect(SignalSubscriber([&](ServiceId, const std::string& name) { told.set_value(name); }));
  broker.registerService("Head", makeService("Head")->method("nod", [] { return 1; }).build());
  EXPECT_EQ(told.get_future().get(), "Head");
  client.serviceRegistered.disconnectAll();

  const ServiceId arm = client.registerService("Arm", makeService("Arm")->method("wave", [] { return 2; }).build());
  EXPECT_EQ(lookUp(broker, "Arm")->call<int>("wave"), 2);
  // A third process reaches it by way of the broker.
  Session third;
  const LocalClient alsoJoined(third, "");
  const AnyObject armAtThird = lookUp(third, "Arm");
  EXPECT_EQ(armAtThird->call<int>("wave"), 2);
  EXPECT_THROW(third.registerService("Arm", makeService("Arm")->build()), std::runtime_error);
  EXPECT_EQ(third.services().size(), 0U);

  client.unregisterService(arm);
  EXPECT_FALSE(broker.service("Arm").hasValue());
  EXPECT_THROW(armAtThird->call("wave"), std::runtime_error);
}

struct Lamp {
  Signal<int> lit;
};
const bool kLampKnown = [] {
  ObjectTypeBuilder<Lamp> builder("Lamp");
  builder.advertiseSignal("lit", &Lamp::lit);
  builder.buildFor(true);
  return true;
}();

TEST_F(JoinedSessions, HandOutObjectsWhoseIdentityAndSignalsHold) {
  const auto lamp = std::make_shared<Lamp>();
  AnyObject seen;
  broker.registerService("House", makeService("House")
                                      ->method("lamp", [&] { return lamp; })
                                      .method("show", [&](const AnyObject& object) { seen = object; })
                                      .build());
  const AnyObject house = lookUp(client, "House");
  const AnyObject first = house->call<AnyObject>("lamp");
  EXPECT_EQ(first, house->call<AnyObject>("lamp"));
  house->call("show", first);
  EXPECT_EQ(seen->identity(), AnyObject::from(lamp)->identity());

  std::vector<int> values;
  std::promise<void> all;
  const SignalLink link = first
                              ->connect("lit", SignalSubscriber([&](int value) {
                                          values.push_back(value);
                                          if (value == 99) all.set_value();
                                        }))
                              .take();
  for (int i = 0; i < 100; ++i) lamp->lit(i);
  all.get_future().get();
  for (int i = 0; i < 100; ++i) EXPECT_EQ(values[static_cast<std::size_t>(i)], i);
  first->disconnect(link).value();
  EXPECT_FALSE(lamp->lit.hasSubscribers());
}

TEST_F(JoinedSessions, GetTheObjectItselfWhenItComesHome) {
  // The client hosts a lamp, the broker relays it, a third party finds it, and hands it to both.
  const auto lamp = std::make_shared<Lamp>();
  const AnyObject own = AnyObject::from(lamp);
  AnyObject seen;
  const auto isOwn = [&](const std::shared_ptr<Lamp>& given) { return given == lamp; };
  client.registerService("Lamp", own);
  client.registerService("House", makeService("House")
                                      ->method("lamp", [&] { return lamp; })
                                      .method("isOwn", isOwn)
                                      .method("show", [&](const AnyObject& object) { seen = object; })
                                      .build());
  broker.registerService("Street", makeService("Street")
                                       ->method("pass",
                                                [&](const AnyObject& object) {
                                                  return lookUp(broker, "House")->call<bool>("isOwn", object);
                                                })
                                       .method("find", [&] { return lookUp(broker, "Lamp"); })
                                       .build());
  Session third;
  const LocalClient alsoJoined(third, "torso");
  const AnyObject found = lookUp(third, "Lamp");
  const AnyObject house = lookUp(third, "House");
  EXPECT_TRUE(house->call<bool>("isOwn", found));
  EXPECT_TRUE(lookUp(third, "Street")->call<bool>("pass", found));
  EXPECT_TRUE(lookUp(broker, "House")->call<bool>("isOwn", lookUp(broker, "Lamp")));
  house->call("show", found);
  EXPECT_EQ(seen, own);
  EXPECT_EQ(seen, lookUp(client, "Lamp"));

  EXPECT_EQ(found, house->call<AnyObject>("lamp"));
  EXPECT_EQ(found, lookUp(third, "Street")->call<AnyObject>("find"));
  for (Session* session : {&third, &broker, &client}) EXPECT_EQ(lookUp(*session, "Lamp")->number(), own->number());
}

/// A lamp that is used in its own process, or from another one.
class AtHomeAndAway : public JoinedSessions, public testing::WithParamInterface<bool> {
 protected:
  struct Fragile : Signal<int> {
    void trigger(GenericFunctionParameters parameters, MetaCallType callType) override {
      if (parameters.size() != 1) throw std::runtime_error("Invalid number of arguments");
      Signal<int>::trigger(parameters, callType);
    }
  };
  AtHomeAndAway() {
    broker.registerService("Lamp", makeService("Lamp")
                                       ->signal("lit", lit)
                                       .method("fail", [] { throw std::runtime_error("broken"); })
                                       .method("done", [] {})
                                       .build());
  }
  Fragile lit;
};
INSTANTIATE_TEST_SUITE_P(Objects, AtHomeAndAway, testing::Bool());

TEST_P(AtHomeAndAway, FailAlikeAndAreLoggedAlike) {
  const kit::CaptureLog log({"mw.signal", "mw.object"});
  const AnyObject lamp = lookUp(GetParam() ? broker : client, "Lamp");
  EXPECT_EQ(errorOf([&] { lamp->post("lit", 1, 2); }), "Invalid number of arguments");
  EXPECT_EQ(lamp->connect("lit", SignalSubscriber()).error(), "cannot connect an empty function to a signal");

  const SignalLink link =
      lamp->connect("lit", SignalSubscriber([](int) { throw std::runtime_error("too bright"); })).value();
  lamp->post("lit", 1);
  ASSERT_TRUE(log.waitFor(1));
  EXPECT_TRUE(lamp->disconnect(link).hasValue());
  EXPECT_EQ(lamp->disconnect(link).error(), "Lamp: no connection with link " + std::to_string(link));

  lamp->post("fail");
  lamp->call("done");
  ASSERT_TRUE(log.waitFor(2));
  using Entry = kit::CaptureLog::Entry;
  const auto entries = log.entries();
  EXPECT_EQ(entries[0], (Entry{LogLevel::Error, "mw.signal", "deliver",
                               "subscriber of link " + std::to_string(link) + " to Lamp.lit failed: too bright"}));
  EXPECT_EQ(entries[1].category + entries[1].function, "mw.objectpost");
  EXPECT_THAT(entries[1].text, testing::MatchesRegex("Lamp.fail, posted.*, failed: broken"));
}

/// What came of a signal, waited for.
template <class T>
class Received {
 public:
  Received(const AnyObject& object, std::string_view signal, std::size_t count) {
    object
        ->connect(signal, SignalSubscriber([this, count](const T& value) {
                    values_.push_back(value);
                    if (values_.size() == count) all_.set_value();
                  }))
        .value();
  }
  const std::vector<T>& values() {
    all_.get_future().get();
    return values_;
  }

 private:
  std::vector<T> values_;
  std::promise<void> all_;
};

TEST_F(JoinedSessions, EmitToEachWhatWasEmitted) {
  struct Signals {
    Signal<int> common;
    Signal<int> single;
    Signal<AnyObject> objects;
  };
  const auto signals = std::make_shared<Signals>();
  const AnyObject service = makeService("S")
                                ->method("keep", [signals] {})
                                .signal("common", signals->common)
                                .signal("single", signals->single)
                                .signal("objects", signals->objects)
                                .build();
  broker.registerService("S", service);
  broker.registerService("Other", makeService("Other")->build());
  Session second;
  const LocalClient joinedToo(second, "torso");
  const AnyObject other = lookUp(second, "Other");  // Objects have other numbers there from now on.
  const AnyObject atSecond = lookUp(second, "S");

  // Between those that are told stands one that emits again: the same signal, and one that one process follows.
  Received<int> first(lookUp(client, "S"), "common", 5);
  signals->common.connect(SignalSubscriber([&](int number) {
    for (const int part : {1, 2}) signals->single(10 * number + part);
    if (number > 0) signals->common(number - 1);
  }));
  Received<int> last(atSecond, "common", 5);
  Received<int> alone(atSecond, "single", 10);
  for (const int number : {1, 2}) signals->common(number);
  EXPECT_THAT(first.values(), testing::ElementsAre(1, 0, 2, 1, 0));
  EXPECT_THAT(last.values(), testing::ElementsAre(0, 1, 0, 1, 2));
  EXPECT_THAT(alone.values(), testing::ElementsAre(11, 12, 1, 2, 21, 22, 11, 12, 1, 2));

  Received<AnyObject> toFirst(lookUp(client, "S"), "objects", 1);
  Received<AnyObject> toSecond(atSecond, "objects", 1);
  signals->objects(makeService("Thing")->method("name", [] { return std::string("thing"); }).build());
  for (auto* received : {&toFirst, &toSecond}) EXPECT_EQ(received->values().at(0)->call<std::string>("name"), "thing");
}

TEST_F(JoinedSessions, TakeTheCallsOfOneEmissionForThoseOfNoOther) {
  // Though one thread delivers both, the call of the second does not wait for the end of the first one's.
  std::promise<void> all;
  std::promise<void> told;
  std::promise<void> done;
  const auto said = std::make_shared<Signal<int>>();
  broker.registerService("S", makeService("S")
                                  ->signal("said", *said)
                                  .method("wait", [&, said] { told.get_future().get(); })
                                  .method("tell", [&] { told.set_value(); })
                                  .build());
  const AnyObject service = lookUp(client, "S");
  Future<AnyValue> waiting;
  Received<int> received(service, "said", 3);
  service
      ->connect("said", SignalSubscriber([&](int value) {
                  if (value == 0) all.get_future().get();
                  if (value == 1) waiting = service->async("wait");
                  if (value < 2) return;
                  service->call("tell");
                  done.set_value();
                }))
      .value();
  for (const int value : {0, 1, 2}) (*said)(value);
  received.values();
  all.set_value();  // The other two have come with certainty: they are delivered in one go.
  done.get_future().get();
  EXPECT_TRUE(waiting.hasValue());
}

TEST_F(JoinedSessions, ServeNestedCallsOnTheThreadThatWaits) {
  // Each side has a lock that its calls hold to their end, as the memory does while it notifies.
  std::recursive_mutex atBroker;
  std::recursive_mutex atClient;
  const auto ping = [&](Session& from, const char* other) {
    return [&, other](int depth) -> int {
      const std::lock_guard lock(&from == &broker ? atBroker : atClient);
      return depth == 0 ? 0 : 1 + lookUp(from, other)->call<int>("ping", depth - 1);
    };
  };
  broker.registerService("A", makeService("A")->method("ping", ping(broker, "B")).build());
  client.registerService("B", makeService("B")->method("ping", ping(client, "A")).build());
  EXPECT_EQ(lookUp(client, "A")->call<int>("ping", 50), 50);
  EXPECT_THROW(lookUp(client, "A")->call<int>("ping", 5000), std::runtime_error);
}

TEST_F(JoinedSessions, StartOneThreadsCallsInTheirOrder) {
  std::vector<int> order;
  std::atomic<int> inside{0};
  broker.registerService("Log", makeService("Log")
                                    ->method("add",
                                             [&](int i) {
                                               EXPECT_EQ(inside++, 0);
                                               order.push_back(i);
                                               --inside;
                                             })
                                    .build());
  const AnyObject log = lookUp(client, "Log");
  for (int i = 0; i < 300; i += 3) {
    log->async("add", i);
    log->post("add", i + 1);
    log->call("add", i + 2);
  }
  ASSERT_EQ(order.size(), 300U);
  for (int i = 0; i < 300; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
}

TEST_F(JoinedSessions, RunTheContinuationsOfAnAnswerInTheirOrder) {
  std::promise<void> answer;
  broker.registerService("Slow", makeService("Slow")->method("wait", [&] { answer.get_future().get(); }).build());
  const AnyObject slow = lookUp(client, "Slow");
  const auto future = slow->async("wait");
  std::vector<int> order;
  Future<void> last;
  for (int i = 0; i < 100; ++i) last = future.then([&order, i](const Future<AnyValue>&) { order.push_back(i); });
  answer.set_value();
  last.wait();
  EXPECT_EQ(order.size(), 100U);
  EXPECT_TRUE(std::ranges::is_sorted(order));
}

TEST_F(JoinedSessions, ToldApartByTypeWhatFails) {
  broker.registerService("Echo", makeService("Echo")->method("echo", [](int v) { return v; }).build());
  const AnyObject echo = lookUp(client, "Echo");
  EXPECT_THROW(echo->call("shout"), NoSuchMethodError);
  EXPECT_THROW(echo->call("echo", std::string("text")), NoSuchMethodError);
  Session third;
  const LocalClient alsoJoined(third, "torso");
  client.registerService("Mine", makeService("Mine")->method("fail", [] { throw NoSuchServiceError("X"); }).build());
  EXPECT_THROW(lookUp(third, "Mine")->call("fail"), NoSuchServiceError) << "through the broker";
  for (Session* const session : {&broker, &client}) {
    EXPECT_THROW(session->service("Nobody").value(), NoSuchServiceError);
  }
  server.reset();
  EXPECT_THROW(echo->call("echo", 1), ConnectionLostError);
}

TEST_F(JoinedSessions, DoNotTireOfObjectsThatComeAgain) {
  const auto make = [] { return makeService("S")->method("one", [] { return 1; }).build(); };
  std::vector<AnyObject> held;
  for (int round = 0; round < 10; ++round) {
    const ServiceId id = broker.registerService("S", make());
    held.push_back(lookUp(client, "S"));
    ASSERT_EQ(held.back()->call<int>("one"), 1);
    broker.unregisterService(id);
  }
  // More than a connection may describe: what is described alike is described once.
  broker.registerService("Maker", makeService("Maker")->method("make", make).build());
  const AnyObject maker = lookUp(client, "Maker");
  for (int round = 0; round < 4200; ++round) ASSERT_EQ(maker->call<AnyObject>("make")->call<int>("one"), 1) << round;
}

TEST_F(JoinedSessions, ServeOneBrokerOfAName) {
  Session other;
  EXPECT_THROW(LocalServer(other, "torso"), std::runtime_error);
  for (const std::string& name : {std::string("../x"), std::string(".x"), std::string(), std::string(100, 'x')}) {
    EXPECT_FALSE(isBrokerName(name));
    EXPECT_THROW(LocalServer(other, name), std::runtime_error);
  }
  const LocalServer second(other, "legs");
  EXPECT_THAT(runningBrokers(), testing::ElementsAre("legs", "torso"));
  const auto described = describeRunningBrokers();
  ASSERT_EQ(described.size(), 2U);
  EXPECT_EQ(described[1].name, "torso");
  EXPECT_EQ(described[1].process, ::getpid());
  EXPECT_FALSE(described[1].version.empty());
  EXPECT_LT(std::chrono::system_clock::now() - described[1].since, std::chrono::minutes(1));
  EXPECT_THAT(whyNoBrokerName(std::string(100, 'x')), testing::EndsWith("choose a shorter name"));
  EXPECT_THROW(LocalClient(client, ""), NoBrokerError);
}

}  // namespace
}  // namespace mw
