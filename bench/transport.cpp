// Calls into another process, against a bare echo of the same bytes and, where it is installed (bench/peers), Redis.

#include "transport_hosts.h"

#include <libmw/batch.h>

#include <array>
#include <deque>
#include <memory>

#include <benchmark/benchmark.h>

namespace {

using bench::Broker;
using bench::Echo;
using bench::Redis;
using HX::HXValue;

/// As long as a request for a key and its answer are on the wire.
constexpr std::size_t kMessage = 48;
constexpr std::size_t kLarge = std::size_t{1} << 20;
constexpr int kInFlight = 64;

/// Times of single round trips, for the percentiles that an average hides.
class Latencies {
 public:
  template <class Action>
  void measure(Action&& action) {
    const auto begin = std::chrono::steady_clock::now();
    action();
    times_.push_back(std::chrono::steady_clock::now() - begin);
  }
  double last() const { return std::chrono::duration<double>(times_.back()).count(); }
  /// Adds the counters p50_us and p99_us.
  void report(benchmark::State& state) {
    if (times_.empty()) return state.SkipWithError("it did no work");
    state.counters["p50_us"] = percentile(0.5);
    state.counters["p99_us"] = percentile(0.99);
  }

 private:
  double percentile(double part) {
    const auto at = times_.begin() + static_cast<std::ptrdiff_t>(part * static_cast<double>(times_.size() - 1));
    std::nth_element(times_.begin(), at, times_.end());
    return std::chrono::duration<double, std::micro>(*at).count();
  }
  std::vector<std::chrono::nanoseconds> times_;
};

constexpr std::string_view kRedisGet = "*2\r\n$3\r\nGET\r\n$3\r\nkey\r\n";
constexpr std::string_view kRedisAnswer = "$2\r\n42\r\n";

template <class Action>
void runRoundTrips(benchmark::State& state, Action&& action) {
  for (int i = 0; i < 100; ++i) action();
  Latencies latencies;
  for (auto _ : state) {
    latencies.measure([&] {
      if (!action()) state.SkipWithError("a wrong answer");
    });
  }
  latencies.report(state);
}

void echo(benchmark::State& state) {
  auto& peer = Echo::instance();
  const std::string sent(kMessage, 'x');
  std::string received(kMessage, ' ');
  runRoundTrips(state, [&] {
    peer.send(sent);
    peer.receive(received);
    return received == sent;
  });
}

void getFromProcess(benchmark::State& state) {
  auto& memory = *Broker::instance().memory;
  memory.call("insertData", "key", 42);
  runRoundTrips(state, [&] { return memory.call<HXValue>("getData", "key") == HXValue(42); });
  state.SetLabel("control=echo/real_time aim=1.6");
}

/// The same, for the other comparison.
void getFromProcessBesideRedis(benchmark::State& state) {
  getFromProcess(state);
  state.SetLabel("control=getFromRedis/real_time aim=1");
}

void getFromRedis(benchmark::State& state) {
  auto& redis = Redis::instance();
  runRoundTrips(state, [&] { return redis.call(kRedisGet, kRedisAnswer.size()) == kRedisAnswer; });
}

void pipelinedRedis(benchmark::State& state) {
  auto& redis = Redis::instance();
  std::string requests;
  for (int i = 0; i < kInFlight; ++i) requests += kRedisGet;
  for (auto _ : state) {
    if (!redis.call(requests, kInFlight * kRedisAnswer.size()).ends_with(kRedisAnswer)) {
      state.SkipWithError("a wrong answer");
    }
  }
  state.SetItemsProcessed(state.iterations() * kInFlight);
}

void pipelinedGet(benchmark::State& state) {
  const auto& memory = Broker::instance().memory->asObject();
  memory->call("insertData", "key", 42);
  std::deque<mw::Future<mw::AnyValue>> flying;
  for (auto _ : state) {
    const mw::Batch batch;
    for (int i = 0; i < kInFlight; ++i) flying.push_back(memory->async("getData", "key"));
    for (; !flying.empty(); flying.pop_front()) {
      if (std::move(flying.front()).take().take<HXValue>() != HXValue(42)) state.SkipWithError("a wrong answer");
    }
  }
  state.SetItemsProcessed(state.iterations() * kInFlight);
  if (Redis::isInstalled()) state.SetLabel("control=pipelinedRedis/real_time aim=2");
}

void echoLarge(benchmark::State& state) {
  auto& peer = Echo::instance();
  const std::string sent(kLarge, 'x');
  std::string received(kLarge, ' ');
  for (auto _ : state) {
    // The echo answers while it still receives: one thread that did both in turn would fill the socket.
    std::thread sender([&] { peer.send(sent); });
    peer.receive(received);
    sender.join();
  }
}

void storeAndGetLarge(benchmark::State& state) {
  auto& memory = *Broker::instance().memory;
  const auto large = HXValue::binary(std::vector<std::byte>(kLarge));
  for (auto _ : state) {
    memory.call("insertData", "large", large);
    if (memory.call<HXValue>("getData", "large").asBinary().size() != kLarge) state.SkipWithError("a wrong answer");
  }
  state.SetLabel("control=echoLarge/real_time aim=2");
}

/// Processes that each call a method that sleeps for a millisecond.
class Sleepers {
 public:
  static constexpr std::size_t kMost = 4;

  static Sleepers& instance() {
    Broker::instance();
    static Sleepers the;
    return the;
  }

  /// Has the first `count` of them begin so many calls each.
  void begin(std::size_t count, std::uint32_t times) {
    for (std::size_t i = 0; i < count; ++i) pipes_[i]->send({reinterpret_cast<const char*>(&times), sizeof times});
  }
  void waitFor(std::size_t count) {
    std::string done(1, ' ');
    for (std::size_t i = 0; i < count; ++i) pipes_[i]->receive(done);
  }

 private:
  Sleepers() {
    for (std::size_t i = 0; i < kMost; ++i) {
      std::array<int, 2> ends{};
      if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) throw std::runtime_error("no pipe");
      pipes_.push_back(std::make_unique<bench::PlainSocket>(ends[0]));
      children_.push_back(
          std::make_unique<bench::Child>(std::vector{bench::peerProgram(), std::string("sleeper")}, ends[1]));
      ::close(ends[1]);
    }
    begin(kMost, 1);  // They are there once they have called.
    waitFor(kMost);
  }
  std::vector<std::unique_ptr<bench::PlainSocket>> pipes_;
  std::vector<std::unique_ptr<bench::Child>> children_;
};

void sleepIn(benchmark::State& state, std::size_t processes) {
  auto& sleepers = Sleepers::instance();
  constexpr std::uint32_t kTimes = 10;
  for (auto _ : state) {
    sleepers.begin(processes, kTimes);
    sleepers.waitFor(processes);
  }
}

void sleepInOneProcess(benchmark::State& state) { sleepIn(state, 1); }

void sleepInFourProcesses(benchmark::State& state) {
  sleepIn(state, Sleepers::kMost);
  state.SetLabel("control=sleepInOneProcess/real_time aim=1.3");
}

/// Not one behind the other: the processors sleep in between, as they do while another process's calls sleep.
void rest() { std::this_thread::sleep_for(std::chrono::microseconds(300)); }

void getOnIdleProgram(benchmark::State& state) {
  auto& memory = *Broker::instance().memory;
  memory.call("insertData", "key", 42);
  Latencies latencies;
  for (auto _ : state) {
    rest();
    latencies.measure([&] { memory.call<HXValue>("getData", "key"); });
    state.SetIterationTime(latencies.last());
  }
  latencies.report(state);
}

void getBesideSleepers(benchmark::State& state) {
  auto& sleepers = Sleepers::instance();
  // A read and the rest before it take less than half of a call's time.
  const auto times = static_cast<std::uint32_t>(state.max_iterations / 2 + 10);
  sleepers.begin(1, times);
  getOnIdleProgram(state);
  sleepers.waitFor(1);
  state.SetLabel("control=getOnIdleProgram/manual_time aim=2");
}

BENCHMARK(echo)->UseRealTime();
BENCHMARK(sleepInOneProcess)->UseRealTime();
BENCHMARK(sleepInFourProcesses)->UseRealTime();
BENCHMARK(getOnIdleProgram)->UseManualTime();
BENCHMARK(getBesideSleepers)->UseManualTime();
BENCHMARK(getFromProcess)->UseRealTime();
BENCHMARK(pipelinedGet)->UseRealTime();
BENCHMARK(echoLarge)->UseRealTime();
BENCHMARK(storeAndGetLarge)->UseRealTime();

[[maybe_unused]] const bool withRedis = [] {
  if (!Redis::isInstalled()) return false;
  benchmark::RegisterBenchmark("getFromRedis", getFromRedis)->UseRealTime();
  benchmark::RegisterBenchmark("getFromProcessBesideRedis", getFromProcessBesideRedis)->UseRealTime();
  benchmark::RegisterBenchmark("pipelinedRedis", pipelinedRedis)->UseRealTime();
  return true;
}();

}  // namespace
