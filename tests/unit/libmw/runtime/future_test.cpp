#include "sitter.h"

#include <libmw/eventloop.h>
#include <libmw/future.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using mw::Future;
using mw::FutureCallbackType;
using mw::FutureError;
using mw::FutureState;
using mw::Promise;
using namespace std::chrono_literals;

constexpr auto kNoWait = 0ms;

std::exception_ptr failure(const char* text) { return std::make_exception_ptr(std::out_of_range(text)); }

template <class T>
FutureError::Kind kindOf(const Future<T>& future, std::chrono::milliseconds timeout = mw::kInfiniteTimeout) {
  try {
    future.value(timeout);
  } catch (const FutureError& error) {
    return error.kind();
  }
  throw std::logic_error("the future has a value");
}

// --- one future ---

TEST(Future, StandsForNothingUntilAssigned) {
  Future<int> future;
  EXPECT_FALSE(future.isValid());
  EXPECT_EQ(future.wait(), FutureState::None);
  EXPECT_EQ(kindOf(future), FutureError::Kind::NoState);
  EXPECT_THROW(future.then([](const Future<int>&) {}), FutureError);
  EXPECT_NO_THROW(future.cancel());
}

struct Outcome {
  Future<std::string> future;
  FutureState state;
  const char* error;
};

std::vector<Outcome> outcomes() {
  const auto produced = [](auto finish) {
    Promise<std::string> promise;
    finish(promise);
    return promise.future();
  };
  const auto failed = FutureState::FinishedWithError;
  return {{Future<std::string>::ready("v"), FutureState::FinishedWithValue, ""},
          {Future<std::string>::failed("late"), failed, "late"},
          {produced([](auto& p) { p.setException(failure("far")); }), failed, "far"},
          {produced([](auto& p) { p.setException(std::make_exception_ptr(1)); }), failed, "Unknown error"},
          {produced([](auto& p) { p.setCanceled(); }), FutureState::Canceled, "The future was canceled"},
          {Promise<std::string>().future(), failed, "The future has no result: its promise is gone"}};
}

TEST(Future, TellsHowItEndedAndAndThenPassesItOn) {
  for (const auto& [future, state, error] : outcomes()) {
    EXPECT_EQ(future.wait(), state);
    EXPECT_EQ(future.error(), error);
    for (const auto type : {FutureCallbackType::Auto, FutureCallbackType::Async}) {
      EXPECT_EQ(future.then([](const Future<std::string>& source) { return source.state(); }, type).value(), state);
      const auto length = future.andThen([](const std::string& value) { return value.size(); }, type);
      EXPECT_EQ(length.wait(), state);
      EXPECT_EQ(length.error(), error);
    }
  }
}

TEST(Future, ThrowsTheProducersOwnException) {
  EXPECT_THROW(Future<int>::failed(failure("far")).value(), std::out_of_range);
  EXPECT_EQ(kindOf(Future<int>::failed("words")), FutureError::Kind::UserError);
  EXPECT_EQ(kindOf(Future<int>::canceled()), FutureError::Kind::Canceled);
}

TEST(Future, RunsOutOfTimeUntilItHasAValueWhichTakeLeavesToOtherCopies) {
  Promise<std::string> promise;
  const auto future = promise.future();
  for (const auto timeout : {-1ms, kNoWait, 1ms}) {
    EXPECT_EQ(future.wait(timeout), FutureState::Running);
    EXPECT_EQ(kindOf(future, timeout), FutureError::Kind::Timeout);
  }
  auto copy = future;
  promise.setValue("shared");
  EXPECT_EQ(std::move(copy).take(), "shared");
  EXPECT_EQ(future.value(), "shared");
}

// --- promises ---

TEST(Promise, BreaksOnlyWithItsLastCopy) {
  auto first = std::make_unique<Promise<int>>();
  auto second = std::make_unique<Promise<int>>(*first);
  const auto future = first->future();
  first.reset();
  EXPECT_TRUE(future.isRunning());
  second.reset();
  EXPECT_EQ(kindOf(future), FutureError::Kind::NoState);
}

TEST(Promise, RefusesASecondResultButDropsItSilentlyForACanceledFuture) {
  Promise<int> promise;
  promise.setValue(1);
  EXPECT_THROW(promise.setValue(2), std::logic_error);
  EXPECT_THROW(promise.setError("late"), std::logic_error);
  EXPECT_FALSE(promise.trySetValue(2));
  EXPECT_EQ(promise.future().value(), 1);
  Promise<int> canceled;
  canceled.future().cancel();
  EXPECT_NO_THROW(canceled.setValue(1));
  EXPECT_FALSE(canceled.trySetValue(1));
  EXPECT_TRUE(canceled.future().isCanceled());
}

struct ThrowsWhenMoved {
  ThrowsWhenMoved() = default;
  ThrowsWhenMoved(const ThrowsWhenMoved&) { throw std::runtime_error("cannot be stored"); }
};

TEST(Promise, StaysOpenWhenAValueCannotBeStored) {
  Promise<ThrowsWhenMoved> promise;
  EXPECT_THROW(promise.trySetValue({}), std::runtime_error);
  EXPECT_TRUE(promise.future().isRunning());
  EXPECT_TRUE(promise.trySetException(failure("given up")));
}

// --- cancelling ---

TEST(Cancel, AsksTheProducerOnceAndLeavesTheDecisionToIt) {
  int asked = 0;
  const auto held = std::make_shared<int>();
  Promise<int> promise([&asked, held](Promise<int>&) { ++asked; });
  auto future = promise.future();
  future.cancel();
  future.cancel();
  EXPECT_EQ(asked, 1);
  EXPECT_TRUE(promise.isCancelRequested());
  EXPECT_TRUE(future.isRunning());
  promise.setValue(3);
  EXPECT_EQ(future.value(), 3);
  EXPECT_EQ(held.use_count(), 1) << "the callback goes with the result";
}

TEST(Cancel, TheProducerMayFinishFromItsCallback) {
  Promise<int> canceling([](Promise<int>& promise) { promise.setCanceled(); });
  Promise<int> failing([](Promise<int>&) { throw std::out_of_range("stuck"); });
  canceling.future().cancel();
  failing.future().cancel();
  EXPECT_TRUE(canceling.future().isCanceled());
  EXPECT_THROW(failing.future().value(kNoWait), std::out_of_range);
}

TEST(Cancel, GoesUpAChainAndRunsItsContinuations) {
  Promise<int> promise;
  bool isCalled = false;
  const auto value = promise.future().andThen([&](int) { isCalled = true; });
  auto report = value.then([](const Future<void>& source) { return source.isCanceled(); });
  report.cancel();
  EXPECT_TRUE(promise.future().isCanceled());
  EXPECT_TRUE(value.isCanceled());
  EXPECT_TRUE(report.value(kNoWait));
  EXPECT_FALSE(isCalled);
}

TEST(Cancel, DoesNotInterruptAContinuationAndWaitCoversIt) {
  kit::Sitter sitter;
  Promise<void> promise;
  const auto captured = std::make_shared<int>();
  auto future = promise.future().andThen([&, captured] { sitter.sit(); });
  std::thread producer([&] { promise.setValue(); });
  sitter.awaitEntry();
  future.cancel();
  EXPECT_TRUE(future.isRunning());
  sitter.release();
  EXPECT_EQ(future.wait(), FutureState::FinishedWithValue);
  EXPECT_EQ(captured.use_count(), 1);
  producer.join();
}

TEST(Cancel, DuringAContinuationReachesTheFutureThatItReturns) {
  Promise<void> outer;
  Promise<int> inner;
  Future<int> future;
  future = outer.future().andThen([&] {
    future.cancel();
    return inner.future();
  });
  outer.setValue();
  EXPECT_TRUE(inner.future().isCanceled());
  EXPECT_TRUE(future.isCanceled());
}

// --- continuations ---

TEST(Then, RunsOnTheThreadThatFinishesBeforeTheCallReturns) {
  Promise<int> promise;
  std::vector<std::string> order;
  const auto note = [&](const char* name) { return [&order, name](const Future<int>&) { order.emplace_back(name); }; };
  const auto future = promise.future();
  future.then(note("first")).then([&](const Future<void>&) { order.emplace_back("after first"); });
  future.then(note("second"), FutureCallbackType::Sync);
  promise.setValue(1);
  future.then(note("late"));
  EXPECT_THAT(order, testing::ElementsAre("first", "second", "after first", "late"));
}

TEST(Then, AsyncRunsOnTheDefaultLoop) {
  Promise<void> promise;
  const auto future = promise.future().then([](const Future<void>&) { return mw::defaultLoop().isInThisLoop(); },
                                            FutureCallbackType::Async);
  promise.setValue();
  EXPECT_TRUE(future.value());
}

TEST(Then, WhatACallbackThrowsIsTheErrorOfItsFuture) {
  const auto future = mw::makeReadyFuture(1).andThen([](int) -> int { throw std::out_of_range("callback"); });
  EXPECT_THROW(future.value(kNoWait), std::out_of_range);
}

TEST(Then, FlattensFuturesHoweverTheyEnd) {
  for (const auto& [inner, state, error] : outcomes()) {
    Promise<void> early;
    Promise<std::string> late;
    const auto immediate = early.future().andThen([&inner = inner] { return inner; });
    const auto deferred = early.future().andThen([&] { return late.future(); });
    early.setValue();
    EXPECT_EQ(immediate.wait(kNoWait), state);
    EXPECT_EQ(immediate.error(), error);
    EXPECT_TRUE(deferred.isRunning());
    late.setValue("late");
    EXPECT_EQ(deferred.value(kNoWait), "late");
  }
  const auto nothing = mw::makeReadyFuture().andThen([] { return Future<int>(); });
  EXPECT_FALSE(nothing.isValid());
}

TEST(Then, RunsWithoutLocksSoThatOtherThreadsMayUseTheFutureMeanwhile) {
  Promise<int> promise;
  const auto future = promise.future();
  int sum = 0;
  future.andThen([&](int value) {
    future.andThen([&](int again) { sum += again; });
    std::thread([&] { sum += 10 * future.value(); }).join();
    sum += 100 * value;
  });
  promise.setValue(1);
  EXPECT_EQ(sum, 111);
}

TEST(Then, LongChainsNeedNoStack) {
  constexpr int kLength = 100'000;
  for (const bool cancels : {false, true}) {
    Promise<int> promise;
    auto last = promise.future();
    for (int i = 0; i < kLength; ++i) last = last.andThen([](int value) { return value + 1; });
    if (cancels) last.cancel();
    promise.trySetValue(0);
    EXPECT_EQ(last.isCanceled(), cancels);
    EXPECT_EQ(last.hasValue() ? last.value() : kLength, kLength);
  }
}

}  // namespace
