// What followers cost who writes, and how fast they are told.

#include "memory_host.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

namespace {

using HX::journal::Change;
using HX::journal::Filter;
using HX::journal::Follow;
using HX::journal::FollowOptions;
using HX::journal::Position;

/// Recording ends with the last follower, so that there is somebody to compare with who is not recorded.
HX::HXMemory& theMemory() {
  static const struct Host {
    Host() {
      mw::log::setLevel(mw::LogLevel::Error);
      HX::HXMemory::JournalSettings settings;
      settings.options.linger = {};
      memory = HX::HXModule::createModule<HX::HXMemory>(broker, "HXMemory", settings);
    }
    ~Host() {
      memory.reset();
      broker->shutdown();
    }
    std::shared_ptr<HX::HXBroker> broker = HX::HXBroker::create("bench");
    std::shared_ptr<HX::HXMemory> memory;
  } host;
  return *host.memory;
}

const std::vector<std::string>& keys() {
  static const auto all = bench::shuffledKeys(100);
  return all;
}

FollowOptions withoutSnapshot() {
  FollowOptions options;
  options.snapshot = false;
  return options;
}

std::vector<Follow> follow(std::int64_t count, std::atomic<std::uint64_t>& told) {
  std::vector<Follow> all;
  for (std::int64_t i = 0; i < count; ++i) {
    all.push_back(theMemory().journal().follow(
        Filter(), [&told](const Change&) { told.fetch_add(1, std::memory_order_relaxed); }, withoutSnapshot()));
  }
  return all;
}

void write(benchmark::State& state) {
  auto& memory = theMemory();
  int i = 0;
  for (auto _ : state) {
    memory.insertData(keys()[static_cast<std::size_t>(i) % keys().size()], i);
    ++i;
  }
}

/// The writer's own processor time, beside so many followers of everything.
void insert(benchmark::State& state) {
  std::atomic<std::uint64_t> told{0};
  const auto followers = follow(state.range(0), told);
  write(state);
  if (state.range(0) == 1) state.SetLabel("control=insert/followers:0 aim=1.5");
  if (state.range(0) == 10) state.SetLabel("control=insert/followers:1 aim=1.2");
}
BENCHMARK(insert)->ArgName("followers")->Arg(0)->Arg(1)->Arg(10);

/// Recorded, though nobody reads it.
void insertWhileNobodyReads(benchmark::State& state) {
  theMemory().journal().keep(true);
  write(state);
  theMemory().journal().keep(false);
}
BENCHMARK(insertWhileNobodyReads);

/// With one that is stopped, for which nothing is kept.
void insertBesideOneThatIsStopped(benchmark::State& state) {
  std::atomic<std::uint64_t> told{0};
  auto followers = follow(1, told);
  followers.front().pause();
  write(state);
  state.SetLabel("control=insertWhileNobodyReads aim=1.05");
}
BENCHMARK(insertBesideOneThatIsStopped);

/// The memory that the process has touched, in KiB.
double residentMemory() {
  std::ifstream file("/proc/self/statm");
  double all = 0;
  double resident = 0;
  file >> all >> resident;
  return resident * static_cast<double>(::sysconf(_SC_PAGESIZE)) / 1024;
}

/// How much larger ten million changes make the process whose only follower is stopped.
void growBesideOneThatIsStopped(benchmark::State& state) {
  auto& memory = theMemory();
  std::atomic<std::uint64_t> told{0};
  auto followers = follow(1, told);
  followers.front().pause();
  const auto write = [&](int count) {
    for (int i = 0; i < count; ++i) memory.insertData(keys()[static_cast<std::size_t>(i) % keys().size()], i);
  };
  write(70'000);  // The ring is as large as it gets.
  const double before = residentMemory();
  for (auto _ : state) write(10'000'000);
  state.counters["KiB"] = residentMemory() - before;
  state.SetItemsProcessed(10'000'000);
}
BENCHMARK(growBesideOneThatIsStopped)->Unit(benchmark::kMillisecond)->Iterations(1);

/// From the first write until the last change has been told.
void tell(benchmark::State& state) {
  auto& memory = theMemory();
  std::atomic<std::uint64_t> told{0};
  const auto followers = follow(1, told);
  constexpr int kChanges = 50'000;  // No more than are retained: none is missed.
  for (auto _ : state) {
    const auto before = told.load();
    for (int i = 0; i < kChanges; ++i) memory.insertData(keys()[static_cast<std::size_t>(i) % keys().size()], i);
    while (told.load() < before + kChanges) std::this_thread::sleep_for(std::chrono::microseconds(20));
  }
  state.counters["changes"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * kChanges, benchmark::Counter::kIsRate);
}
BENCHMARK(tell)->UseRealTime()->Unit(benchmark::kMillisecond);

/// A snapshot of so many keys, beside two threads that write.
void snapshot(benchmark::State& state) {
  auto& memory = theMemory();
  const auto names = bench::shuffledKeys(static_cast<std::size_t>(state.range(0)));
  for (const auto& name : names) memory.insertData(name, 1);
  std::atomic<bool> stopping{false};
  std::vector<std::jthread> writers;
  for (std::size_t offset = 0; offset < 2; ++offset) {
    writers.emplace_back([&, offset] {
      for (std::size_t i = offset; !stopping; i += 2) memory.insertData(names[i % names.size()], static_cast<int>(i));
    });
  }
  for (auto _ : state) {
    std::atomic<bool> isComplete{false};
    FollowOptions options;
    options.onComplete = [&](Position) { isComplete = true; };
    const auto follower = memory.journal().follow(
        Filter(), [](const Change&) {}, options);
    while (!isComplete) std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  stopping = true;
}
BENCHMARK(snapshot)->ArgName("keys")->Arg(1'000'000)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace
