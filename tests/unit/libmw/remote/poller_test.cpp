#include "local/poller.h"

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
  Bell() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) != 0) throw std::runtime_error("no sockets");
    socket_ = File(ends[0]);
    other_ = File(ends[1]);
  }
  static std::shared_ptr<Bell> make(Poller& poller, std::function<void(std::vector<Work>&)> onRing) {
    auto bell = std::make_shared<Bell>();
    bell->onRing_ = std::move(onRing);
    poller.watch(poller.add(bell->socket_.number(), bell), bell->socket_.number(), EPOLLIN | EPOLLET);
    return bell;
  }
  void ring() const { ASSERT_EQ(::send(other_.number(), "x", 1, 0), 1); }
  void onReady(std::uint32_t /*events*/, std::vector<Work>& works) override {
    char byte = 0;
    while (::recv(socket_.number(), &byte, 1, 0) == 1) onRing_(works);
  }

 private:
  File socket_;
  File other_;
  std::function<void(std::vector<Work>&)> onRing_;
};

struct PollerTest : testing::Test {
  ~PollerTest() override { EXPECT_TRUE(poller.stop(60s)); }
  Poller poller{1ms};
};

TEST_F(PollerTest, ReadsWhateverBlocksAndEndsTheThreadsThatThisTook) {
  // Each waits for all others: one more than there are threads would keep the last from being read for ever.
  constexpr int kMany = 40;
  std::latch all(kMany + 1);
  std::latch counted(1);
  std::vector<std::shared_ptr<Bell>> bells;
  for (int i = 0; i < kMany; ++i) {
    bells.push_back(Bell::make(poller, [&](std::vector<Work>& works) {
      works.emplace_back([&] {
        all.arrive_and_wait();
        counted.wait();
      });
    }));
  }
  for (const auto& bell : bells) bell->ring();
  all.arrive_and_wait();
  EXPECT_GT(poller.threadCount(), std::size_t{kMany});
  counted.count_down();
  const auto deadline = std::chrono::steady_clock::now() + 60s;
  while (poller.threadCount() > 2 && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  EXPECT_EQ(poller.threadCount(), 2U);
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

TEST_F(PollerTest, EndsItsThreads) {
  const auto bell = Bell::make(poller, [](std::vector<Work>&) {});
  EXPECT_GT(poller.threadCount(), 0U);
  EXPECT_TRUE(poller.stop(60s));
  EXPECT_EQ(poller.threadCount(), 0U);
}

}  // namespace
}  // namespace mw::local
