#include "events_fixture.h"
#include "look_ups.h"
#include "socket_folder.h"

#include <libmw/eventloop.h>
#include <libmw/local.h>

#include <atomic>
#include <chrono>
#include <future>
#include <optional>
#include <thread>

namespace HX {
namespace {

using namespace std::chrono_literals;

/// The subscriber "far" of "E" is looked up; the test decides when that ends.
class SlowLookUp : public EventsFixture {
 protected:
  void SetUp() override {
    EventsFixture::SetUp();
    lookUps_.emplace(*broker->session());
    memory->subscribeToEvent("E", "far", "heard");
  }

  mw::AnyObject found() const { return mw::AnyObject(far_); }

  const std::shared_ptr<kit::Listener> far_ = kit::Listener::make();
  std::optional<kit::LookUps> lookUps_;
};

TEST_F(SlowLookUp, ThatFailsSaysWhy) {
  memory->raiseEvent("E", HXValue(1));
  const kit::CaptureLog log({"HXMemory"});
  lookUps_->take("far").setError("nobody there");
  EXPECT_THAT(log.entries(), ElementsAre(Entry{mw::LogLevel::Warning, "HXMemory", "operator()",
                                               "can't get proxy to far: nobody there"}));
  EXPECT_THAT(subscribers(), IsEmpty());
}

TEST_F(SlowLookUp, IsForgottenOnceItHasEnded) {
  constexpr int kMany = 5;
  for (int value = 0; value < kMany; ++value) memory->raiseEvent("E", HXValue(value));
  const auto item = memory->xGetSTMValue("E");
  EXPECT_EQ(item->pendingCount(), 5U);
  for (int value = 0; value < kMany; ++value) lookUps_->take("far").setValue(found());
  EXPECT_LE(item->pendingCount(), 1U) << "the last one ends after it has looked for those that have";
}

TEST_F(SlowLookUp, OfASubscriberThatIsBeingCalledLeavesItWhole) {
  auto called = kit::Listener::make();
  const std::weak_ptr<kit::Listener> there = called;
  bool stays = false;
  for (int value = 0; value < 2; ++value) memory->raiseEvent("E", HXValue(value));
  called->react = [&](const auto& heard) {
    if (heard.value != HXValue(2)) return;
    lookUps_->take("far").setValue(found());
    stays = !there.expired();
  };
  lookUps_->take("far").setValue(mw::AnyObject(std::move(called)));
  memory->raiseEvent("E", HXValue(2));
  EXPECT_TRUE(stays);
  EXPECT_TRUE(there.expired()) << "only its subscription held it";
  EXPECT_THAT(far_->values(), ElementsAre(HXValue(1)));
}

TEST_F(SlowLookUp, IsCanceledWhenTheEventIsRemoved) {
  memory->raiseEvent("E", HXValue(1));
  auto running = lookUps_->take("far");
  memory->removeEvent("E");
  STMValue::drainRetired();
  EXPECT_TRUE(running.future().isCanceled());
  EXPECT_FALSE(running.trySetValue(found()));
  EXPECT_THAT(far_->values(), IsEmpty());
}

TEST_F(SlowLookUp, OfAnEventRemovedByItsOwnSubscriberEnds) {
  far_->react = [this](const auto&) { memory->removeEvent("E"); };
  memory->raiseEvent("E", HXValue(1));
  memory->raiseEvent("E", HXValue(2));
  auto first = lookUps_->take("far");
  auto second = lookUps_->take("far");
  first.setValue(found());
  STMValue::drainRetired();
  EXPECT_TRUE(second.future().isCanceled());
  EXPECT_THAT(far_->values(), ElementsAre(HXValue(1)));
}

TEST_F(SlowLookUp, CompletesOnOneThreadWhileAnotherRemovesTheEvent) {
  for (int round = 0; round < 200; ++round) {
    memory->subscribeToEvent("Race", "far", "heard");
    memory->raiseEvent("Race", HXValue(round));
    auto running = lookUps_->take("far");
    std::thread completing([&] { running.trySetValue(found()); });
    memory->removeEvent("Race");
    completing.join();
  }
  STMValue::drainRetired();
}

// The one that runs is the last to hold its event.
TEST_F(SlowLookUp, IsWaitedForByTheEndOfTheMemory) {
  std::promise<void> called;
  std::promise<void> mayReturn;
  far_->react = [&](const auto&) {
    memory->removeEvent("E");
    called.set_value();
    mayReturn.get_future().wait();
  };
  memory->raiseEvent("E", HXValue(1));
  auto running = lookUps_->take("far");
  const std::jthread completing([&] { running.setValue(found()); });
  called.get_future().wait();
  const auto ended = std::async(std::launch::async, [&] { shutDown(); });
  EXPECT_EQ(ended.wait_for(50ms), std::future_status::timeout);
  mayReturn.set_value();
  ended.wait();
}

TEST_F(SlowLookUp, DoesNotHoldUpTheShutdown) {
  memory->raiseEvent("E", HXValue(1));
  memory->raiseEvent("E", HXValue(2));
  auto running = lookUps_->take("far");
  shutDown();
  EXPECT_TRUE(running.future().isCanceled());
}

TEST_F(SlowLookUp, MayEndWithTheShutdownFromInsideTheSubscriber) {
  far_->react = [this](const auto&) { shutDown(); };
  memory->raiseEvent("E", HXValue(1));
  lookUps_->take("far").setValue(found());
  EXPECT_THAT(far_->values(), ElementsAre(HXValue(1)));
}

TEST_F(EventsFixture, DestroyingAnItemWaitsForALookUpThatCannotBeCanceled) {
  kit::LookUps lookUps(*broker->session(), [](kit::LookUps::Promise&) {});
  memory->subscribeToEvent("E", "far", "heard");
  memory->raiseEvent("E", HXValue(1));
  memory->removeEvent("E");
  std::atomic<bool> ended{false};
  auto drained = std::async(std::launch::async, [&] {
    STMValue::drainRetired();
    return ended.load();
  });
  auto running = lookUps.take("far");
  EXPECT_TRUE(running.future().isRunning());
  ended = true;
  running.setError("too late");
  EXPECT_TRUE(drained.get());
}

TEST_F(EventsFixture, AMemoryThatGoesWaitsForALookUpThatCannotBeCanceled) {
  kit::LookUps lookUps(*broker->session(), [](kit::LookUps::Promise&) {});
  memory->subscribeToEvent("E", "far", "heard");
  memory->raiseEvent("E", HXValue(1));
  auto going = std::async(std::launch::async, [this] { shutDown(); });
  EXPECT_EQ(going.wait_for(20ms), std::future_status::timeout);
  lookUps.take("far").setError("too late");
  going.get();
}

TEST_F(EventsFixture, AResolverThatThrowsOrKnowsNothingCostsTheOthersNothing) {
  broker->session()->setResolver([](const std::string& name) -> mw::Future<mw::AnyObject> {
    if (name == "a") throw std::logic_error("resolver broken");
    return {};
  });
  memory->subscribeToEvent("E", "a", "heard");
  memory->subscribeToEvent("E", "b", "heard");
  const auto c = subscribed("c");
  const kit::CaptureLog log({"HXMemory"});
  memory->raiseEvent("E", HXValue(1));
  EXPECT_THAT(c->values(), ElementsAre(HXValue(1)));
  EXPECT_THAT(subscribers(), ElementsAre("c"));
  EXPECT_THAT(log.texts(), testing::IsSupersetOf(
                               {"can't get proxy to a: resolver broken", "can't get proxy to b: no service named b"}));
}

TEST_F(EventsFixture, AMemoryThatIsAClientFindsItsSubscribersAtTheBroker) {
  constexpr std::size_t kMany = 20;
  const kit::SocketFolder folder;
  const auto far = kit::Listener::make();
  mw::Session host;
  host.registerService("far", mw::AnyObject(far));
  const mw::LocalServer server(host, "torso");
  const mw::LocalClient joined(*broker->session(), "torso");
  for (std::size_t value = 0; value < kMany; ++value) {
    memory->subscribeToEvent("E", "far", "heard");  // Anew: it is looked up once more.
    memory->raiseEvent("E", HXValue(static_cast<int>(value)));
    while (far->values().size() <= value) std::this_thread::yield();
  }
  mw::defaultLoop().drain();
  EXPECT_LE(memory->xGetSTMValue("E")->pendingCount(), 1U);
  EXPECT_THAT(subscribers(), ElementsAre("far"));
}

TEST_F(EventsFixture, AMemoryThatOutlivesItsBrokerFindsNobody) {
  memory->subscribeToEvent("E", "far", "heard");
  generic.reset();
  const std::weak_ptr<mw::Session> session = broker->session();
  broker->shutdown();
  broker.reset();
  while (!session.expired()) std::this_thread::yield();  // A task that is ending may hold it.
  const kit::CaptureLog log({"HXMemory"});
  memory->raiseEvent("E", HXValue(1));
  EXPECT_THAT(log.texts(), ElementsAre("can't get proxy to far: the broker of the memory is gone"));
  EXPECT_THAT(subscribers(), IsEmpty());
}

}  // namespace
}  // namespace HX
