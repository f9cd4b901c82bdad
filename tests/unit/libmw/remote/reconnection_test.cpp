#include "capture_log.h"
#include "joined_sessions.h"
#include "service.h"
#include "sitter.h"

#include <libmw/eventloop.h>
#include <libmw/log.h>
#include <libmw/remoteerror.h>
#include <libmw/signal.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>

#include <gmock/gmock.h>

namespace mw {
namespace {

using testing::ElementsAre;

/// A client whose broker goes and comes back.
class Reconnection : public JoinedSessions {
 protected:
  /// Until the client is told of the return.
  void restart(const std::function<void()>& meanwhile = {}) {
    std::promise<void> restored;
    const SignalLink link = client.connectionRestored.connect(SignalSubscriber([&] { restored.set_value(); }));
    server.reset();
    if (meanwhile) meanwhile();
    server.emplace(broker, "torso");
    restored.get_future().get();
    client.connectionRestored.disconnect(link);
  }
};

TEST_F(Reconnection, FailsPendingCallsAndOffersServicesAgain) {
  kit::Sitter sitter;
  broker.registerService("Slow", makeService("Slow")->method("wait", [&] { sitter.sit(); }).build());
  client.registerService("Mine", makeService("Mine")->method("one", [] { return 1; }).build());
  std::promise<void> lost;
  client.connectionLost.connect(SignalSubscriber([&](const std::string&) { lost.set_value(); }));
  auto pending = lookUp(client, "Slow")->async("wait");
  sitter.awaitEntry();
  restart([&] {
    EXPECT_THAT(pending.error(), testing::HasSubstr("the connection to process"));
    sitter.release();
    lost.get_future().get();
    EXPECT_FALSE(joined->isConnected());
    EXPECT_FALSE(broker.service("Mine").hasValue());
    EXPECT_THROW(LocalClient(broker, "torso"), NoBrokerError);
  });
  EXPECT_EQ(lookUp(broker, "Mine")->call<int>("one"), 1);
}

TEST_F(Reconnection, KeepsServicesInUseAndConnectionsThatNobodyHoldsTheHandleOf) {
  Signal<int> ticked;
  const auto clock = makeService("Clock")->method("now", [] { return 7; }).signal("ticked", ticked).build();
  const ServiceId id = broker.registerService("Clock", clock);
  AnyObject held = lookUp(client, "Clock");
  EXPECT_EQ(held, lookUp(client, "Clock"));
  std::promise<int> tick;
  std::optional<Lifetime> owner(std::in_place);
  held->connect("ticked", SignalSubscriber([&](int value) { tick.set_value(value); }).track(owner->token())).value();
  const SignalLink other = held->connect("ticked", SignalSubscriber([](int) {})).value();
  restart();
  EXPECT_EQ(held->call<int>("now"), 7);
  held->disconnect(other).value();
  held.reset();
  restart();
  ticked(3);
  EXPECT_EQ(tick.get_future().get(), 3);

  // The service returns later than its broker.
  tick = {};
  server.reset();
  broker.unregisterService(id);
  server.emplace(broker, "torso");
  broker.registerService("Clock", clock);
  while (!ticked.hasSubscribers()) std::this_thread::yield();
  ticked(4);
  EXPECT_EQ(tick.get_future().get(), 4);

  owner.reset();
  restart();
  EXPECT_FALSE(ticked.hasSubscribers());
}

TEST_F(Reconnection, IsToldInOrderWithTheServicesThatWentAndCame) {
  const auto offer = [&](const char* name) { return broker.registerService(name, makeService(name)->build()); };
  client.registerService("Mine", makeService("Mine")->build());
  defaultLoop().drain();  // The notice of its own service comes from no other process.
  std::vector<std::string> told;
  std::promise<void> allAreThere;
  const Lifetime listening;
  const auto note = [&](const char* what) {
    return SignalSubscriber([&, what](ServiceId, const std::string& name) {
             told.push_back(what + name);
             if (told.back() == "+Head") allAreThere.set_value();
           })
        .track(listening.token());
  };
  client.serviceRegistered.connect(note("+"));
  client.serviceUnregistered.connect(note("-"));
  const auto noteLoss = [&](const std::string&) { told.emplace_back("lost"); };
  client.connectionLost.connect(SignalSubscriber(noteLoss).track(listening.token()));
  client.connectionRestored.connect(SignalSubscriber([&] { told.emplace_back("back"); }).track(listening.token()));
  offer("Arm");
  const ServiceId leg = offer("Leg");
  const ServiceId head = offer("Head");
  allAreThere.get_future().get();
  restart([&] {
    broker.unregisterService(leg);
    broker.unregisterService(head);
    offer("Hand");
    defaultLoop().drain();  // Its notice would come before the list, which has Arm first.
  });
  EXPECT_THAT(told, ElementsAre("+Arm", "+Leg", "+Head", "lost", "-Arm", "-Leg", "-Head", "+Arm", "+Hand", "back"));
}

TEST_F(Reconnection, OffersAgainWhatWasTakenMeanwhileOnceItIsFree) {
  const auto ear = [](int number) { return makeService("Ear")->method("number", [number] { return number; }).build(); };
  const auto found = [&] { return lookUp(broker, "Ear")->call<int>("number"); };
  client.registerService("Ear", ear(1));
  ServiceId other = 0;
  restart([&] { other = broker.registerService("Ear", ear(2)); });
  EXPECT_EQ(found(), 2);
  std::promise<void> offered;
  broker.serviceRegistered.connect(SignalSubscriber([&](ServiceId, const std::string&) { offered.set_value(); }));
  broker.unregisterService(other);
  offered.get_future().get();
  EXPECT_EQ(found(), 1);
}

TEST_F(Reconnection, IsLoggedUnderNoLock) {
  const kit::CaptureLog shown({"mw.link"});
  Session another;
  const LocalServer limited(another, "arm", LinkOptions{.connectionsOfAProcess = 1});
  Session guest;
  const LocalClient first(guest, "arm");
  std::atomic<int> records{0};
  // While a sink runs, another thread can use everything that may have been logged about.
  const auto sink = log::addSink([&](const LogRecord& record) {
    if (record.category != "mw.link") return;
    ++records;
    const auto use = std::async(std::launch::async, [&] {
      return std::pair(joined->isConnected(), limited.connectionCount() + client.services().size() +
                                                  broker.services().size() + another.services().size());
    });
    EXPECT_EQ(use.wait_for(std::chrono::seconds(20)), std::future_status::ready) << record.text;
  });
  restart([&] { EXPECT_ANY_THROW(LocalClient(guest, "arm")); });
  log::removeSink(sink);
  EXPECT_GE(records, 3) << "the loss, the refusal, the return";
}

TEST_F(JoinedSessions, FindWhatTheBrokersSessionFindsBeyondIt) {
  broker.setResolver([](const std::string& name) {
    if (name != "Far") return Future<AnyObject>();
    return Future<AnyObject>::ready(makeService("Far")->method("one", [] { return 1; }).build());
  });
  EXPECT_EQ(lookUp(client, "Far")->call<int>("one"), 1);
  EXPECT_THROW(lookUp(client, "Nowhere"), NoSuchServiceError);
}

TEST_F(JoinedSessions, MayLeaveWhenTheyAreToldOfTheLoss) {
  std::promise<void> left;
  client.connectionLost.connect(SignalSubscriber([&](const std::string&) {
    joined.reset();
    left.set_value();
  }));
  server.reset();
  left.get_future().get();
}

}  // namespace
}  // namespace mw
