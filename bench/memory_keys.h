#pragma once

#include "count_allocations.h"
#include "memory_host.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

// What the programs share that are compiled once for each table size: BENCH_KEYS says how many names there are.

namespace bench {

inline constexpr std::size_t kKeys = BENCH_KEYS;

inline const std::vector<std::string>& keys() {
  static const auto all = shuffledKeys(kKeys);
  return all;
}

/// The memory, with an int under each name.
inline HX::HXMemory& filledMemory() {
  static HX::HXMemory& filled = [&]() -> HX::HXMemory& {
    HX::HXMemory& the = *MemoryHost::instance().memory;
    for (const auto& key : keys()) the.insertData(key, 1);
    return the;
  }();
  return filled;
}

/// Runs `step(name)` over all names, each thread over its own share; `step` says whether its result was right.
template <class Step>
void runOverKeys(benchmark::State& state, const std::vector<std::string>& names, Step&& step) {
  const std::size_t share = names.size() / static_cast<std::size_t>(state.threads());
  const std::size_t begin = share * static_cast<std::size_t>(state.thread_index());
  std::size_t i = 0;
  bool right = step(names[begin]);
  const auto before = allocations.load();
  for (auto _ : state) {
    right &= step(names[begin + i]);
    if (++i == share) i = 0;
  }
  const auto made = static_cast<double>(allocations.load() - before);
  if (state.threads() == 1) state.counters["allocs"] = made / static_cast<double>(state.iterations());
  if (!right) state.SkipWithError("wrong result");
}

/// The full name of a benchmark of this program, or of the one with another table size.
inline std::string nameOf(const std::string& benchmark, int threads, std::size_t size = kKeys) {
  return fmt::format("{}/{}{}/threads:{}", benchmark, size, threads > 1 ? "/real_time" : "", threads);
}

/// Names the control. The small table's ratio has an aim of its own. The large table is compared with the small one:
/// how much slower may it be, in relation to how much slower the control is?
inline void compareWith(benchmark::State& state, const std::string& self, const std::string& control, double aim) {
  constexpr std::size_t kSmall = 5000;
  constexpr double kGrowth = 1.2;
  std::string label = fmt::format("control={}", nameOf(control, state.threads()));
  if (kKeys != kSmall) {
    label += fmt::format(" relative={} aim={}", nameOf(self, state.threads(), kSmall), kGrowth);
  } else if (state.threads() == 1) {
    label += fmt::format(" aim={}", aim);
  }
  state.SetLabel(label);
}

}  // namespace bench

// One thread's time is its processor's, since others may use the machine; of two, what counts is when both are done.
#define MEMORY_BENCHMARK(name)                    \
  BENCHMARK(name)->Arg(bench::kKeys)->Threads(1); \
  BENCHMARK(name)->Arg(bench::kKeys)->UseRealTime()->Threads(2)
