#include "local/poller.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <latch>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

namespace mw::local {
namespace {

using namespace std::chrono_literals;
using remote::Work;

/// A socket that a byte may be sent to.
class Bell final : public Pollable {
 public:
  explicit Bell(Poller& poller) : poller_(poller) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) != 0) throw std::runtime_error("no sockets");
    socket_ = File(ends[0]);
    other_ = File(ends[1]);
  }
  static std::shared_ptr<Bell> make(Poller& poller, std::function<void(std::vector<Work>&)> onRing) {
    auto bell = std::make_shared<Bell>(poller);
    bell->onRing_ = std::move(onRing);
    bell->number_ = poller.add(bell->socket_.number(), bell);
    poller.watch(bell->number_, bell->socket_.number(), EPOLLIN | EPOLLET);
    return bell;
  }
  void ring() const { ASSERT_EQ(::send(other_.number(), "x", 1, 0), 1); }
  void onReady(std::uint32_t /*events*/, std::vector<Work>& works) override {
    char byte = 0;
    while (::recv(socket_.number(), &byte, 1, 0) == 1) onRing_(works);
  }
  void onTimer() override {
    std::vector<Work> none;
    onRing_(none);
  }
  bool remindIn(std::chrono::milliseconds time) const { return poller_.remind(number_, Poller::Clock::now() + time); }

 private:
  Poller& poller_;
  File socket_;
  File other_;
  std::uint64_t number_ = 0;
  std::function<void(std::vector<Work>&)> onRing_;
};

struct PollerTest : testing::Test {
  ~PollerTest() override { poller.stop(); }
  Poller poller;
};

TEST_F(PollerTest, ReadsWhateverBlocks) {
  // Each waits for all others: one more than there are threads would keep the last from being read for ever.
  constexpr int kMany = 40;
  std::latch all(kMany);
  std::latch done(kMany);
  std::vector<std::shared_ptr<Bell>> bells;
  for (int i = 0; i < kMany; ++i) {
    bells.push_back(Bell::make(poller, [&](std::vector<Work>& works) {
      works.emplace_back([&] {
        all.arrive_and_wait();
        done.count_down();
      });
    }));
  }
  for (const auto& bell : bells) bell->ring();
  done.wait();
  EXPECT_GT(poller.threadCount(), std::size_t{kMany});
}

TEST_F(PollerTest, DoesAllThatOneReadingBringsAtOnce) {
  constexpr int kMany = 20;
  const auto all = std::make_shared<std::latch>(kMany + 1);  // Left by the last of them, which may not be this thread.
  const auto bell = Bell::make(poller, [all](std::vector<Work>& works) {
    for (int i = 0; i < kMany; ++i) works.emplace_back([all] { all->arrive_and_wait(); });
  });
  bell->ring();
  all->arrive_and_wait();
}

TEST_F(PollerTest, GoesOnBehindAWorkThatFails) {
  std::promise<void> done;
  const auto bell = Bell::make(poller, [&](std::vector<Work>& works) {
    works.emplace_back([] { throw std::runtime_error("expected: it is logged"); });
    works.emplace_back([&] { done.set_value(); });
  });
  bell->ring();
  EXPECT_EQ(done.get_future().wait_for(20s), std::future_status::ready);
}

TEST_F(PollerTest, RemindsOnceAtTheEarliestOfTheTimesAsked) {
  std::atomic<int> calls{0};
  std::promise<void> late;
  const auto bell = Bell::make(poller, [&](std::vector<Work>&) { ++calls; });
  const auto other = Bell::make(poller, [&](std::vector<Work>&) { late.set_value(); });
  const auto begin = Poller::Clock::now();
  EXPECT_TRUE(bell->remindIn(1h));
  EXPECT_TRUE(bell->remindIn(5ms));
  EXPECT_TRUE(bell->remindIn(2h));
  EXPECT_TRUE(other->remindIn(50ms));
  EXPECT_EQ(late.get_future().wait_for(20s), std::future_status::ready);
  EXPECT_GE(Poller::Clock::now() - begin, 48ms);
  EXPECT_EQ(calls, 1);
}

TEST_F(PollerTest, DoesWhatItWasAskedToBeforeItEnds) {
  std::atomic<int> calls{0};
  const auto bell = Bell::make(poller, [&](std::vector<Work>&) { ++calls; });
  EXPECT_TRUE(bell->remindIn(1h));
  poller.stop();
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(bell->remindIn(1ms));
  EXPECT_EQ(poller.threadCount(), 0U);
}

}  // namespace
}  // namespace mw::local
