#include "race_point.h"
#include "together.h"

#include <libmw/eventloop.h>
#include <libmw/future.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <utility>

#include <gtest/gtest.h>

// What two threads may do to one future at the same moment. Each round is one attempt at the bad interleaving.

namespace {

using mw::Future;
using mw::FutureCallbackType;
using mw::FutureState;
using mw::Promise;

constexpr int kRounds = 1'000;

TEST(FutureRace, AResultAndACancellationGiveOneOutcome) {
  for (int round = 0; round < kRounds; ++round) {
    Promise<int> promise;
    auto future = promise.future();
    std::atomic<int> runs{0};
    auto chained = future.then([&](const Future<int>& source) {
      ++runs;
      return source.state();
    });
    bool isFirst = false;
    kit::together({[&] { isFirst = promise.trySetValue(1); }, [&] { chained.cancel(); }});
    EXPECT_EQ(chained.value(), isFirst ? FutureState::FinishedWithValue : FutureState::Canceled);
    EXPECT_EQ(runs, 1);
  }
}

TEST(FutureRace, AContinuationAddedWhileFinishingRunsOnce) {
  for (int round = 0; round < kRounds; ++round) {
    Promise<int> promise;
    const auto future = promise.future();
    std::atomic<int> runs{0};
    kit::together({[&] { promise.setValue(1); }, [&] { future.andThen([&](int) { ++runs; }); }});
    EXPECT_EQ(runs, 1);
  }
}

TEST(FutureRace, CancellingMeetsTheHandOverToAnInnerFuture) {
  for (int round = 0; round < kRounds; ++round) {
    Promise<void> outer;
    Promise<int> inner;
    auto future = outer.future().andThen([&] { return inner.future(); });
    kit::together({[&] { outer.setValue(); }, [&] { future.cancel(); }});
    // Either the outer future was cancelled in time, or the request reached the inner one.
    EXPECT_EQ(future.wait(), FutureState::Canceled);
  }
}

TEST(FutureRace, PromisesAndFuturesGoAwayTogether) {
  for (int round = 0; round < kRounds; ++round) {
    auto promise = std::make_unique<Promise<int>>();
    auto copy = std::make_unique<Promise<int>>(*promise);
    auto future = std::make_unique<Future<int>>(promise->future());
    std::atomic<int> runs{0};
    future->then([&](const Future<int>&) { ++runs; });
    kit::together({[&] {
                     promise.reset();
                     future.reset();
                   },
                   [&] { copy.reset(); }});
    EXPECT_EQ(runs, 1);
  }
}

/// A result that does something when it is moved to its place.
struct SlowResult {
  explicit SlowResult(std::function<void()> act) : whenPlaced(std::move(act)) {}
  SlowResult(const SlowResult& other) = default;
  SlowResult(SlowResult&& other) : whenPlaced(std::move(other.whenPlaced)) {  // NOLINT: it may fail
    if (whenPlaced) whenPlaced();
  }
  std::function<void()> whenPlaced;
};

// The second result comes while the first is on its way, which then arrives or fails: its producer is told of both.
TEST(FutureRace, AResultThatComesSecondIsRefusedWhateverBecomesOfTheFirst) {
  for (const bool fails : {false, true}) {
    Promise<SlowResult> promise;
    std::promise<void> placing;
    std::promise<void> goOn;
    auto first = std::async(std::launch::async, [&] {
      promise.trySetValue(SlowResult([&] {
        placing.set_value();
        goOn.get_future().wait();
        if (fails) throw std::runtime_error("no room");
      }));
    });
    placing.get_future().wait();
    kit::AtRacePoint point("a result is there already", [&] {
      goOn.set_value();
      first.wait();
    });
    EXPECT_THROW(promise.setValue(SlowResult({})), std::logic_error);
    EXPECT_TRUE(point.join());
    if (fails) {
      EXPECT_THROW(first.get(), std::runtime_error);
    } else {
      EXPECT_NO_THROW(first.get());
    }
    EXPECT_EQ(promise.future().state(), fails ? FutureState::Running : FutureState::FinishedWithValue);
  }
}

// An owner keeps the futures of work that uses it; its destructor cancels and waits for them.
TEST(FutureRace, CancelThenWaitLeavesNothingBehindThatRuns) {
  for (int round = 0; round < kRounds; ++round) {
    Promise<int> lookUp;
    auto owned = std::make_unique<int>(0);
    auto pending = lookUp.future()
                       .andThen([&owned](int value) { *owned = value; }, FutureCallbackType::Auto)
                       .then([&owned](const Future<void>&) { ++*owned; });
    kit::together({[&] { lookUp.trySetValue(1); },
                   [&] {
                     pending.cancel();
                     pending.wait();
                     owned.reset();
                   }});
  }
}

}  // namespace
