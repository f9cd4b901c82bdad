// The machine's clock is set while the memory runs: what says when something happened follows it, what waits does not.

#include "capture_log.h"
#include "listener.h"
#include "memory_fixture.h"
#include "raw_peer.h"
#include "sitter.h"
#include "socket_folder.h"

#include <libmw/clock.h>
#include <libmw/eventloop.h>
#include <libmw/local.h>
#include <libmw/os.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <future>
#include <ostream>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <gmock/gmock.h>

namespace {

std::atomic<std::int64_t> secondsOff{0};       // How far the machine's clock is off,
std::atomic<std::int64_t> secondsEachTime{0};  // and what is added each time that somebody reads it.

}  // namespace

// In place of the system's, for the libraries too.
#pragma GCC visibility push(default)
extern "C" {
int clock_gettime(clockid_t clock, timespec* time) noexcept {
  const auto result = static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
  if (clock == CLOCK_REALTIME) time->tv_sec += (secondsOff += secondsEachTime);
  return result;
}
int gettimeofday(timeval* time, void* /*zone*/) noexcept {
  timespec now{};
  const int result = clock_gettime(CLOCK_REALTIME, &now);
  *time = {now.tv_sec, now.tv_nsec / 1000};
  return result;
}
time_t time(time_t* time) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  if (time) *time = now.tv_sec;
  return now.tv_sec;
}
}
#pragma GCC visibility pop

namespace HX {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kShort = 60ms;
constexpr std::int64_t kHour = 3600;

class ClockSteps : public kit::MemoryFixture {
 protected:
  void TearDown() override {
    secondsEachTime = 0;
    secondsOff = 0;
    MemoryFixture::TearDown();
  }

 public:
  void waitForAFuture() {
    const mw::Promise<void> promise;
    EXPECT_EQ(promise.future().wait(kShort), mw::FutureState::Running);
  }

  void waitForAnAnswer() {
    const mw::LocalServer server(*broker->session(), "torso");
    mw::Session session;
    const mw::LocalClient client(session, "torso");
    const auto remote = session.service("HXMemory").take();
    const auto answer = remote->async("getDataOnChange", "D", 0);
    EXPECT_EQ(answer.wait(kShort), mw::FutureState::Running);
    EXPECT_TRUE(client.isConnected());
  }

  void waitForTheLoop() {
    std::promise<void> ran;
    mw::defaultLoop().post([&] { ran.set_value(); }, kShort);
    ran.get_future().wait();
  }

  void waitForAChange() {
    auto changed = std::async(std::launch::async, [this] { return memory->getDataOnChange("D", 0); });
    for (int value = 2; changed.wait_for(1ms) != std::future_status::ready; ++value) {
      memory->insertData("D", value);
    }
  }

  void waitForAReport() {
    kit::Sitter sitter;
    const auto slow = kit::Listener::make();
    slow->react = [&](const auto& heard) {
      if (heard.value == HXValue(1)) sitter.sit();
    };
    const auto service = broker->session()->registerService("slow", mw::AnyObject(slow));
    memory->subscribeToEvent("E", "slow", "heard");
    NotifierLock::setPatience(kShort);
    const kit::CaptureLog log({"HXMemory"});
    const auto raise = [&](int value) {
      return std::async(std::launch::async, [&, value] { memory->raiseEvent("E", HXValue(value)); });
    };
    const auto first = raise(1);
    sitter.awaitEntry();
    const auto second = raise(2);
    EXPECT_TRUE(log.waitFor(2)) << "slow is notified, and is waited for";
    sitter.release();
    broker->session()->unregisterService(service);
  }

  void waitForASilentPeer() {
    const mw::LocalServer server(*broker->session(), "torso", {.heartbeat = kShort});
    const mw::RawPeer peer(folder_.path() + "/korvo/torso.sock");
    peer.waitForEnd();
  }

  void sleep() { mw::os::sleep(kShort); }

 private:
  const kit::SocketFolder folder_;
};

TEST_F(ClockSteps, ShowInTheTimesOfEventsAndData) {
  const auto timeOf = [](const HXValue& entry) { return entry[1].asInt(); };
  memory->raiseEvent("E", HXValue("first"));
  memory->insertData("D", 1);
  const int before = timeOf(memory->getDataTimestamp("D"));
  secondsOff = -kHour;
  memory->raiseEvent("E", HXValue("second"));
  memory->insertData("D", 2);
  const HXValue history = memory->getEventHistory("E");
  ASSERT_EQ(history.getSize(), 2U);
  EXPECT_EQ(history[1][0], HXValue("second")) << "in the order raised, whatever the clock said";
  EXPECT_NEAR(timeOf(history[1]), timeOf(history[0]) - kHour, 30);
  EXPECT_NEAR(timeOf(memory->getDataTimestamp("D")), before - kHour, 30);
}

/// Something that waits, for how long, on what is not the machine's clock.
struct Wait {
  const char* name;
  std::chrono::milliseconds length;
  void (ClockSteps::*make)();
};
void PrintTo(const Wait& wait, std::ostream* out) { *out << wait.name; }

const Wait kWaits[] = {
    {"Future", kShort, &ClockSteps::waitForAFuture},
    {"Answer", kShort, &ClockSteps::waitForAnAnswer},
    {"Delay", kShort, &ClockSteps::waitForTheLoop},
    {"Sleep", kShort, &ClockSteps::sleep},
    {"DataOnChange", 600ms, &ClockSteps::waitForAChange},
    {"ReportOfAHungSubscriber", kShort, &ClockSteps::waitForAReport},
    {"Heartbeats", 3 * kShort, &ClockSteps::waitForASilentPeer},
};

class WhateverTheClockDoes : public ClockSteps, public testing::WithParamInterface<Wait> {};

TEST_P(WhateverTheClockDoes, TheWaitIsAsLong) {
  memory->insertData("D", 1);
  for (const auto step : {-kHour, kHour}) {
    SCOPED_TRACE(step);
    secondsEachTime = step;
    const auto before = mw::systemNow();
    EXPECT_GT(std::chrono::abs(mw::systemNow() - before), 50min) << "nobody reads this clock";
    const auto began = Clock::now();
    (this->*GetParam().make)();
    const auto took = Clock::now() - began;
    secondsEachTime = 0;
    EXPECT_GE(took, GetParam().length);
    EXPECT_LT(took, GetParam().length + 10s);
  }
}

INSTANTIATE_TEST_SUITE_P(Waits, WhateverTheClockDoes, testing::ValuesIn(kWaits),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace HX
