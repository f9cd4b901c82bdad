// The journal's feed to another process, against streams of Redis and the notices of its keys, where bench/peers has
// installed it: how many changes a second, and how long one takes.

#include "redis_reader.h"
#include "shared_tally.h"
#include "transport_hosts.h"

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

namespace {

using bench::Broker;
using bench::Child;
using bench::Redis;
using bench::SharedTally;

/// No more than are retained: none is missed.
constexpr int kChanges = 50'000;
/// Requests under way.
constexpr int kDeep = 100;

/// The process that follows, in a role, and what it has received.
struct Follower {
  /// @param redis  The socket of Redis; empty for one that follows the memory.
  explicit Follower(const std::string& role, const std::string& redis = {})
      : tallyFile(bench::socketFolder() + "/tally." + role), tally(tallyFile) {
    std::vector<std::string> arguments{bench::peerProgram(), role};
    if (!redis.empty()) arguments.push_back(redis);
    arguments.push_back(tallyFile);
    child = std::make_unique<Child>(arguments);
    while (tally.received(1) == 0 && child->isRunning()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    // Nothing tells when Redis has heard of it.
    if (!redis.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(300));
  }
  const std::string tallyFile;
  SharedTally tally;
  std::unique_ptr<Child> child;
};

const std::string& redisSocket() {
  Redis::instance();
  static const std::string path = bench::socketFolder() + "/redis";
  return path;
}

struct Journal {
  Broker& broker = Broker::instance();
  bench::HXProxy writer{broker.session.service("Writer").take(), "Writer"};
  Follower follower{"follower"};

  static Journal& instance() {
    static Journal the;
    return the;
  }
  void sendMany(int count) { writer.call("write", count); }
  void sendTime() { broker.memory->call("insertData", "Time", bench::sharedNow()); }
};

/// Writes through a connection, so many requests at once, and waits for their answers.
class RedisWriter {
 public:
  void sendOne(const std::string& request) {
    socket_.send(request);
    socket_.read();
  }
  template <class Request>
  void sendMany(int count, Request&& request) {
    for (int i = 0; i < count; i += kDeep) {
      std::string all;
      for (int j = i; j < i + kDeep; ++j) all += request(j);
      socket_.send(all);
      for (int j = 0; j < kDeep; ++j) socket_.read();
    }
  }

 private:
  bench::RedisReader socket_{redisSocket()};
};

struct Stream {
  RedisWriter writer;
  Follower follower{"redis-stream", redisSocket()};

  static Stream& instance() {
    static Stream the;
    return the;
  }
  static std::string add(const std::string& key, const std::string& value) {
    return bench::redisRequest({"XADD", "changes", "MAXLEN", "~", "65536", "*", key, value});
  }
  void sendMany(int count) {
    writer.sendMany(count, [](int i) { return add(bench::streamedKey(i), std::to_string(i)); });
  }
  void sendTime() { writer.sendOne(add("Time", std::to_string(bench::sharedNow()))); }
};

struct Notices {
  Notices() { writer.sendOne(bench::redisRequest({"CONFIG", "SET", "notify-keyspace-events", "K$"})); }
  RedisWriter writer;
  Follower follower{"redis-notices", redisSocket()};

  static Notices& instance() {
    static Notices the;
    return the;
  }
  void sendMany(int count) {
    writer.sendMany(count, [](int i) {
      return bench::redisRequest({"SET", bench::streamedKey(i), std::to_string(i)});
    });
  }
};

/// A raise to one who subscribed in another process.
struct Raise {
  /// Who says that it listens by a key.
  struct Listener {
    const std::string tallyFile = bench::socketFolder() + "/tally.listener";
    SharedTally tally{tallyFile};
    Child child{{bench::peerProgram(), "listener", tallyFile, "0"}};
  };
  Raise() {
    const auto isReady = [this] {
      const auto names = broker.memory->call<HX::HXValue>("getDataList", "Ready/0");
      return names.getSize() != 0;
    };
    while (!isReady() && follower.child.isRunning()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  Broker& broker = Broker::instance();
  Listener follower;

  static Raise& instance() {
    static Raise the;
    return the;
  }
  void sendTime() { broker.memory->call("raiseEvent", "Tick", bench::sharedNow()); }
};

template <class Feed>
void streamChanges(benchmark::State& state) {
  auto& feed = Feed::instance();
  const SharedTally& tally = feed.follower.tally;
  for (auto _ : state) {
    const std::uint64_t before = tally.received();
    feed.sendMany(kChanges);
    if (!tally.waitFor(before + kChanges, 1)) state.SkipWithError("changes were lost");
  }
  state.SetItemsProcessed(state.iterations() * kChanges);
}

/// A change now and then: how long is it under way?
template <class Feed>
void streamSlowly(benchmark::State& state) {
  auto& feed = Feed::instance();
  SharedTally& tally = feed.follower.tally;
  tally.forgetLatencies();
  const std::uint64_t before = tally.received();
  auto next = std::chrono::steady_clock::now();
  for (auto _ : state) {
    next += std::chrono::milliseconds(3);
    std::this_thread::sleep_until(next);
    feed.sendTime();
  }
  if (!tally.waitFor(before + static_cast<std::uint64_t>(state.iterations()), 1)) state.SkipWithError("it was lost");
  state.counters["p50_us"] = tally.percentile(0.5);
  state.counters["p99_us"] = tally.percentile(0.99);
}

void followFromProcess(benchmark::State& state) {
  streamChanges<Journal>(state);
  if (Redis::isInstalled()) state.SetLabel("control=streamOfRedis/real_time aim=0.1");
}
/// The same, for the other comparison.
void followBesideNotices(benchmark::State& state) {
  streamChanges<Journal>(state);
  state.SetLabel("control=noticesOfRedis/real_time aim=0.2");
}
void followSlowly(benchmark::State& state) {
  streamSlowly<Journal>(state);
  if (Redis::isInstalled()) state.SetLabel("control=streamOfRedisSlowly/real_time aim=1");
}

void followSlowlyBesideRaises(benchmark::State& state) {
  streamSlowly<Journal>(state);
  state.SetLabel("control=raiseSlowly/real_time aim=2");
}
void raiseSlowly(benchmark::State& state) { streamSlowly<Raise>(state); }

BENCHMARK(followFromProcess)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(followSlowly)->UseRealTime();
BENCHMARK(followSlowlyBesideRaises)->UseRealTime();
BENCHMARK(raiseSlowly)->UseRealTime();

[[maybe_unused]] const bool withRedis = [] {
  if (!Redis::isInstalled()) return false;
  const auto add = [](const char* name, auto* run) {
    benchmark::RegisterBenchmark(name, run)->UseRealTime()->Unit(benchmark::kMillisecond);
  };
  add("streamOfRedis", &streamChanges<Stream>);
  add("noticesOfRedis", &streamChanges<Notices>);
  add("followBesideNotices", &followBesideNotices);
  benchmark::RegisterBenchmark("streamOfRedisSlowly", streamSlowly<Stream>)->UseRealTime();
  return true;
}();

}  // namespace
