// One raise that nobody listens to, against one write. In a program of its own: the events and their histories would
// crowd the caches of those who only read and write. Compiled once for each table size.

#include "memory_keys.h"

namespace {

using bench::filledMemory;
using bench::keys;
using bench::runOverKeys;
using HX::HXValue;

/// As many names again, all of which have been raised.
const std::vector<std::string>& events() {
  static const std::vector<std::string> raised = [] {
    auto names = keys();
    for (auto& name : names) {
      name += "/Event";
      filledMemory().raiseEvent(name, HXValue(1));
    }
    return names;
  }();
  return raised;
}

void insertBesideEvents(benchmark::State& state) {
  auto& the = filledMemory();
  events();
  runOverKeys(state, keys(), [&](const std::string& key) { return the.insertData(key, 1), true; });
}

void raiseDirect(benchmark::State& state) {
  auto& the = filledMemory();
  const HXValue value(1);
  runOverKeys(state, events(), [&](const std::string& event) { return the.raiseEvent(event, value), true; });
  if (the.getEventHistory(events().front()).getSize() < 2) state.SkipWithError("nothing was recorded");
  bench::compareWith(state, "raiseDirect", "insertBesideEvents", 2.5);
}

MEMORY_BENCHMARK(insertBesideEvents);
MEMORY_BENCHMARK(raiseDirect);

}  // namespace
