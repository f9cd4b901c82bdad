// Processes that join a broker and vanish: killed, frozen, by the hundred. What they leave behind must go with them,
// and nobody else may notice.

#include "capture_log.h"
#include "listener.h"
#include "memory_fixture.h"
#include "process.h"
#include "sanitized.h"
#include "sitter.h"
#include "socket_folder.h"
#include "stress.h"

#include <hxcommon/hxmodule.h>
#include <hxvalue/msgpack.h>
#include <libmw/local.h>
#include <libmw/log.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <iostream>
#include <malloc.h>
#include <optional>
#include <random>
#include <raw_peer.h>
#include <string>
#include <sys/resource.h>
#include <thread>

#include <gmock/gmock.h>

namespace HX {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kHeartbeat = 200ms;
/// How long a raiser may be held by a subscriber that has gone.
constexpr auto kBound = 3 * kHeartbeat + 1s;
constexpr int kClients = 200;
constexpr int kClientsOfAProcess = 20;

mw::LinkOptions quick() { return {.heartbeat = kHeartbeat}; }

class Ear : public HXModule {
 public:
  Ear(const std::shared_ptr<HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
    functionName("hear", name, "");
    bindMethod(this, &Ear::hear);
  }
  void hear(const std::string& /*key*/, const HXValue& /*value*/, const std::string& /*message*/) {}
};

/// A subscriber of "E" in a process of its own, until it is killed. Says when it is ready.
int runSubscriber() {
  const auto broker = HXBroker::create("ear");
  const mw::LocalClient client(*broker->session(), "torso", {quick(), true});
  HXModule::createModule<Ear>(broker, "Ear");
  broker->getProxy("HXMemory")->call("subscribeToEvent", "E", "Ear", "hear");
  std::cout << "ready" << std::endl;
  ::pause();
  return 0;
}

/// Clients that call, follow signals, host services, and are cut off in the middle of it.
int runClients() {
  std::vector<std::thread> threads;
  for (int i = 0; i < kClientsOfAProcess; ++i) {
    threads.emplace_back([i] {
      for (unsigned round = 0;; ++round) {
        try {
          mw::Session session;
          const mw::LocalClient client(session, "torso", {quick(), false});
          const auto memory = session.service("HXMemory").take();
          const std::string key = "Key" + std::to_string(i);
          memory->call("insertData", key, static_cast<int>(round));
          const auto event = memory->call<mw::AnyObject>("subscriber", "E");
          event->connect("signal", mw::SignalSubscriber([](const HXValue&) {})).value();
          auto pending = memory->async("getData", key);
          if (round % 2 == 0) memory->call("raiseEvent", "E", key);
        } catch (const std::exception&) {  // The broker may be at its limit for a moment.
        }
      }
    });
  }
  ::pause();
  return 0;
}

/// Makes a last call, which waits for others to leave with: bursts came before. Exits at once, and nothing of it goes
/// that would still send.
int runLeaver() {
  static auto* const session = new mw::Session;
  [[maybe_unused]] static const auto* const client = new mw::LocalClient(*session, "torso", {quick(), false});
  static auto* const memory = new mw::AnyObject(session->service("HXMemory").take());
  const int left = (*memory)->call<int>("getData", "Left");
  for (int burst = 0; burst < 20; ++burst) {
    std::vector<mw::Future<mw::AnyValue>> flying;
    for (int i = 0; i < 50; ++i) flying.push_back((*memory)->async("insertData", "Flying", i));
    mw::waitForAll(flying);
  }
  std::this_thread::sleep_for(40ms);  // Nobody looks after connections any more.
  static const auto last = (*memory)->async("insertData", "Left", left + 1);
  return 0;
}

class VanishingPeers : public kit::MemoryFixture {
 protected:
  void SetUp() override {
    wasOnStderr_ = mw::log::setStderrSink(false);
    MemoryFixture::SetUp();
    server.emplace(*broker->session(), "torso", quick());
  }
  void TearDown() override {
    server.reset();
    MemoryFixture::TearDown();
    mw::log::setStderrSink(wasOnStderr_);
  }

  static std::unique_ptr<kit::Process> startAs(const std::string& role) {
    return std::make_unique<kit::Process>(std::vector<std::string>{std::filesystem::read_symlink("/proc/self/exe")},
                                          std::vector<std::string>{"KORVO_STRESS_ROLE=" + role});
  }

  /// Waits until `holds`. @return False when it does not within some seconds.
  template <class Condition>
  static bool eventually(Condition&& holds) {
    for (const auto end = Clock::now() + 20s; Clock::now() < end; std::this_thread::sleep_for(5ms)) {
      if (holds()) return true;
    }
    return false;
  }

  /// Raises "E" and ends the subscriber in the middle. @return The longest that a raise took.
  Clock::duration raiseWhile(int raises, kit::Process& subscriber, int signal) {
    Clock::duration longest{};
    for (int i = 0; i < raises; ++i) {
      if (i == raises / 2) subscriber.send(signal);
      const auto begin = Clock::now();
      memory->raiseEvent("E", HXValue(i));
      longest = std::max(longest, Clock::now() - begin);
    }
    return longest;
  }

  std::optional<mw::LocalServer> server;

 private:
  const kit::SocketFolder folder_;
  bool wasOnStderr_ = true;
};

TEST_F(VanishingPeers, HoldARaiserNoLongerThanTheirConnection) {
  for (const int signal : {SIGKILL, SIGSTOP}) {
    const auto subscriber = startAs("subscriber");
    ASSERT_TRUE(subscriber->waitFor("ready"));
    EXPECT_THAT(memory->getDataSubscriber("E"), testing::ElementsAre("Ear"));
    EXPECT_LT(raiseWhile(10'000, *subscriber, signal), kBound);
    EXPECT_THAT(memory->getDataSubscriber("E"), testing::IsEmpty());
    EXPECT_EQ(memory->getData("E"), HXValue(9'999));
    EXPECT_TRUE(eventually([&] { return !broker->session()->service("Ear").hasValue(); }));
  }
}

TEST_F(VanishingPeers, HaveTheirLastCallDone) {
  memory->insertData("Left", HXValue(0));
  for (int i = 1; i <= 10; ++i) {
    EXPECT_EQ(startAs("leaver")->finish(60s).status, 0);
    ASSERT_TRUE(eventually([&] { return memory->getData("Left") == HXValue(i); })) << i;
  }
}

/// What else a process has open are the files by which its threads are woken, one for each that has waited.
std::size_t openSockets() {
  std::size_t count = 0;
  std::error_code gone;
  for (const auto& file : std::filesystem::directory_iterator("/proc/self/fd")) {
    if (std::filesystem::read_symlink(file, gone).string().starts_with("socket:")) ++count;
  }
  return count;
}

/// Bytes that are allocated, in all arenas. What the system counts as resident depends on which thread freed what.
std::size_t allocated() { return ::mallinfo2().uordblks; }

std::size_t resident() {
  std::size_t total = 0;
  std::size_t pages = 0;
  std::ifstream("/proc/self/statm") >> total >> pages;
  return pages * static_cast<std::size_t>(::getpagesize());
}

TEST_F(VanishingPeers, LeaveNothingBehind) {
  memory->declareEvent("E", "");
  const std::size_t sockets = openSockets();
  std::vector<std::size_t> bytes;
  for (int round = 0; round < 3; ++round) {
    std::vector<std::unique_ptr<kit::Process>> processes(kClients / kClientsOfAProcess);
    std::mt19937 random(static_cast<unsigned>(round));
    for (const auto end = Clock::now() + kit::stressDuration() / 3; Clock::now() < end;) {
      auto& one = processes[random() % processes.size()];
      one.reset();
      one = startAs("clients");
      memory->raiseEvent("E", HXValue(round));
      std::this_thread::sleep_for(std::chrono::milliseconds(random() % 50));
    }
    for (auto& one : processes) one.reset();
    EXPECT_TRUE(eventually([&] { return server->connectionCount() == 0; })) << server->connectionCount();
    memory->raiseEvent("E", HXValue(round));
    EXPECT_TRUE(eventually([&] { return openSockets() == sockets; })) << openSockets() << ", before " << sockets;
    bytes.push_back(allocated());
  }
  if (!kit::kSanitized) {
    // What a connection had goes on the event loop, which may be late.
    const std::size_t most = bytes[1] + resident() / 20;
    EXPECT_TRUE(eventually([&] { return allocated() <= most; })) << allocated() << ", more than " << most;
  }
}

TEST_F(VanishingPeers, AreNamedWhileTheyHang) {
  mw::Session session;
  const mw::LocalClient client(session, "torso", {quick(), false});
  kit::Sitter sitter;
  const auto ear = kit::Listener::make();
  ear->react = [&](const auto& heard) {
    if (heard.value == HXValue(1)) sitter.sit();
  };
  session.registerService("Ear", mw::AnyObject(ear));
  memory->subscribeToEvent("E", "Ear", "heard");
  NotifierLock::setPatience(1ms);
  const kit::CaptureLog log({"HXMemory"});
  const auto raise = [this](int value) {
    return std::async(std::launch::async, [this, value] { memory->raiseEvent("E", HXValue(value)); });
  };
  const auto first = raise(1);
  sitter.awaitEntry();
  const auto second = raise(2);
  const std::string report = "event E has been waited for longer than 1 ms, while it notifies Ear";
  EXPECT_TRUE(eventually([&] { return testing::Matches(testing::Contains(report))(log.texts()); }));
  sitter.release();
  NotifierLock::setPatience(5s);
}

/// A process that calls and does not care for answers.
class Caller {
 public:
  explicit Caller(const std::string& socket, const std::string& method, const HXValue::List& arguments)
      : peer_(socket) {
    const auto call = toMsgpack(HXValue(HXValue::List{0, 1, method, arguments}));
    peer_.send({reinterpret_cast<const char*>(call.data()), call.size()});
  }

 private:
  mw::RawPeer peer_;
};

/// More of them than any fixed number of threads that somebody would think of.
constexpr std::size_t kBlocked = kit::kSanitized ? 150 : 1000;

class BlockedCalls : public kit::MemoryFixture {
 protected:
  BlockedCalls() {
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &files);
  }
  void SetUp() override {
    wasOnStderr_ = mw::log::setStderrSink(false);
    MemoryFixture::SetUp();
    mw::LinkOptions options;
    options.heartbeat = 1h;  // The callers have none.
    options.connectionLimit = options.connectionsOfAProcess = 2 * kBlocked;
    server.emplace(*broker->session(), "torso", options);
    joined.emplace(session, "torso", mw::LocalClient::Options{{.heartbeat = 1h}, false});
    honest = session.service("HXMemory").take();
  }
  void TearDown() override {
    honest = {};
    joined.reset();
    server.reset();
    MemoryFixture::TearDown();
    mw::log::setStderrSink(wasOnStderr_);
  }

  static std::size_t threads() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& one : std::filesystem::directory_iterator("/proc/self/task")) ++count;
    return count;
  }

  /// Has that many call, and serves an honest client while they block and once they have left.
  void attack(const std::string& method, const HXValue::List& arguments) {
    const std::size_t others = server->connectionCount();
    std::vector<std::unique_ptr<Caller>> callers;
    Clock::duration longest{};
    int served = 0;
    const auto serveHonest = [&] {
      const auto begin = Clock::now();
      honest->call("insertData", "Honest", ++served);
      EXPECT_EQ(honest->call<int>("getData", "Honest"), served);
      longest = std::max(longest, Clock::now() - begin);
    };
    for (std::size_t i = 0; i < kBlocked; ++i) {
      callers.push_back(std::make_unique<Caller>(folder_.path() + "/korvo/torso.sock", method, arguments));
      if (i % 10 == 0) serveHonest();
    }
    for (const auto end = Clock::now() + 30s; threads() < kBlocked && Clock::now() < end;) serveHonest();
    EXPECT_GE(threads(), kBlocked) << "they do not block";
    for (int i = 0; i < 100; ++i) serveHonest();
    {
      mw::Session newcomer;  // Who comes meanwhile is let in, too.
      const mw::LocalClient alsoJoined(newcomer, "torso");
      EXPECT_EQ(newcomer.service("HXMemory").take()->call<int>("getData", "Honest"), served);
    }
    callers.clear();
    EXPECT_LT(longest, 5s);
    for (const auto end = Clock::now() + 20s; server->connectionCount() > others && Clock::now() < end;) serveHonest();
    EXPECT_EQ(server->connectionCount(), others);
    serveHonest();
  }

  mw::Session session;
  std::optional<mw::LocalServer> server;
  std::optional<mw::LocalClient> joined;
  mw::AnyObject honest;

 private:
  const kit::SocketFolder folder_;
  bool wasOnStderr_ = true;
};

TEST_F(BlockedCalls, OfMoreClientsThanThereAreThreadsKeepNobodyWaiting) {
  memory->insertData("Still", HXValue(1));
  attack("HXMemory.getDataOnChange", {"Still", 0});
  // Whoever waits for its key is gone: the memory, which waits for its calls, ends at once.
}

TEST_F(BlockedCalls, OfRaisersBehindASilentSubscriberKeepNobodyWaiting) {
  mw::Session other;
  std::optional<mw::LocalClient> silent(std::in_place, other, "torso",
                                        mw::LocalClient::Options{{.heartbeat = 1h}, false});
  kit::Sitter sitter;
  const auto ear = kit::Listener::make();
  ear->react = [&](const auto& heard) {
    if (heard.value == HXValue(0)) sitter.sit();
  };
  other.registerService("Ear", mw::AnyObject(ear));
  memory->subscribeToEvent("E", "Ear", "heard");
  const auto first = std::async(std::launch::async, [this] { memory->raiseEvent("E", HXValue(0)); });
  sitter.awaitEntry();
  attack("HXMemory.raiseEvent", {"E", 1});
  sitter.release();
}

/// What the modules of a robot do all day, in no order.
class Traffic {
 public:
  Traffic(HXMemory& memory, unsigned seed) : memory_(memory), random_(seed) { join(); }
  Traffic(const Traffic&) = delete;
  Traffic& operator=(const Traffic&) = delete;

  void step() {
    const std::string key = "Key" + std::to_string(random_() % 500);
    try {
      switch (random_() % 10) {
        case 0:
          return memory_.insertData(key, value());
        case 1:
          return remote_->call<void>("raiseEvent", key, value());
        case 2:
          return remote_->call<void>("subscribeToEvent", key, name_, "heard");
        case 3:
          return memory_.subscribeToEvent(key, "Nobody", "heard");
        case 4:
          return remote_->call<void>("unsubscribeToEvent", key, name_);
        case 5:
          return follow(key);
        case 6:
          return memory_.declareEvent(key, "");
        case 7:
          return memory_.raiseMicroEvent(key, remote_->call<HXValue>("getData", key));
        case 8:
          return memory_.removeEvent(key);
        default:
          if (random_() % 100 == 0) join();
      }
    } catch (const HXError&) {  // There is no such key, or no such subscription, just then.
    }
  }

 private:
  HXValue value() {
    if (random_() % 2 == 0) return HXValue(static_cast<int>(random_()));
    return HXValue(std::string(std::size_t{1} << random_() % 15, 'x'));
  }

  /// As a module that starts anew.
  void join() {
    remote_ = {};
    client_.reset();
    session_.emplace();
    client_.emplace(*session_, "torso", mw::LocalClient::Options{quick(), true});
    name_ = "Ear" + std::to_string(++joined_);  // The broker may not have heard yet that the one before has left.
    session_->registerService(name_, mw::AnyObject(kit::Listener::make(false)));
    remote_ = session_->service("HXMemory").take();
  }

  void follow(const std::string& event) const {
    const auto wrapper = remote_->call<mw::AnyObject>("subscriber", event);
    const auto link = wrapper->connect("signal", mw::SignalSubscriber([](const HXValue&) {})).take();
    remote_->call<void>("raiseEvent", event, event);
    wrapper->disconnect(link).value();
  }

  HXMemory& memory_;
  std::mt19937 random_;
  std::optional<mw::Session> session_;
  std::optional<mw::LocalClient> client_;
  mw::AnyObject remote_;
  std::string name_;
  int joined_ = 0;
};

class DayOfTraffic : public VanishingPeers {};

TEST_F(DayOfTraffic, LeavesTheProcessAsSmallAsItWas) {
  constexpr int kRounds = 4;
  std::vector<std::size_t> bytes;
  std::size_t steps = 0;
  for (unsigned round = 0; round < kRounds; ++round) {
    {
      Traffic traffic(*memory, round);
      const std::size_t least = steps + 250;  // However slow the machine is.
      for (const auto end = Clock::now() + std::chrono::milliseconds(kit::stressDuration()) / kRounds;
           Clock::now() < end || steps < least; ++steps)
        traffic.step();
    }
    EXPECT_TRUE(eventually([&] { return server->connectionCount() == 0; })) << server->connectionCount();
    for (const auto& key : memory->getDataListName()) {
      if (key.starts_with("Key")) memory->removeEvent(key);
    }
    bytes.push_back(allocated());
  }
  // The first round makes what stays: the table's places, the threads and their buffers. Connections that have ended
  // are kept until their next heartbeat would be due.
  const std::size_t bound = bytes[1] + (std::size_t{256} << 10);
  if (!kit::kSanitized) {
    EXPECT_TRUE(eventually([&] { return allocated() <= bound; }))
        << allocated() << " bytes, after each round " << testing::PrintToString(bytes) << ", " << steps << " steps";
  }
}

}  // namespace
}  // namespace HX

int main(int argc, char** argv) {
  const char* const role = std::getenv("KORVO_STRESS_ROLE");
  if (role && std::string_view(role) == "subscriber") return HX::runSubscriber();
  if (role && std::string_view(role) == "clients") return HX::runClients();
  if (role && std::string_view(role) == "leaver") return HX::runLeaver();
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
