#include "capture_log.h"
#include "expect_error.h"

#include <libmw/eventloop.h>
#include <libmw/signal.h>

#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using mw::MetaCallType;
using mw::Signal;
using mw::SignalSubscriber;
using testing::ElementsAre;

TEST(Signals, CallSubscribersInTheOrderOfTheirConnection) {
  Signal<int, std::string> signal;
  std::vector<std::string> heard;
  signal.connect(SignalSubscriber([&](int n, const std::string& text) { heard.push_back(text + std::to_string(n)); }));
  signal.connect(SignalSubscriber([&](std::int64_t n, const HX::HXValue&) { heard.push_back(std::to_string(n)); }));
  signal(1, "a");
  EXPECT_THAT(heard, ElementsAre("a1", "1"));
  EXPECT_EQ(signal.signature(), "(int, string)");
}

TEST(Signals, LinksAreDisconnectedOnce) {
  Signal<> signal;
  Signal<> other;
  const auto link = signal.connect(SignalSubscriber([] {}));
  EXPECT_FALSE(other.disconnect(link));
  EXPECT_TRUE(signal.disconnect(link));
  EXPECT_FALSE(signal.disconnect(link));
  EXPECT_THAT(errorOf([&] { signal.connect(SignalSubscriber()); }), testing::HasSubstr("empty function"));
}

/// A subscriber that changes the signal while it is called, between one before and one after it.
struct Change {
  const char* name;
  std::function<void(Signal<>& signal, mw::SignalLink self, mw::SignalLink next, std::vector<std::string>& heard)> act;
  std::vector<std::string> first;   ///< Who hears the emission during which the change is made,
  std::vector<std::string> second;  ///< and the one after it.
};

const Change kChanges[] = {
    {"ItselfOut", [](auto& s, auto self, auto, auto&) { s.disconnect(self); }, {"a", "b", "c"}, {"a", "c"}},
    {"TheNextOut", [](auto& s, auto, auto next, auto&) { s.disconnect(next); }, {"a", "b"}, {"a", "b"}},
    {"EverybodyOut", [](auto& s, auto, auto, auto&) { s.disconnectAll(); }, {"a", "b"}, {}},
    {"SomebodyIn",
     [](auto& s, auto, auto, auto& heard) { s.connect(SignalSubscriber([&heard] { heard.emplace_back("new"); })); },
     {"a", "b", "c"},
     {"a", "b", "c", "new"}},
};

class ChangeDuringEmission : public testing::TestWithParam<Change> {};
INSTANTIATE_TEST_SUITE_P(All, ChangeDuringEmission, testing::ValuesIn(kChanges),
                         [](const auto& given) { return given.param.name; });

TEST_P(ChangeDuringEmission, CountsFromTheNextEmissionAndForThoseDisconnectedAtOnce) {
  Signal<> signal;
  std::vector<std::string> heard;
  mw::SignalLink self = 0;
  mw::SignalLink next = 0;
  bool changed = false;
  signal.connect(SignalSubscriber([&] { heard.emplace_back("a"); }));
  self = signal.connect(SignalSubscriber([&] {
    heard.emplace_back("b");
    if (!std::exchange(changed, true)) GetParam().act(signal, self, next, heard);
  }));
  next = signal.connect(SignalSubscriber([&] { heard.emplace_back("c"); }));
  signal();
  EXPECT_EQ(heard, GetParam().first);
  heard.clear();
  signal();
  EXPECT_EQ(heard, GetParam().second);
}

TEST(Signals, MayBeDestroyedByASubscriber) {
  auto signal = std::make_unique<Signal<int>>();
  int heard = 0;
  signal->connect(SignalSubscriber([&](int) {
    signal.reset();
    ++heard;
  }));
  signal->connect(SignalSubscriber([&](int) { ++heard; }));
  (*signal)(1);
  EXPECT_EQ(heard, 1) << "the one that came after was disconnected with the signal";
}

TEST(Signals, LogASubscriberThatThrowsAndCallTheOthers) {
  const kit::CaptureLog log({"mw.signal"});
  Signal<std::string> signal;
  int heard = 0;
  signal.connect(SignalSubscriber([](const std::string&) { throw std::runtime_error("first failure"); }));
  signal.connect(SignalSubscriber([](const std::string&) { throw 2; }));
  signal.connect(SignalSubscriber([](int) {}));  // Does not take a string.
  signal.connect(SignalSubscriber([&](const std::string&) { ++heard; }));
  signal("x");
  EXPECT_EQ(heard, 1);
  ASSERT_EQ(log.entries().size(), 3U);
  EXPECT_THAT(log.texts()[0], testing::HasSubstr("first failure"));
  EXPECT_THAT(log.texts()[2], testing::HasSubstr("cannot convert string to int"));
  for (const auto& entry : log.entries()) EXPECT_EQ(entry.level, mw::LogLevel::Error);
}

TEST(Signals, DeliverQueuedOnTheLoopInOrder) {
  Signal<int> signal;
  std::vector<int> heard;  // Deliveries of one connection never overlap, which the thread sanitizer checks.
  bool onLoop = true;
  signal.connect(SignalSubscriber(
      [&](int n) {
        heard.push_back(n);
        onLoop = onLoop && mw::defaultLoop().isInThisLoop();
      },
      MetaCallType::Queued));
  std::vector<int> sent;
  for (int i = 0; i < 200; ++i) {
    signal(i);
    sent.push_back(i);
  }
  mw::defaultLoop().drain();
  EXPECT_EQ(heard, sent);
  EXPECT_TRUE(onLoop);
}

TEST(Signals, DropWhatIsQueuedForASubscriberThatLeaves) {
  Signal<int> signal;
  std::promise<void> release;
  std::atomic<int> heard{0};
  std::promise<void> started;
  const auto link = signal.connect(SignalSubscriber(
      [&](int n) {
        ++heard;
        if (n > 0) return;
        started.set_value();
        release.get_future().wait();
      },
      MetaCallType::Queued));
  signal(0);
  signal(1);
  started.get_future().wait();
  auto disconnected = std::async(std::launch::async, [&] { return signal.disconnect(link); });
  while (signal.hasSubscribers()) std::this_thread::yield();
  release.set_value();
  EXPECT_TRUE(disconnected.get());
  mw::defaultLoop().drain();
  EXPECT_EQ(heard, 1);
}

TEST(Signals, CallTheOthersWhenArgumentsCannotBeQueued) {
  const kit::CaptureLog log({"mw.signal"});
  Signal<> signal;
  bool heard = false;
  const auto take = [](const std::vector<mw::AnyReference>&) { return mw::AnyReference(); };
  signal.connect(SignalSubscriber(mw::AnyFunction::fromDynamicFunction(take), MetaCallType::Queued));
  signal.connect(SignalSubscriber(mw::AnyFunction::fromDynamicFunction([&](const std::vector<mw::AnyReference>&) {
    heard = true;
    return mw::AnyReference();
  })));
  const auto movable = std::make_unique<int>(1);
  const std::vector<mw::AnyReference> parameters{mw::AnyReference::of(movable)};
  signal.trigger(parameters);
  EXPECT_TRUE(heard);
  ASSERT_EQ(log.entries().size(), 1U);
  EXPECT_THAT(log.texts().front(), testing::HasSubstr("cannot be copied"));
}

TEST(Signals, TellTheirOwnerWhenTheFirstComesAndTheLastLeavesAndLogWhatItThrows) {
  const kit::CaptureLog log({"mw.signal"});
  std::vector<bool> told;
  {
    Signal<> signal([&](bool any) {
      told.push_back(any);
      throw std::runtime_error("not now");
    });
    const auto first = signal.connect(SignalSubscriber([] {}));
    const auto second = signal.connect(SignalSubscriber([] {}));
    signal.disconnect(first);
    EXPECT_THAT(told, ElementsAre(true));
    EXPECT_TRUE(signal.disconnect(second));
    EXPECT_THAT(log.texts(), ElementsAre("not now", "not now"));
    signal.connect(SignalSubscriber([] {}));
  }
  EXPECT_THAT(told, ElementsAre(true, false, true, false));
}

class TrackedSubscribers : public testing::TestWithParam<MetaCallType> {};
INSTANTIATE_TEST_SUITE_P(CallTypes, TrackedSubscribers, testing::Values(MetaCallType::Direct, MetaCallType::Queued));

TEST_P(TrackedSubscribers, EndWithTheirOwnerAndAreRemoved) {
  std::vector<bool> told;
  Signal<> signal([&](bool any) { told.push_back(any); });
  std::atomic<int> heard{0};
  {
    mw::Lifetime lifetime;
    signal.connect(SignalSubscriber([&] { ++heard; }, GetParam()).track(lifetime.token()));
    signal();
    mw::defaultLoop().drain();
    EXPECT_EQ(heard, 1);
    lifetime.destroy();
  }
  signal();
  mw::defaultLoop().drain();
  EXPECT_EQ(heard, 1);
  EXPECT_FALSE(signal.hasSubscribers());
  EXPECT_THAT(told, ElementsAre(true, false));
}

TEST(Signals, ATrackedSubscriberMayDestroyItsOwner) {
  Signal<> signal;
  std::optional<mw::Lifetime> lifetime(std::in_place);
  signal.connect(SignalSubscriber([&] { lifetime.reset(); }).track(lifetime->token()));
  signal();
  signal();
  EXPECT_FALSE(signal.hasSubscribers());
}

}  // namespace
