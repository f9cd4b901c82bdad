#include "memory_fixture.h"

#include <hxauthor/author.h>
#include <hxbase/detail/notifierlock.h>
#include <libmw/dynamicobject.h>

#include <chrono>
#include <future>
#include <numeric>
#include <stdexcept>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using HX::HXValue;
using HX::MemoryInsight;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using namespace std::chrono_literals;

class Insight : public kit::MemoryFixture {
 protected:
  /// A subscriber, and an extractor, by the function that is called.
  mw::ServiceId offer(const std::string& name, const std::function<void(const std::string&)>& onCall) {
    mw::ObjectBuilder builder;
    builder.setTypeName(name);
    builder.setThreadingModel(mw::ObjectThreadingModel::MultiThread);
    const auto add = [&](const char* method, auto callable) {
      builder.advertiseMethod(mw::MetaMethodBuilder(method, name, ""), mw::AnyFunction::from(callable));
    };
    add("onEvent", [onCall](const std::string& key, const HXValue&, const HXValue&) { onCall(key); });
    add("subscribe", onCall);
    add("unsubscribe", onCall);
    add("getCurrentPrecision", [] { return 1; });
    return broker->session()->registerService(
        name, mw::AnyObject(std::make_shared<mw::DynamicObject>(builder.build(), nullptr)));
  }

  const MemoryInsight& insight() const { return *memory; }
};

TEST_F(Insight, TellsWhoIsSubscribedSinceWhenAndHowLongCallsTake) {
  EXPECT_THAT(insight().subscribersOf("Bell"), IsEmpty());
  const auto before = mw::systemNow();
  offer("Ear", [](const std::string&) { std::this_thread::sleep_for(2ms); });
  memory->subscribeToEvent("Bell", "Ear", "onEvent");
  memory->subscribeToEvent("Bell", "Nobody", "onEvent");
  auto known = insight().subscribersOf("Bell");
  ASSERT_THAT(known, SizeIs(2));
  EXPECT_EQ(known[0].module, "Ear");
  EXPECT_EQ(known[0].method, "onEvent");
  EXPECT_GE(known[0].since, before);
  EXPECT_LE(known[0].since, mw::systemNow());
  EXPECT_TRUE(known[0].isThere);
  EXPECT_EQ(known[0].process, "");
  EXPECT_FALSE(known[0].lastCall);
  EXPECT_FALSE(known[1].isThere);
  memory->raiseEvent("Bell", 1);
  memory->raiseEvent("Bell", 1);
  known = insight().subscribersOf("Bell");
  ASSERT_THAT(known, SizeIs(1)) << "nobody has been dropped";
  ASSERT_TRUE(known[0].lastCall);
  EXPECT_GE(*known[0].lastCall, 2ms);
  const auto& counts = known[0].calls.counts;
  EXPECT_EQ(std::accumulate(counts.begin(), counts.end(), std::uint64_t{0}), 2U);
  EXPECT_EQ(counts[0] + counts[1] + counts[2], 0U) << "both took more than a millisecond";
  EXPECT_GE(known[0].calls.nanoseconds, 4'000'000U);
  std::string told;
  insight().forEachSubscribed([&](const std::string& key, const auto& subscribers) {
    told += key + " " + subscribers.front().module + "\n";
    memory->insertData("asked", 1);  // Nothing is locked.
  });
  EXPECT_EQ(told, "Bell Ear\n");
  EXPECT_THAT(insight().dropped(),
              ElementsAre(testing::AllOf(Field(&MemoryInsight::Dropped::event, "Bell"),
                                         Field(&MemoryInsight::Dropped::module, "Nobody"),
                                         Field(&MemoryInsight::Dropped::why, HasSubstr("Nobody")))));
}

// Timing each of them would cost as much as the calls.
TEST_F(Insight, CountsCallsThatItDoesNotTime) {
  offer("Ear", [](const std::string&) {});
  memory->subscribeToEvent("Bell", "Ear", "onEvent");
  for (int i = 0; i < 1000; ++i) memory->raiseEvent("Bell", i);
  const auto known = insight().subscribersOf("Bell");
  const auto& counts = known[0].calls.counts;
  EXPECT_NEAR(static_cast<double>(std::accumulate(counts.begin(), counts.end(), std::uint64_t{0})), 1000, 32);
}

// It is asked above all when a subscriber hangs: what is known of it must not wait for it.
TEST_F(Insight, TellsWhoIsCalledAndWhoWaitsWhileASubscriberHangs) {
  std::promise<void> entered;
  std::promise<void> leave;
  offer("Ear", [&, left = leave.get_future().share()](const std::string&) {
    entered.set_value();
    left.wait();
  });
  memory->subscribeToMicroEvent("Bell", "Ear", "", "onEvent");
  const HX::Author arm("Arm");
  std::thread raiser([&] { memory->raiseMicroEvent("Bell", 1); });
  entered.get_future().wait();
  std::thread waiter([&] {
    const HX::Author::Scope scope(arm);
    memory->unsubscribeToMicroEvent("Bell", "Ear");
  });
  std::vector<MemoryInsight::Wait> waits;
  while ((waits = insight().waits()).empty()) std::this_thread::yield();
  EXPECT_THAT(insight().subscribersOf("Bell"), ElementsAre(Field(&MemoryInsight::Subscriber::module, "Ear")));
  HX::NotifierLock::patrol();
  const auto calls = insight().calls();
  leave.set_value();
  raiser.join();
  waiter.join();
  ASSERT_THAT(calls, SizeIs(1));
  EXPECT_EQ(calls[0].event + " " + calls[0].subscriber, "Bell Ear");
  ASSERT_THAT(waits, SizeIs(1));
  EXPECT_EQ(waits[0].event + " " + waits[0].who + " for " + waits[0].forWhom, "Bell Arm for Ear");
  EXPECT_GE(waits[0].lasts, 0ns);
  EXPECT_THAT(insight().waits(), IsEmpty());
  EXPECT_THAT(insight().calls(), IsEmpty());
}

TEST_F(Insight, TellsForWhomExtractorsWereAsked) {
  bool fails = false;
  offer("Lidar", [&](const std::string&) {
    if (fails) throw std::runtime_error("no power");
  });
  offer("Ear", [](const std::string&) { throw std::runtime_error("deaf"); });
  memory->declareEvent("Scan", "Lidar");
  memory->declareEvent("Echo", "Sonar");
  memory->declareEvent("Plain");
  EXPECT_EQ(insight().extractorNameOf("Scan") + insight().extractorNameOf("Plain") + insight().extractorNameOf("x"),
            "Lidar");
  EXPECT_THAT(insight().extractedEvents(), ElementsAre(testing::Pair("Echo", "Sonar"), testing::Pair("Scan", "Lidar")));
  memory->subscribeToEvent("Scan", "Ear", "onEvent");
  memory->subscribeToEvent("Plain", "Ear", "onEvent");
  EXPECT_THROW(memory->subscribeToEvent("Echo", "Ear", "onEvent"), std::runtime_error);
  fails = true;
  EXPECT_THROW(memory->subscribeToEvent("Scan", "Map", "onEvent"), std::runtime_error);
  const auto texts = [&] {
    std::vector<std::string> all;
    for (const auto& one : insight().demands()) {
      all.push_back(one.extractor + " " + one.event + " " + one.subscriber + (one.isSubscribed ? "" : " gone") +
                    (one.failure.empty() ? "" : ": " + one.failure));
    }
    return all;
  };
  EXPECT_THAT(texts(), ElementsAre("Lidar Scan Ear", "Lidar Scan Map: no power", HasSubstr("Sonar Echo Ear: ")));
  const auto since = insight().demands().front().since;
  fails = false;
  memory->subscribeToEvent("Scan", "Ear", "onEvent");
  EXPECT_EQ(insight().demands().front().since, since) << "asked again";
  memory->raiseEvent("Scan", 1);  // Ends the subscriptions of both: one fails, and one is not there.
  EXPECT_THAT(texts(),
              ElementsAre("Lidar Scan Ear gone", "Lidar Scan Map gone: no power", HasSubstr("Sonar Echo Ear")));
  memory->subscribeToEvent("Scan", "Ear", "onEvent");
  memory->unsubscribeToEvent("Scan", "Ear");
  EXPECT_THAT(texts(), SizeIs(2));
}

TEST_F(Insight, KnowsMappingsOfServicesThatAreNotThere) {
  memory->addMapping("Button", {{"pressed", "Button/Pressed"}, {"let", "Button/Let"}});
  const auto all = insight().mappings();
  ASSERT_THAT(all, SizeIs(2));
  EXPECT_EQ(all[1].service + "." + all[1].signal + " " + all[1].event, "Button.pressed Button/Pressed");
}

TEST_F(Insight, KeepsABoundedListOfWhatWasDropped) {
  for (int i = 0; i < 150; ++i) {
    memory->subscribeToMicroEvent("Bell", "Nobody", "", "onEvent");
    memory->raiseMicroEvent("Bell", i);
  }
  EXPECT_THAT(insight().dropped(), SizeIs(100));
  start();
  EXPECT_THAT(insight().dropped(), IsEmpty());
}

}  // namespace
