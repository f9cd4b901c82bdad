// One event to ten processes that follow its signal, against a channel of Redis with as many listeners, where
// bench/peers has installed it.

#include "shared_tally.h"
#include "transport_hosts.h"

#include <libmw/batch.h>

#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

using bench::Broker;
using bench::Child;
using bench::kListeners;
using bench::Redis;
using bench::SharedTally;
using HX::HXValue;

/// How many are under way at once where speed counts.
constexpr int kBurst = 100;

/// Ten processes of a role, and what they have received.
struct Audience {
  Audience(const std::string& role, const std::string& channel)
      : tallyFile(bench::socketFolder() + "/tally." + role), tally(tallyFile) {
    for (std::size_t i = 0; i < kListeners; ++i) {
      std::vector<std::string> arguments{bench::peerProgram(), role};
      if (!channel.empty()) arguments.push_back(channel);
      arguments.push_back(tallyFile);
      arguments.push_back(std::to_string(i));
      children.push_back(std::make_unique<Child>(arguments));
    }
  }
  const std::string tallyFile;
  SharedTally tally;
  std::vector<std::unique_ptr<Child>> children;
};

struct Signals {
  Signals() {
    for (std::size_t i = 0; i < kListeners; ++i) {
      while (true) {
        try {
          Broker::instance().memory->call<HXValue>("getData", "Ready/" + std::to_string(i));
          break;
        } catch (const std::exception&) {
          std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
      }
    }
  }
  static Signals& instance() {
    Broker::instance();
    static Signals the;
    return the;
  }
  static void send() { Broker::instance().memory->call("raiseEvent", "Tick", bench::sharedNow()); }
  static void sendMany(int count) {
    const mw::Batch batch;
    std::vector<mw::Future<mw::AnyValue>> flying;
    flying.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
      flying.push_back(Broker::instance().memory->asObject()->async("raiseEvent", "Tick", bench::sharedNow()));
    }
    mw::waitForAll(flying);
  }
  Audience audience{"listener", ""};
};

struct Channel {
  Channel() {
    // Each listener is told of its own subscription; the first message that all have shows that they are there.
    Redis::instance();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  }
  static Channel& instance() {
    static Channel the;
    return the;
  }
  static void send() { sendMany(1); }
  static void sendMany(int count) {
    std::string requests;
    for (int i = 0; i < count; ++i) {
      const std::string time = std::to_string(bench::sharedNow());
      requests += "*3\r\n$7\r\nPUBLISH\r\n$4\r\nTick\r\n$15\r\n" + std::string(15 - time.size(), '0') + time + "\r\n";
    }
    Redis::instance().call(requests, static_cast<std::size_t>(count) * std::string_view(":10\r\n").size());
  }
  Audience audience{"redis-listener", bench::socketFolder() + "/redis"};
};

template <class Sender>
void sendBursts(benchmark::State& state) {
  auto& sender = Sender::instance();
  SharedTally& tally = sender.audience.tally;
  for (auto _ : state) {
    const std::uint64_t before = tally.received();
    sender.sendMany(kBurst);
    if (!tally.waitFor(before + kBurst)) state.SkipWithError("messages were lost");
  }
  state.SetItemsProcessed(state.iterations() * kBurst * static_cast<std::int64_t>(kListeners));
}

/// A message each millisecond: how long is it under way?
template <class Sender>
void sendAtRate(benchmark::State& state) {
  auto& sender = Sender::instance();
  SharedTally& tally = sender.audience.tally;
  tally.forgetLatencies();
  auto next = std::chrono::steady_clock::now();
  const std::uint64_t before = tally.received();
  for (auto _ : state) {
    next += std::chrono::milliseconds(1);
    std::this_thread::sleep_until(next);
    sender.send();
  }
  if (!tally.waitFor(before + static_cast<std::uint64_t>(state.iterations())))
    state.SkipWithError("messages were lost");
  state.counters["p50_us"] = tally.percentile(0.5);
  state.counters["p99_us"] = tally.percentile(0.99);
}

void raiseToTen(benchmark::State& state) {
  sendBursts<Signals>(state);
  if (Redis::isInstalled()) state.SetLabel("control=publishToTen/real_time aim=1");
}
void raiseAtOneKilohertz(benchmark::State& state) {
  sendAtRate<Signals>(state);
  if (Redis::isInstalled()) state.SetLabel("control=publishAtOneKilohertz/real_time aim=1");
}
void publishToTen(benchmark::State& state) { sendBursts<Channel>(state); }
void publishAtOneKilohertz(benchmark::State& state) { sendAtRate<Channel>(state); }

BENCHMARK(raiseToTen)->UseRealTime();
BENCHMARK(raiseAtOneKilohertz)->UseRealTime();

[[maybe_unused]] const bool withRedis = [] {
  if (!Redis::isInstalled()) return false;
  benchmark::RegisterBenchmark("publishToTen", publishToTen)->UseRealTime();
  benchmark::RegisterBenchmark("publishAtOneKilohertz", publishAtOneKilohertz)->UseRealTime();
  return true;
}();

}  // namespace
