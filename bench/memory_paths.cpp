// One write, one read: by direct member and by proxy, against the control table. Compiled once for each table size,
// since a process has one memory.

#include "control_table.h"
#include "memory_keys.h"

#include <memory>
#include <thread>

namespace {

using bench::compareWith;
using bench::filledMemory;
using bench::keys;
using bench::runOverKeys;
using HX::HXValue;
using Control = bench::ControlTable<HXValue>;

HX::HXProxy& proxy() {
  filledMemory();
  return *bench::MemoryHost::instance().proxy;
}

std::unique_ptr<Control> filledControl() {
  // In a process that never had a second thread the standard library leaves out its locks. A robot's has many.
  std::thread([] {}).join();
  auto table = std::make_unique<Control>();
  for (const auto& key : keys()) table->insert(key, HXValue(1));
  return table;
}

Control& control() {
  static const auto filled = filledControl();
  return *filled;
}

void controlGet(benchmark::State& state) {
  auto& table = control();
  runOverKeys(state, keys(), [&](const std::string& key) { return table.get(key)->isInt(); });
}

void getDirect(benchmark::State& state) {
  auto& the = filledMemory();
  runOverKeys(state, keys(), [&](const std::string& key) { return the.getData(key).isInt(); });
  compareWith(state, "getDirect", "controlGet", 0.7);
}

void getByProxy(benchmark::State& state) {
  auto& the = proxy();
  runOverKeys(state, keys(), [&](const std::string& key) { return the.call<HXValue>("getData", key).isInt(); });
  compareWith(state, "getByProxy", "getDirect", 3);
}

void controlInsert(benchmark::State& state) {
  auto& table = control();
  runOverKeys(state, keys(), [&](const std::string& key) { return table.insert(key, HXValue(1)), true; });
}

void insertDirect(benchmark::State& state) {
  auto& the = filledMemory();
  runOverKeys(state, keys(), [&](const std::string& key) { return the.insertData(key, 1), true; });
  compareWith(state, "insertDirect", "controlInsert", 1);
}

void insertByProxy(benchmark::State& state) {
  auto& the = proxy();
  runOverKeys(state, keys(), [&](const std::string& key) { return the.call("insertData", key, 1), true; });
  compareWith(state, "insertByProxy", "insertDirect", 3);
}

MEMORY_BENCHMARK(controlGet);
MEMORY_BENCHMARK(getDirect);
MEMORY_BENCHMARK(getByProxy);
MEMORY_BENCHMARK(controlInsert);
MEMORY_BENCHMARK(insertDirect);
MEMORY_BENCHMARK(insertByProxy);

// How well two threads get on in one memory: as two threads would that have a table each, if they share nothing.

constexpr double kScaling = 1 / 0.85;

void privateGet(benchmark::State& state) {
  static const auto first = filledControl();
  static const auto second = filledControl();
  const auto& table = state.thread_index() == 0 ? *first : *second;
  runOverKeys(state, keys(), [&](const std::string& key) { return table.get(key)->isInt(); });
}

void getOtherKeys(benchmark::State& state) {
  auto& the = filledMemory();
  runOverKeys(state, keys(), [&](const std::string& key) { return the.getData(key).isInt(); });
  std::string label = fmt::format("control={}", bench::nameOf("privateGet", state.threads()));
  if (state.threads() > 1) label += fmt::format(" relative={} aim={:.2f}", bench::nameOf("getOtherKeys", 1), kScaling);
  state.SetLabel(label);
}

MEMORY_BENCHMARK(privateGet);
MEMORY_BENCHMARK(getOtherKeys);

}  // namespace
