#include "joined_sessions.h"
#include "service.h"
#include "sitter.h"

#include <libmw/batch.h>
#include <libmw/deadline.h>
#include <libmw/remoteerror.h>
#include <libmw/servedcall.h>
#include <libmw/signal.h>

#include <atomic>
#include <future>
#include <semaphore>
#include <stop_token>

// Calls whose callers do not want to wait: those that are given up, and those that leave together.

namespace mw {
namespace {

/// A service whose methods wait for the test, in one way or another, as a caller that gives up meets them.
class GivenUp : public JoinedSessions {
 protected:
  GivenUp() {
    broker.registerService("Slow", makeService("Slow")
                                       ->method("block", [this] { sitter.sit(); })
                                       .method("sleep", [this] { sleep(); })
                                       .method("count", [this] { return ++count; })
                                       .build());
    client.registerService("Mine", makeService("Mine")->method("sleep", [this] { sleep(); }).build());
  }
  /// Until whoever called gives up.
  void sleep() {
    std::promise<void> stopped;
    const std::stop_callback atStop(stopOfServedCall(), [&] { stopped.set_value(); });
    sleeps.release();
    EXPECT_EQ(stopped.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
    wakes.release();
  }

  kit::Sitter sitter;
  std::counting_semaphore<> sleeps{0};
  std::counting_semaphore<> wakes{0};
  std::atomic<int> count{0};
};

TEST_F(GivenUp, CallsDoNotStart) {
  const AnyObject slow = lookUp(client, "Slow");
  const auto running = slow->async("block");
  sitter.awaitEntry();
  auto waiting = slow->async("count");
  waiting.cancel();
  EXPECT_TRUE(waiting.isCanceled());
  lookUp(client, "Slow");  // What was sent before has been read by then.
  sitter.release();
  running.wait();
  EXPECT_EQ(slow->call<int>("count"), 1) << "the one that was cancelled ran";
}

TEST_F(GivenUp, CallsKeepNoOtherWaiting) {
  const AnyObject slow = lookUp(client, "Slow");
  auto running = slow->async("block");
  sitter.awaitEntry();
  const auto behind = slow->async("count");
  running.cancel();
  EXPECT_EQ(behind.value().reference().to<int>(), 1);
  EXPECT_EQ(slow->call<int>("count"), 2);
  sitter.release();
}

TEST_F(GivenUp, CallsEndTheirSleepAlsoBehindARelay) {
  Session third;
  std::optional<LocalClient> alsoJoined(std::in_place, third, "torso");
  for (const char* service : {"Slow", "Mine"}) {
    auto answer = lookUp(third, service)->async("sleep");
    sleeps.acquire();
    answer.cancel();
    wakes.acquire();
    const auto deadlines =
        std::make_shared<Deadlines>(third.eventLoop(), std::chrono::milliseconds(100), "broker torso");
    const auto late = withDeadline(lookUp(third, service), service, deadlines)->async("sleep");
    EXPECT_THROW(late.value(), DeadlineError);
    EXPECT_EQ(late.error(), std::string("broker torso did not answer ") + service + ".sleep within 0.1 s");
    // Slow machines may not have begun it: it is dropped then.
    if (sleeps.try_acquire_for(std::chrono::seconds(1))) wakes.acquire();
  }
}

TEST_F(GivenUp, CallsEndTheirSleepWhenTheCallerGoes) {
  Session third;
  std::optional<LocalClient> alsoJoined(std::in_place, third, "torso");
  const auto answer = lookUp(third, "Slow")->async("sleep");
  sleeps.acquire();
  alsoJoined.reset();
  wakes.acquire();
  EXPECT_THROW(answer.value(), ConnectionLostError);
}

/// Two sessions that send nothing by themselves, which would take along what waits.
class QuietSessions : public JoinedSessions {
 protected:
  QuietSessions() {
    constexpr std::chrono::hours kNever{1};
    joined.reset();
    server.reset();
    server.emplace(broker, "torso", LinkOptions{.heartbeat = kNever});
    joined.emplace(client, "torso", LocalClient::Options{.link = {.heartbeat = kNever}});
  }
};

TEST_F(QuietSessions, SendWhatWaitsForOthersThoughNoneFollow) {
  std::promise<void> told;
  std::promise<void> done;
  broker.registerService("Slow", makeService("Slow")
                                     ->method("wait",
                                              [&] {
                                                told.get_future().get();
                                                done.set_value();
                                              })
                                     .build());
  broker.registerService("Teller", makeService("Teller")->method("tell", [&] { told.set_value(); }).build());
  const AnyObject slow = lookUp(client, "Slow");
  const AnyObject teller = lookUp(client, "Teller");
  const auto first = slow->async("wait");
  const auto second = teller->async("tell");
  done.get_future().get();
  EXPECT_TRUE(second.hasValue());
}

TEST_F(QuietSessions, SendWhatABatchCollectsBeforeTheyWaitAndAfterAMoment) {
  std::promise<int> told;
  broker.registerService("Teller", makeService("Teller")
                                       ->method("count", [](int i) { return i; })
                                       .method("tell", [&](int i) { told.set_value(i); })
                                       .build());
  broker.registerService("Other", makeService("Other")->method("count", [](int i) { return -i; }).build());
  const AnyObject teller = lookUp(client, "Teller");
  const AnyObject other = lookUp(client, "Other");
  const Batch batch;
  for (int round = 0; round < 100; ++round) {
    std::vector<Future<AnyValue>> flying;
    for (int i = 0; i < 50; ++i) flying.push_back((i % 3 == 0 ? other : teller)->async("count", i));
    for (int i = 0; i < 50; ++i) {
      EXPECT_EQ(flying[static_cast<std::size_t>(i)].value().reference().to<int>(), i % 3 == 0 ? -i : i);
    }
  }
  const auto alone = teller->async("tell", 7);
  EXPECT_EQ(told.get_future().get(), 7) << "though the batch goes on";
  alone.wait();
}

TEST_F(QuietSessions, MayEndBatchesInAnyOrder) {
  broker.registerService("Adder", makeService("Adder")->method("next", [](int i) { return i + 1; }).build());
  const AnyObject adder = lookUp(client, "Adder");
  std::optional<Batch> first(std::in_place);
  std::optional<Batch> second(std::in_place);
  std::vector<Future<AnyValue>> flying;
  const auto call = [&] { flying.push_back(adder->async("next", static_cast<int>(flying.size()))); };
  call();
  first.reset();
  call();
  second.reset();
  call();
  for (std::size_t i = 0; i < flying.size(); ++i) EXPECT_EQ(flying[i].value().reference().to<std::size_t>(), i + 1);
}

TEST_F(QuietSessions, EmitWhatWaitsForOthersThoughTheNextCallLasts) {
  std::promise<void> begin;
  std::promise<void> heard;
  const auto rang = std::make_shared<Signal<int>>();  // Outlives the service, as what the service calls does.
  broker.registerService("Bell", makeService("Bell")
                                     ->signal("rang", *rang)
                                     .method("begin", [&] { begin.get_future().get(); })
                                     .method("ring", [rang] { (*rang)(1); })
                                     .method("hear", [&] { heard.get_future().get(); })
                                     .build());
  broker.registerService("Other", makeService("Other")->method("ping", [] {}).build());
  const AnyObject bell = lookUp(client, "Bell");
  bell->connect("rang", SignalSubscriber([&](int) { heard.set_value(); })).value();
  const auto first = bell->async("begin");
  const auto second = bell->async("ring");
  const auto third = bell->async("hear");
  lookUp(client, "Other")->call("ping");  // Everything is there now: the last two are done in one go.
  begin.set_value();
  EXPECT_TRUE(third.hasValue());
}

}  // namespace
}  // namespace mw
