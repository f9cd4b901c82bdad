// What signals promise when several threads use them at once.

#include "sitter.h"
#include "together.h"

#include <libmw/signal.h>

#include <atomic>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using mw::Signal;
using mw::SignalSubscriber;

/// Runs `leave` while another thread sits in a subscriber of `signal`, and checks that it waits for that one.
template <class Leave>
void expectWaitsForTheCall(Signal<>& signal, kit::Sitter& sitter, const std::function<bool()>& hasBegun,
                           Leave&& leave) {
  std::thread emitter([&] { signal(); });
  sitter.awaitEntry();
  auto leaving = std::async(std::launch::async, [&] {
    leave();
    EXPECT_TRUE(sitter.left);
  });
  while (!hasBegun()) std::this_thread::yield();
  sitter.release();
  leaving.get();
  emitter.join();
}

TEST(SignalRaces, DisconnectWaitsForTheCallOnAnotherThread) {
  Signal<> signal;
  kit::Sitter sitter;
  const auto link = signal.connect(SignalSubscriber([&] { sitter.sit(); }));
  expectWaitsForTheCall(
      signal, sitter, [&] { return !signal.hasSubscribers(); }, [&] { signal.disconnect(link); });
}

TEST(SignalRaces, DestructionWaitsForTheCallAndTheEmissionEndsWithoutTheSignal) {
  auto signal = std::make_unique<Signal<>>();
  Signal<>& used = *signal;
  kit::Sitter sitter;
  std::atomic<bool> going{false};
  used.connect(SignalSubscriber([&] { sitter.sit(); }));
  used.connect(SignalSubscriber([] {}));
  expectWaitsForTheCall(
      used, sitter, [&] { return going.load(); },
      [&] {
        going = true;
        signal.reset();
      });
}

// The thread that emits finds the owner gone while another one, which destroyed it, is still in the subscriber.
TEST(SignalRaces, RemovingADeadSubscriberDoesNotWaitForItsCall) {
  Signal<> signal;
  mw::Lifetime lifetime;
  kit::Sitter sitter;
  signal.connect(SignalSubscriber([&] {
                   lifetime.destroy();
                   sitter.sit();
                 }).track(lifetime.token()));
  std::thread inside([&] { signal(); });
  sitter.awaitEntry();
  signal();
  EXPECT_FALSE(signal.hasSubscribers());
  sitter.release();
  inside.join();
}

TEST(SignalRaces, TwoEmissionsMayDisconnectTheirOneSubscriberFromInside) {
  for (int round = 0; round < 200; ++round) {
    Signal<> signal;
    mw::SignalLink link = 0;
    std::atomic<int> inside{0};
    link = signal.connect(SignalSubscriber([&] {
      ++inside;
      signal.disconnect(link);
    }));
    kit::together(2, [&] { signal(); });
    EXPECT_GE(inside, 1);
    EXPECT_FALSE(signal.hasSubscribers());
  }
}

TEST(SignalRaces, TheOwnerIsToldOneThingAfterAnother) {
  std::vector<bool> told;
  std::atomic<int> talking{0};
  Signal<> signal([&](bool any) {
    EXPECT_EQ(++talking, 1) << "two notices at once";
    if (told.empty()) std::thread([&] { signal.disconnectAll(); }).join();
    told.push_back(any);
    --talking;
  });
  signal.connect(SignalSubscriber([] {}));
  EXPECT_EQ(told, (std::vector{true, false}));
}

}  // namespace
