#include "../../../../platform/libmw/src/runtime/afterserving.h"
#include "capture_log.h"
#include "sitter.h"

#include <libmw/eventloop.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <latch>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using mw::EventLoop;
using mw::FutureError;
using mw::FutureState;
using mw::Promise;
using namespace std::chrono_literals;

EventLoop::Options small(std::size_t minThreads, std::size_t maxThreads) {
  return {.name = "small", .minThreads = minThreads, .maxThreads = maxThreads, .growAfter = 1ms};
}

TEST(EventLoop, StartsFunctionsInTheOrderPosted) {
  EventLoop loop(small(1, 1));
  std::vector<int> order;
  for (int i = 0; i < 100; ++i) loop.post([&order, i] { order.push_back(i); });
  loop.drain();
  ASSERT_EQ(order.size(), 100U);
  EXPECT_TRUE(std::ranges::is_sorted(order));
}

TEST(EventLoop, DrainCoversWhatFunctionsPost) {
  EventLoop loop(small(2, 2));
  std::atomic<int> runs{0};
  std::function<void()> cascade = [&] {
    if (++runs < 50) loop.post(cascade);
  };
  loop.post(cascade);
  loop.drain();
  EXPECT_EQ(runs, 50);
}

TEST(EventLoop, DrainCoversWhatFunctionsHold) {
  EventLoop loop(small(1, 1));
  std::atomic<bool> gone{false};
  const auto whenGone = [&](const int* held) {
    std::this_thread::sleep_for(30ms);  // A drain that does not wait for this has long returned.
    gone = true;
    delete held;
  };
  loop.post([held = std::shared_ptr<int>(new int(1), whenGone)] {});
  loop.drain();
  EXPECT_TRUE(gone);
}

TEST(EventLoop, DrainAndJoinRefuseToWaitForThemselves) {
  EventLoop loop(small(1, 1));
  EXPECT_THROW(loop.async([&] { loop.drain(); }).value(), std::logic_error);
  EXPECT_THROW(loop.async([&] { loop.join(); }).value(), std::logic_error);
  EventLoop other(small(1, 1));
  EXPECT_NO_THROW(other.async([&] { loop.drain(); }).value());
}

TEST(EventLoop, AsyncGivesResultsAndErrorsAndFlattens) {
  EventLoop loop(small(1, 1));
  EXPECT_EQ(loop.async([] { return std::string("done"); }).value(), "done");
  EXPECT_EQ(loop.async([] { return mw::makeReadyFuture(4); }).value(), 4);
  EXPECT_THROW(loop.async([] { throw std::out_of_range("far"); }).value(), std::out_of_range);
}

TEST(EventLoop, RunsDelayedFunctionsInTheOrderOfTheirTimes) {
  EventLoop loop(small(1, 1));
  const auto begin = std::chrono::steady_clock::now();
  auto late = loop.async([] {}, 1h);
  const auto early = loop.async([] {}, 30ms);
  EXPECT_EQ(early.wait(), FutureState::FinishedWithValue);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 30ms);
  EXPECT_TRUE(late.isRunning()) << "though it came first";
  late.cancel();
}

TEST(EventLoop, CancelledBeforeItStartsAFunctionNeverRuns) {
  EventLoop loop(small(1, 1));
  bool isRun = false;
  auto future = loop.async([&] { isRun = true; }, 1h);
  future.cancel();
  EXPECT_EQ(future.wait(), FutureState::Canceled);
  loop.drain();
  EXPECT_FALSE(isRun);
}

TEST(EventLoop, AThrowingFunctionIsLoggedAndTheLoopGoesOn) {
  const kit::CaptureLog log({"mw.eventloop"});
  EventLoop loop(small(1, 1));
  loop.post([] { throw std::runtime_error("boom"); });
  loop.post([] { throw 1; });
  loop.drain();
  EXPECT_THAT(log.texts(), testing::ElementsAre("loop \"small\": a function threw: boom",
                                                "loop \"small\": a function threw an unknown exception"));
}

// --- growth ---

// Each function waits for the ones posted after it: that works only when blocked threads do not hold up the queue.
TEST(EventLoop, GrowsWhenAllThreadsAreBlockedAndShrinksToItsLeastAgain) {
  constexpr std::size_t kDepth = 8;
  constexpr std::size_t kLeast = 2;
  auto options = small(kLeast, kDepth);
  options.idleTimeout = 1ms;
  EventLoop loop(options);
  std::latch all(kDepth);
  Promise<void> release;
  for (std::size_t i = 0; i < kDepth; ++i) {
    loop.post([&all, future = release.future()] {
      all.arrive_and_wait();
      future.wait();
    });
  }
  all.wait();
  EXPECT_EQ(loop.threadCount(), kDepth);
  release.setValue();
  loop.drain();
  while (loop.threadCount() > kLeast) std::this_thread::yield();
  EXPECT_TRUE(loop.async([] { return true; }, 30 * options.idleTimeout).value());
  // It may have grown anew meanwhile, where none of them got to the function in time.
  EXPECT_GE(loop.threadCount(), kLeast) << "though all have been idle for long";
}

TEST(EventLoop, DoesNotGrowForWorkThatGetsOn) {
  auto options = small(2, 64);
  options.growAfter = 1h;
  EventLoop loop(options);
  for (int i = 0; i < 1'000; ++i) loop.post([] {});
  loop.drain();
  EXPECT_EQ(loop.threadCount(), 2U);
}

TEST(EventLoop, ReportsWorkThatWaitsAtTheLimitOncePerEpisode) {
  const kit::CaptureLog log({"mw.eventloop"});
  auto options = small(2, 2);
  options.stallWarning = 2ms;
  EventLoop loop(options);
  for (std::size_t episode = 1; episode <= 2; ++episode) {
    Promise<void> release;
    std::latch busy(2);
    for (int i = 0; i < 2; ++i) {
      loop.post([&busy, future = release.future()] {
        busy.count_down();
        future.wait();
      });
    }
    busy.wait();
    for (int i = 0; i < 3; ++i) loop.post([] {});
    EXPECT_TRUE(log.waitFor(episode));
    release.setValue();
    loop.drain();
  }
  // Not all may have been posted so soon.
  const auto text = testing::MatchesRegex(
      R"(loop "small": [1-3] functions have waited for 2 ms, because all 2 threads are busy \(limit 2\))");
  EXPECT_THAT(log.texts(), testing::ElementsAre(text, text));
}

// --- threads that are lent ---

TEST(EventLoop, HasWhatIsLeftToAThreadThatServesRunByItAtTheEnd) {
  EventLoop loop(small(1, 1));
  std::vector<std::string> order;
  const auto self = std::this_thread::get_id();
  {
    const mw::detail::AfterServing serving;
    EXPECT_TRUE(loop.postAfterServing([&] {
      EXPECT_EQ(std::this_thread::get_id(), self);
      EXPECT_TRUE(loop.isInThisLoop());
      EXPECT_THROW(loop.drain(), std::logic_error);
      order.emplace_back("left");
      throw std::runtime_error("which is logged");
    }));
    order.emplace_back("served");
  }
  EXPECT_THAT(order, testing::ElementsAre("served", "left"));
  EXPECT_FALSE(loop.isInThisLoop());
  loop.drain();

  std::thread::id there;
  loop.postAfterServing([&] { there = std::this_thread::get_id(); });
  loop.drain();
  EXPECT_NE(there, self) << "run by a thread that serves nobody";
}

TEST(EventLoop, DrainsWhatIsLeftToAThreadThatServesAndDoesNotCountItAsWaitingForWorkers) {
  const kit::CaptureLog log({"mw.eventloop"});
  auto options = small(1, 1);
  options.stallWarning = 2ms;
  EventLoop loop(options);
  kit::Sitter sitter;
  std::atomic<bool> isDrained{false};
  std::thread drainer;
  {
    const mw::detail::AfterServing serving;
    for (int i = 0; i < 3; ++i) loop.postAfterServing([&] { EXPECT_FALSE(isDrained); });
    loop.post([&] { sitter.sit(); });
    sitter.awaitEntry();
    auto waiting = loop.async([] {});
    EXPECT_TRUE(log.waitFor(1));
    EXPECT_THAT(log.texts(), testing::ElementsAre(testing::HasSubstr(": 1 functions have waited for ")));
    sitter.release();
    waiting.wait();
    drainer = std::thread([&] {
      loop.drain();
      isDrained = true;
    });
    for (int i = 0; i < 100; ++i) std::this_thread::yield();
  }
  drainer.join();
}

TEST(EventLoop, WaitsAtItsEndForALentThreadThatRunsAndDropsWhatHasNotStarted) {
  auto loop = std::make_unique<EventLoop>(small(1, 1));
  kit::Sitter sitter;
  std::atomic<bool> isRun{false};
  std::thread lent([&] {
    const mw::detail::AfterServing serving;
    loop->postAfterServing([&] { sitter.sit(); });
    loop->postAfterServing([&] { isRun = true; });
  });
  sitter.awaitEntry();
  loop->stop();
  std::atomic<bool> isJoined{false};
  std::thread joiner([&] {
    loop->join();
    isJoined = true;
  });
  for (int i = 0; i < 1000; ++i) std::this_thread::yield();
  EXPECT_FALSE(isJoined);
  sitter.release();
  joiner.join();
  lent.join();
  EXPECT_FALSE(isRun);
}

// --- the end ---

TEST(EventLoop, StoppingDropsWhatHasNotStarted) {
  EventLoop loop(small(1, 1));
  kit::Sitter sitter;
  loop.post([&] { sitter.sit(); });
  bool isRun = false;
  const auto queued = loop.async([&] { isRun = true; });
  const auto delayed = loop.async([&] { isRun = true; }, 1h);
  sitter.awaitEntry();
  loop.stop();
  EXPECT_FALSE(loop.post([&] { isRun = true; }));
  const auto refused = loop.async([&] { isRun = true; });
  sitter.release();
  loop.join();
  for (const auto& future : {queued, delayed, refused}) {
    EXPECT_EQ(future.wait(0ms), FutureState::FinishedWithError);
    EXPECT_THROW(future.value(), FutureError);
  }
  EXPECT_FALSE(isRun);
}

TEST(EventLoop, MayBeDestroyedByAFunctionThatItRuns) {
  auto loop = std::make_shared<EventLoop>(small(2, 2));
  std::promise<void> isGone;
  auto* posting = loop.get();
  posting->post([held = std::move(loop), &isGone]() mutable {
    held.reset();
    isGone.set_value();
  });
  isGone.get_future().wait();
}

TEST(EventLoop, StoppingRacesWithPosting) {
  for (int round = 0; round < 50; ++round) {
    auto loop = std::make_unique<EventLoop>(small(2, 4));
    std::atomic<int> accepted{0};
    std::atomic<int> destroyed{0};
    std::thread poster([&] {
      while (loop->post([token = std::shared_ptr<void>(nullptr, [&](void*) { ++destroyed; })] {})) ++accepted;
    });
    while (accepted < 5) std::this_thread::yield();
    loop->stop();
    poster.join();
    loop->join();
    // The refused one is destroyed too.
    EXPECT_EQ(destroyed, accepted + 1);
  }
}

}  // namespace
