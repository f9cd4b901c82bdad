// What signals promise when several threads use them at once.

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

/// A subscriber that stays inside its call until it is released.
class Sitter {
 public:
  SignalSubscriber subscriber() {
    return SignalSubscriber([this] {
      entered_.set_value();
      release_.get_future().wait();
      left = true;
    });
  }
  void awaitEntry() { entered_.get_future().wait(); }
  void release() { release_.set_value(); }

  std::atomic<bool> left{false};

 private:
  std::promise<void> entered_;
  std::promise<void> release_;
};

/// Runs `leave` while another thread sits in a subscriber of `signal`, and checks that it waits for that one.
template <class Leave>
void expectWaitsForTheCall(Signal<>& signal, Sitter& sitter, const std::function<bool()>& hasBegun, Leave&& leave) {
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
  Sitter sitter;
  const auto link = signal.connect(sitter.subscriber());
  expectWaitsForTheCall(
      signal, sitter, [&] { return !signal.hasSubscribers(); }, [&] { signal.disconnect(link); });
}

TEST(SignalRaces, DestructionWaitsForTheCallAndTheEmissionEndsWithoutTheSignal) {
  std::atomic<bool> going{false};
  auto signal = std::make_unique<Signal<>>();
  Signal<>& used = *signal;
  Sitter sitter;
  std::atomic<bool> reached{false};
  used.connect(sitter.subscriber());
  used.connect(SignalSubscriber([&] { reached = true; }));
  expectWaitsForTheCall(
      used, sitter, [&] { return going.load(); },
      [&] {
        going = true;
        signal.reset();
      });
}

TEST(SignalRaces, TheEndOfAnOwnerWaitsForTheCallOnAnotherThread) {
  Signal<> signal;
  Sitter sitter;
  mw::Lifetime lifetime;
  signal.connect(sitter.subscriber().track(lifetime.token()));
  expectWaitsForTheCall(
      signal, sitter, [&] { return lifetime.isDestroyed(); }, [&] { lifetime.destroy(); });
}

// The thread that emits finds the owner gone while another one, which destroyed it, is still in the subscriber.
TEST(SignalRaces, RemovingADeadSubscriberDoesNotWaitForItsCall) {
  Signal<> signal;
  mw::Lifetime lifetime;
  std::promise<void> destroyed;
  std::promise<void> release;
  signal.connect(SignalSubscriber([&] {
                   lifetime.destroy();
                   destroyed.set_value();
                   release.get_future().wait();
                 }).track(lifetime.token()));
  std::thread inside([&] { signal(); });
  destroyed.get_future().wait();
  signal();
  EXPECT_FALSE(signal.hasSubscribers());
  release.set_value();
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
    std::thread other([&] { signal(); });
    signal();
    other.join();
    EXPECT_GE(inside, 1);
    EXPECT_FALSE(signal.hasSubscribers());
  }
}

TEST(SignalRaces, TheOwnerIsToldLastHowThingsStand) {
  std::atomic<int> talking{0};
  std::atomic<bool> told{false};
  Signal<> signal([&](bool any) {
    EXPECT_EQ(++talking, 1) << "two notices at once";
    EXPECT_NE(told.exchange(any), any) << "the same notice twice";
    --talking;
  });
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, stays = i == 0] {
      for (int n = 0; n < 300; ++n) {
        const auto link = signal.connect(SignalSubscriber([] {}));
        if (!stays || n < 299) signal.disconnect(link);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_TRUE(told);
  signal.disconnectAll();
  EXPECT_FALSE(told);
}

/// Whose subscriber must never run after the owner has gone: its destructor poisons what the subscriber reads.
struct Owner {
  Owner(Signal<int>& from, std::atomic<int>& counter) : signal(from), heard(counter) {
    link = signal.connect(SignalSubscriber([this](int) {
                            EXPECT_EQ(state, 1);
                            ++heard;
                          }).track(lifetime.token()));
  }
  ~Owner() {
    lifetime.destroy();
    state = 0;
    signal.disconnect(link);
  }
  Signal<int>& signal;
  std::atomic<int>& heard;
  int state = 1;
  mw::SignalLink link = 0;
  mw::Lifetime lifetime;
};

TEST(SignalRaces, SubscribersComeAndGoWhileItIsEmitted) {
  Signal<int> signal;
  std::atomic<int> heard{0};
  std::atomic<bool> stop{false};
  std::vector<std::thread> emitters;
  for (int i = 0; i < 2; ++i) {
    emitters.emplace_back([&] {
      while (!stop) signal(1);
    });
  }
  std::vector<std::thread> owners;
  for (int i = 0; i < 2; ++i) {
    owners.emplace_back([&] {
      for (int n = 0; n < 200; ++n) Owner(signal, heard);
      const Owner last(signal, heard);
      const int before = heard;
      while (heard == before) std::this_thread::yield();
    });
  }
  for (auto& thread : owners) thread.join();
  stop = true;
  for (auto& thread : emitters) thread.join();
  EXPECT_FALSE(signal.hasSubscribers());
}

}  // namespace
