// Questions about many keys, and what they cost a writer meanwhile.

#include "memory_host.h"

#include <atomic>
#include <chrono>
#include <thread>

#include <benchmark/benchmark.h>

namespace {

using bench::MemoryHost;
using HX::HXValue;

/// The memory with at least `count` keys of the shuffled names.
HX::HXMemory& memoryWith(std::size_t count) {
  static std::size_t filled = 0;
  auto& memory = *MemoryHost::instance().memory;
  if (filled < count) {
    for (const auto& key : bench::shuffledKeys(count)) memory.insertData(key, 1);
    filled = count;
  }
  return memory;
}

HXValue keyList(std::size_t count) {
  HXValue list;
  for (const auto& key : bench::shuffledKeys(count)) list.arrayPush(key);
  return list;
}

void getManyOneByOne(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  auto& memory = memoryWith(count);
  const auto keys = bench::shuffledKeys(count);
  for (auto _ : state) {
    for (const auto& key : keys) benchmark::DoNotOptimize(memory.getData(key));
  }
}

void getListData(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  auto& memory = memoryWith(count);
  const HXValue keys = keyList(count);
  for (auto _ : state) {
    const HXValue values = memory.getListData(keys);
    if (values.getSize() != count || !values[count - 1].isInt()) state.SkipWithError("wrong values");
  }
  state.SetLabel(fmt::format("control=getManyOneByOne/{}", count));
}

/// Lists with a filter while another thread writes existing keys; tells the longest that a write had to wait.
void listWhileWriting(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  auto& memory = memoryWith(count);
  std::atomic<bool> done{false};
  std::chrono::nanoseconds longest{0};
  std::thread writer([&] {
    const auto keys = bench::shuffledKeys(1000);
    for (std::size_t i = 0; !done; i = (i + 1) % keys.size()) {
      const auto begin = std::chrono::steady_clock::now();
      memory.insertData(keys[i], 1);
      longest = std::max<std::chrono::nanoseconds>(longest, std::chrono::steady_clock::now() - begin);
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  });
  for (auto _ : state) {
    if (memory.getDataList("000017/").empty()) state.SkipWithError("nothing found");
  }
  done = true;
  writer.join();
  state.counters["writer_waits_ms"] = std::chrono::duration<double, std::milli>(longest).count();
}

void readByMember(benchmark::State& state) {
  auto& memory = memoryWith(5000);
  memory.insertData("Bench/Counter", 7);
  const std::string key = "Bench/Counter";
  int sum = 0;
  for (auto _ : state) benchmark::DoNotOptimize(sum += memory.getData(key).asInt());
  if (sum == 0) state.SkipWithError("wrong value");
}

void readByAddress(benchmark::State& state) {
  auto& memory = memoryWith(5000);
  memory.insertData("Bench/Counter", 7);
  std::atomic_ref<int> counter(*memory.getIntPtr("Bench/Counter"));
  int sum = 0;
  for (auto _ : state) benchmark::DoNotOptimize(sum += counter.load(std::memory_order_relaxed));
  if (sum == 0) state.SkipWithError("wrong value");
  state.SetLabel("control=readByMember");
}

BENCHMARK(getManyOneByOne)->Arg(100)->Arg(5'000);
BENCHMARK(getListData)->Arg(100)->Arg(5'000);
BENCHMARK(readByMember);
BENCHMARK(readByAddress);
BENCHMARK(listWhileWriting)->Arg(1'000'000)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace
