// What it costs to keep keys, and how soon they are back.

#include "memory_host.h"

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <hxkeeper.h>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

namespace {

using bench::MemoryHost;
using HX::HXKeeper;
using HX::HXValue;

/// A folder of this program's own, on the disk that temporary files lie on.
class Folder {
 public:
  Folder() {
    std::string pattern = std::filesystem::temp_directory_path() / "korvo-bench-XXXXXX";
    if (!mkdtemp(pattern.data())) throw std::runtime_error("no folder " + pattern);
    path = pattern;
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() { std::filesystem::remove_all(path); }

  std::filesystem::path path;
};

std::shared_ptr<HXKeeper> keep(const Folder& folder, const std::string& prefix) {
  auto& broker = MemoryHost::instance().broker;
  broker->provideSettings(
      "HXKeeper",
      HX::GivenSettings::of(HXValue::map({{"keep", HXValue(std::vector{prefix})}, {"folder", folder.path.string()}})));
  return HX::HXModule::createModule<HXKeeper>(broker, "HXKeeper");
}

/// So many kept keys, from the construction of the keeper until they are in the memory.
void bringBack(benchmark::State& state) {
  const Folder folder;
  {
    HX::keeper::Store store(folder.path);
    HX::keeper::Store::Changes changes;
    for (std::int64_t i = 0; i < state.range(0); ++i) {
      changes.emplace_back(fmt::format("Back/Group{}/Key{}", i % 100, i), HX::keeper::Row{i, "what it is", {}});
    }
    store.commit(changes);
  }
  for (auto _ : state) {
    const auto keeper = keep(folder, "Back/");
    state.PauseTiming();
    keeper->exit();
    auto& memory = *MemoryHost::instance().memory;
    const auto names = memory.getDataList("Back/");
    if (static_cast<std::int64_t>(names.size()) != state.range(0)) state.SkipWithError("keys are missing");
    for (const auto& name : names) memory.removeData(name);
    state.ResumeTiming();
  }
}
BENCHMARK(bringBack)->ArgName("keys")->Arg(100'000)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(1);

/// What all other threads have taken.
double processorSecondsOfOthers() {
  timespec own{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &own);
  return static_cast<double>(std::clock()) / CLOCKS_PER_SEC - static_cast<double>(own.tv_sec) -
         static_cast<double>(own.tv_nsec) / 1e9;
}

/// The share of a processor that it takes to keep 20 thousand changes a second of 1,000 keys, beside writing them.
void keepUp(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  constexpr int kBurst = 200;
  constexpr auto kPeriod = std::chrono::milliseconds(10);
  const Folder folder;
  const auto keeper = keep(folder, "Kept/");
  auto& memory = *MemoryHost::instance().memory;
  std::vector<std::string> names;
  for (int i = 0; i < 1000; ++i) names.push_back(fmt::format("Kept/Key{}", i));
  const double before = processorSecondsOfOthers();
  const auto begin = Clock::now();
  std::size_t written = 0;
  for (auto _ : state) {
    for (int burst = 0; burst < 100; ++burst) {
      for (int i = 0; i < kBurst; ++i, ++written) {
        memory.insertData(names[written % names.size()], HXValue(static_cast<double>(written)));
      }
      std::this_thread::sleep_until(begin + kPeriod * static_cast<std::int64_t>(written / kBurst));
    }
  }
  const std::chrono::duration<double> took = Clock::now() - begin;
  state.counters["processor"] = (processorSecondsOfOthers() - before) / took.count();
  state.counters["changes"] = static_cast<double>(written) / took.count();
  keeper->flush();
  keeper->exit();
}
BENCHMARK(keepUp)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
