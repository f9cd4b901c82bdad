#include "capture_log.h"
#include "expect_error.h"
#include "sitter.h"

#include <libmw/eventloop.h>
#include <libmw/signal.h>

#include <atomic>
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
  EXPECT_THAT(errorOf([&] { signal.connect(SignalSubscriber()); }), testing::HasSubstr("empty function"));
}

/// A subscriber that changes the signal while it is called, between one before and one after it.
struct Change {
  std::function<void(Signal<>& signal, mw::SignalLink self, mw::SignalLink next, std::string& heard)> act;
  std::string first;   ///< Who hears the emission during which the change is made,
  std::string second;  ///< and the one after it.
};

const Change kChanges[] = {
    {[](auto& s, auto self, auto, auto&) { EXPECT_TRUE(s.disconnect(self) && !s.disconnect(self)); }, "abc", "ac"},
    {[](auto& s, auto, auto next, auto&) { s.disconnect(next); }, "ab", "ab"},
    {[](auto& s, auto, auto, auto&) { s.disconnectAll(); }, "ab", ""},
    {[](auto& s, auto, auto, auto& heard) { s.connect(SignalSubscriber([&heard] { heard += "n"; })); }, "abc", "abcn"}};

TEST(Signals, HearOfChangesDuringAnEmissionFromTheNextOneAndOfThoseDisconnectedAtOnce) {
  for (const auto& [act, first, second] : kChanges) {
    Signal<> signal;
    std::string heard;
    mw::SignalLink self = 0;
    mw::SignalLink next = 0;
    bool changed = false;
    signal.connect(SignalSubscriber([&] { heard += "a"; }));
    self = signal.connect(SignalSubscriber([&, &change = act] {
      heard += "b";
      if (!std::exchange(changed, true)) change(signal, self, next, heard);
    }));
    next = signal.connect(SignalSubscriber([&] { heard += "c"; }));
    signal();
    EXPECT_EQ(std::exchange(heard, ""), first);
    signal();
    EXPECT_EQ(heard, second);
  }
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

TEST(Signals, LogASubscriberThatFailsAndCallTheOthers) {
  const kit::CaptureLog log({"mw.signal"});
  Signal<> signal;
  int heard = 0;
  const auto subscriber = [](const std::function<void()>& act, MetaCallType type = MetaCallType::Direct) {
    return SignalSubscriber(mw::AnyFunction::fromDynamicFunction([=](const std::vector<mw::AnyReference>&) {
                              act();
                              return mw::AnyReference();
                            }),
                            type);
  };
  signal.connect(subscriber([] { throw std::runtime_error("first failure"); }));
  signal.connect(subscriber([] { throw 2; }));
  signal.connect(SignalSubscriber([](int) {}));  // Does not take what is emitted.
  signal.connect(subscriber([&] { ++heard; }, MetaCallType::Queued));
  signal.connect(subscriber([&] { ++heard; }));
  const auto movable = std::make_unique<int>(1);
  const mw::AnyReference parameter = mw::AnyReference::of(movable);
  signal.trigger({&parameter, 1});
  EXPECT_EQ(heard, 1);
  EXPECT_THAT(log.texts(),
              ElementsAre(testing::MatchesRegex("subscriber of link [0-9]+ failed: first failure"), testing::_,
                          testing::HasSubstr("to int"), testing::HasSubstr("cannot be copied")));
  for (const auto& entry : log.entries()) EXPECT_EQ(entry.level, mw::LogLevel::Error);
}

TEST(Signals, LetGoOfSubscribersOneByOneHoweverManyThereAre) {
  constexpr int kMany = 50'000;  // Were each to cost as much as there are, the test would last for minutes.
  Signal<> signal;
  int heard = 0;
  const auto kept = std::make_shared<int>();
  std::vector<mw::SignalLink> links;
  for (int i = 0; i < kMany; ++i) links.push_back(signal.connect(SignalSubscriber([kept, &heard] { ++heard; })));
  signal();
  EXPECT_EQ(heard, kMany);
  for (int i = 0; i < kMany; ++i) {
    const std::size_t from = static_cast<std::size_t>(i % 2 == 0 ? i / 2 : kMany - 1 - i / 2);
    ASSERT_TRUE(signal.disconnect(links[from]));
    ASSERT_FALSE(signal.disconnect(links[from]));
    ASSERT_EQ(kept.use_count(), kMany - i);
    if (i % 10'000 == 0) signal();
  }
  EXPECT_EQ(heard, kMany + (kMany - 1) + (kMany - 10'001) + (kMany - 20'001) + (kMany - 30'001) + (kMany - 40'001));
  EXPECT_FALSE(signal.hasSubscribers());
}

TEST(Signals, DeliverQueuedOnTheLoopInOrder) {
  Signal<int> signal;
  std::promise<void> allSent;
  std::atomic<int> talking{0};
  std::vector<int> heard;
  const auto hear = [&](int n) {
    EXPECT_EQ(++talking, 1) << "two deliveries of one connection at once";
    if (n == 0) {
      allSent.get_future().wait();
      mw::defaultLoop().async([] {}).wait();  // What could overtake it has begun.
    }
    heard.push_back(mw::defaultLoop().isInThisLoop() ? n : -1);
    --talking;
  };
  signal.connect(SignalSubscriber(hear, MetaCallType::Queued));
  std::vector<int> sent;
  for (int i = 0; i < 200; ++i) signal(sent.emplace_back(i));
  allSent.set_value();
  mw::defaultLoop().drain();
  EXPECT_EQ(heard, sent);
}

TEST(Signals, DropWhatIsQueuedForASubscriberThatLeaves) {
  Signal<int> signal;
  kit::Sitter sitter;
  std::atomic<int> heard{0};
  const auto link = signal.connect(SignalSubscriber(
      [&](int n) {
        ++heard;
        if (n == 0) sitter.sit();
      },
      MetaCallType::Queued));
  signal(0);
  signal(1);
  sitter.awaitEntry();
  auto disconnected = std::async(std::launch::async, [&] { return signal.disconnect(link); });
  while (signal.hasSubscribers()) std::this_thread::yield();
  sitter.release();
  EXPECT_TRUE(disconnected.get());
  mw::defaultLoop().drain();
  EXPECT_EQ(heard, 1);
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

TEST(Signals, RemoveTrackedSubscribersWhoseOwnerHasGone) {
  for (const auto callType : {MetaCallType::Direct, MetaCallType::Queued}) {
    std::vector<bool> told;
    Signal<> signal([&](bool any) { told.push_back(any); });
    std::atomic<int> heard{0};
    std::optional<mw::Lifetime> lifetime(std::in_place);
    signal.connect(SignalSubscriber([&] { ++heard; }, callType).track(lifetime->token()));
    signal();
    mw::defaultLoop().drain();
    lifetime.reset();
    signal();
    mw::defaultLoop().drain();
    EXPECT_EQ(heard, 1);
    EXPECT_FALSE(signal.hasSubscribers());
    EXPECT_THAT(told, ElementsAre(true, false));
  }
}

}  // namespace
