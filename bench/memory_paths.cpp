// One write, one read, one raise: by direct member and by proxy, against the control table. Compiled once for each
// table size, since a process has one memory.

#include "control_table.h"
#include "count_allocations.h"
#include "memory_host.h"

#include <thread>

#include <benchmark/benchmark.h>

namespace {

using bench::MemoryHost;
using HX::HXValue;

constexpr std::size_t kKeys = BENCH_KEYS;

const std::vector<std::string>& keys() {
  static const auto all = bench::shuffledKeys(kKeys);
  return all;
}

HX::HXMemory& memory() {
  static HX::HXMemory& filled = [&]() -> HX::HXMemory& {
    HX::HXMemory& the = *MemoryHost::instance().memory;
    for (const auto& key : keys()) the.insertData(key, 1);
    return the;
  }();
  return filled;
}

HX::HXProxy& proxy() {
  memory();
  return *MemoryHost::instance().proxy;
}

// In a process that never had a second thread the standard library leaves out its locks. A robot's has many.
bench::ControlTable<HXValue>& control() {
  static bench::ControlTable<HXValue>& filled = [&]() -> bench::ControlTable<HXValue>& {
    std::thread([] {}).join();
    static bench::ControlTable<HXValue> the;
    for (const auto& key : keys()) the.insert(key, HXValue(1));
    return the;
  }();
  return filled;
}

/// Runs `step(key)` over all keys, each thread over its own half; `step` says whether its result was right.
template <class Step>
void run(benchmark::State& state, Step&& step) {
  const std::size_t share = kKeys / static_cast<std::size_t>(state.threads());
  const std::size_t begin = share * static_cast<std::size_t>(state.thread_index());
  std::size_t i = 0;
  bool right = step(keys()[begin]);
  const auto before = bench::allocations.load();
  for (auto _ : state) {
    right &= step(keys()[begin + i]);
    if (++i == share) i = 0;
  }
  const auto made = static_cast<double>(bench::allocations.load() - before);
  if (state.threads() == 1) state.counters["allocs"] = made / static_cast<double>(state.iterations());
  if (!right) state.SkipWithError("wrong result");
}

/// The control of the same size and number of threads.
void compare(benchmark::State& state, const std::string& with) {
  state.SetLabel(fmt::format("control={}/{}/real_time/threads:{}", with, kKeys, state.threads()));
}

void controlGet(benchmark::State& state) {
  auto& table = control();
  run(state, [&](const std::string& key) { return table.get(key)->isInt(); });
}

void getDirect(benchmark::State& state) {
  auto& the = memory();
  run(state, [&](const std::string& key) { return the.getData(key).isInt(); });
  compare(state, "controlGet");
}

void getByProxy(benchmark::State& state) {
  auto& the = proxy();
  run(state, [&](const std::string& key) { return the.call<HXValue>("getData", key).isInt(); });
  compare(state, "getDirect");
}

void controlInsert(benchmark::State& state) {
  auto& table = control();
  run(state, [&](const std::string& key) { return table.insert(key, HXValue(1)), true; });
}

void insertDirect(benchmark::State& state) {
  auto& the = memory();
  run(state, [&](const std::string& key) { return the.insertData(key, 1), true; });
  compare(state, "controlInsert");
}

void insertByProxy(benchmark::State& state) {
  auto& the = proxy();
  run(state, [&](const std::string& key) { return the.call("insertData", key, 1), true; });
  compare(state, "insertDirect");
}

void controlRaise(benchmark::State& state) {
  auto& table = control();
  const HXValue value(1);
  run(state, [&](const std::string& key) { return table.raise(key, value), true; });
}

// Raising turns the keys into events, each with a history: an own table of names, so that the others stay data.
void raiseDirect(benchmark::State& state) {
  auto& the = memory();
  const HXValue value(1);
  static const bool raisedOnce = [&] {
    for (const auto& key : keys()) the.raiseEvent(key + "/Event", value);
    return true;
  }();
  static const std::vector<std::string> events = [] {
    auto names = keys();
    for (auto& name : names) name += "/Event";
    return names;
  }();
  std::size_t i = 0;
  run(state, [&](const std::string&) {
    the.raiseEvent(events[i], value);
    if (++i == kKeys) i = 0;
    return raisedOnce;
  });
  compare(state, "controlRaise");
}

#define MEMORY_BENCHMARK(name) BENCHMARK(name)->Arg(kKeys)->UseRealTime()->Threads(1)->Threads(2)
MEMORY_BENCHMARK(controlGet);
MEMORY_BENCHMARK(getDirect);
MEMORY_BENCHMARK(getByProxy);
MEMORY_BENCHMARK(controlInsert);
MEMORY_BENCHMARK(insertDirect);
MEMORY_BENCHMARK(insertByProxy);
MEMORY_BENCHMARK(controlRaise);
MEMORY_BENCHMARK(raiseDirect);

}  // namespace
