#include "race_point.h"

#include <libmw/trackable.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using mw::CallGate;

TEST(CallGate, ATokenOutlivesItsGateAndRefuses) {
  CallGate::Token token;
  EXPECT_TRUE(token.isClosed());
  EXPECT_FALSE(token.enter());
  {
    CallGate gate;
    token = gate.token();
    EXPECT_FALSE(token.isClosed());
    EXPECT_TRUE(token.enter());
  }
  EXPECT_TRUE(token.isClosed());
  EXPECT_FALSE(token.enter());
}

TEST(CallGate, AThreadInsideMayDestroyTheGate) {
  auto gate = std::make_optional<CallGate>();
  const auto outer = gate->enter();
  const auto inner = gate->enter();
  gate.reset();
  EXPECT_TRUE(inner);
}

// The last one leaves when it has been counted, and before the wait for it has begun.
TEST(CallGate, HearsOfOneWhoLeavesWhileItIsCounted) {
  CallGate gate(1);
  std::promise<void> entered;
  std::promise<void> leave;
  std::thread inside([&] {
    const auto pass = gate.enter();
    entered.set_value();
    leave.get_future().wait();
  });
  entered.get_future().wait();
  kit::AtRacePoint point("a gate has counted who is inside", [&] {
    leave.set_value();
    inside.join();
  });
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_TRUE(gate.drainFor(std::chrono::seconds(20)));
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(10));
  EXPECT_TRUE(point.join());
}

struct CallGateWithCounters : testing::TestWithParam<unsigned> {};
INSTANTIATE_TEST_SUITE_P(Counters, CallGateWithCounters, testing::Values(0U, 1U, 3U, 16U));

// Each round races entries against the destruction of what the gate protects.
TEST_P(CallGateWithCounters, NobodyIsInsideOnceItHasDrained) {
  constexpr int kThreads = 4;
  for (int round = 0; round < 40; ++round) {
    auto gate = std::make_unique<CallGate>(GetParam());
    auto guarded = std::make_unique<std::atomic<int>>(0);
    std::atomic<int> started{0};
    std::vector<std::thread> callers;
    for (int i = 0; i < kThreads; ++i) {
      callers.emplace_back([&started, token = gate->token(), value = guarded.get()] {
        ++started;
        while (const auto pass = token.enter()) ++*value;
      });
    }
    while (started < kThreads) std::this_thread::yield();
    gate.reset();
    guarded.reset();
    for (auto& caller : callers) caller.join();
  }
}

}  // namespace
