// Views: what a read costs beside getData, and what a write costs that is viewed beside one that is not.

#include "memory_keys.h"
#include "views_stage.h"

#include <hxproxies/hxmemoryproxy.h>

#include <array>
#include <atomic>
#include <hxviews.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using bench::filledMemory;
using bench::keys;
using HX::HXValue;

void compareWith(benchmark::State& state, const char* control, double aim) {
  state.SetLabel(fmt::format("control={} aim={}", control, aim));
}

HX::HXMemoryProxy& proxy() {
  filledMemory();
  static const auto views = HX::HXModule::createModule<HX::HXViews>(bench::MemoryHost::instance().broker, "HXViews");
  static HX::HXMemoryProxy the(bench::MemoryHost::instance().proxy);
  return the;
}

/// All keys. Made once: it is the reading that is measured.
std::vector<HX::View<int>>& views() {
  static std::vector<HX::View<int>> all = [] {
    std::vector<HX::View<int>> made;
    for (const auto& key : keys()) {
      if (made.size() == 1000) break;  // As many as one viewer may have.
      made.push_back(proxy().view<int>(key));
    }
    return made;
  }();
  return all;
}

void getOne(benchmark::State& state) {
  auto& the = filledMemory();
  for (auto _ : state) benchmark::DoNotOptimize(the.getData(keys().front()));
}

void getMany(benchmark::State& state) {
  auto& the = filledMemory();
  std::size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(the.getData(keys()[next]));
    if (++next == 1000) next = 0;
  }
}

void readOne(benchmark::State& state) {
  auto& view = views().front();
  for (auto _ : state) benchmark::DoNotOptimize(view.read().value());
  compareWith(state, "getOne", 0.3);
}

void readMany(benchmark::State& state) {
  auto& all = views();
  std::size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(all[next].read().value());
    if (++next == all.size()) next = 0;
  }
  compareWith(state, "getMany", 0.3);
}

void read20(benchmark::State& state) {
  auto& all = views();
  for (auto _ : state) {
    for (std::size_t i = 0; i < 20; ++i) benchmark::DoNotOptimize(all[i].read().value());
  }
}

/// Of keys that nobody views: the last ones, in a table of 5,000 of which 1,000 are viewed.
void write(benchmark::State& state, std::size_t from, std::size_t count) {
  auto& the = filledMemory();
  std::size_t next = 0;
  for (auto _ : state) {
    the.insertData(keys()[from + next], 1);
    if (++next == count) next = 0;
  }
}

void writeOneUnviewed(benchmark::State& state) { write(state, 2000, 1); }
void writeManyUnviewed(benchmark::State& state) { write(state, 2000, 1000); }

void writeOneViewed(benchmark::State& state) {
  views();
  write(state, 0, 1);
  compareWith(state, "writeOneUnviewed", 1.3);
}

void writeManyViewed(benchmark::State& state) {
  views();
  write(state, 0, 1000);
  compareWith(state, "writeManyUnviewed", 1.2);
}

void writeOneReadAllTheTime(benchmark::State& state) {
  auto view = views().front();
  std::atomic<bool> isOver{false};
  const bench::OnProcessor own(0);
  std::thread reader([&] {
    const bench::OnProcessor other(1);
    while (!isOver) benchmark::DoNotOptimize(view.read().revision);
  });
  write(state, 0, 1);
  isOver = true;
  reader.join();
  compareWith(state, "writeOneUnviewed", 1.5);
}

const HXValue kPose(std::array{0.1F, 0.2F, 0.3F, 0.4F, 0.5F, 0.6F});

void writeList(benchmark::State& state) {
  auto& the = filledMemory();
  for (auto _ : state) the.insertData("Pose", kPose);
}

void writeListViewed(benchmark::State& state) {
  const auto view = proxy().view<std::array<float, 6>>("ViewedPose");
  auto& the = filledMemory();
  for (auto _ : state) the.insertData("ViewedPose", kPose);
  compareWith(state, "writeList", 1.5);
}

BENCHMARK(getOne);
BENCHMARK(readOne);
BENCHMARK(getMany);
BENCHMARK(readMany);
BENCHMARK(read20);
BENCHMARK(writeOneUnviewed);
BENCHMARK(writeOneViewed);
BENCHMARK(writeOneReadAllTheTime);
BENCHMARK(writeManyUnviewed);
BENCHMARK(writeManyViewed);
BENCHMARK(writeList);
BENCHMARK(writeListViewed);

}  // namespace
