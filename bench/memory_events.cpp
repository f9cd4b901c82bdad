// Delivery: one raise to many subscribers, and a raise that makes its subscriber raise the next event.

#include "count_allocations.h"
#include "memory_host.h"

#include <thread>

#include <benchmark/benchmark.h>
#include <boost/signals2.hpp>

namespace {

using bench::MemoryHost;
using HX::HXValue;

class Listener : public HX::HXModule {
 public:
  Listener(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
    functionName("hear", getName(), "Counts what it is told.");
    bindMethod(this, &Listener::hear);
    functionName("passOn", getName(), "Raises the next event of the chain.");
    bindMethod(this, &Listener::passOn);
  }

  void hear(const std::string&, const HXValue&, const std::string&) { ++heard; }
  void passOn(const std::string&, const HXValue& value, const std::string& next) {
    MemoryHost::instance().memory->raiseEvent(next, value);
  }

  std::uint64_t heard = 0;
};

/// Listeners live as long as the program: resolving them is not what is measured.
Listener& listener(const std::string& name) {
  static std::map<std::string, std::shared_ptr<Listener>> all;
  auto& found = all[name];
  if (!found) found = HX::HXModule::createModule<Listener>(MemoryHost::instance().broker, name);
  return *found;
}

void measure(benchmark::State& state, const std::string& event, std::uint64_t deliveries, std::uint64_t& heard) {
  auto& memory = *MemoryHost::instance().memory;
  const HXValue value(1);
  for (int i = 0; i < 60; ++i) memory.raiseEvent(event, value);  // Resolves the subscribers and fills the history.
  const std::uint64_t heardBefore = heard;
  const auto before = bench::allocations.load();
  for (auto _ : state) memory.raiseEvent(event, value);
  const auto made = static_cast<double>(bench::allocations.load() - before);
  const auto raises = static_cast<std::uint64_t>(state.iterations());
  state.counters["allocs"] = made / static_cast<double>(raises);
  state.counters["per_delivery"] = benchmark::Counter(static_cast<double>(raises * deliveries),
                                                      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  if (heard != heardBefore + raises) state.SkipWithError("not every raise arrived");
}

void raiseToSubscribers(benchmark::State& state) {
  auto& memory = *MemoryHost::instance().memory;
  const auto count = state.range(0);
  const std::string event = fmt::format("Bench/Fan{}", count);
  for (int i = 0; i < count; ++i) {
    const std::string name = fmt::format("Listener{:04}", i);
    listener(name);
    memory.subscribeToEvent(event, name, "hear");
  }
  measure(state, event, static_cast<std::uint64_t>(count), listener("Listener0000").heard);
  // With a thousand the records no longer fit the first cache, which theirs just do.
  state.SetLabel(fmt::format("control=controlSignals2/{}{}", count, count < 1000 ? " aim=3" : ""));
}

void controlSignals2(benchmark::State& state) {
  std::thread([] {}).join();  // A process that has always been alone is not charged for its locks.
  boost::signals2::signal<void(const std::string&, const HXValue&, const std::string&)> signal;
  std::uint64_t heard = 0;
  for (int i = 0; i < state.range(0); ++i) {
    signal.connect([&heard](const std::string&, const HXValue&, const std::string&) { ++heard; });
  }
  const std::string event = "Bench/Fan";
  const std::string message;
  const HXValue value(1);
  for (auto _ : state) signal(event, value, message);
  if (heard != static_cast<std::uint64_t>(state.iterations() * state.range(0)))
    state.SkipWithError("nothing was delivered");
}

// Each of four events makes its subscriber raise the next; the last one is heard.
void raiseFourDeep(benchmark::State& state) {
  auto& memory = *MemoryHost::instance().memory;
  for (int depth = 0; depth < 4; ++depth) {
    const std::string name = fmt::format("Link{}", depth);
    listener(name);
    memory.subscribeToEvent(fmt::format("Bench/Chain{}", depth), name, fmt::format("Bench/Chain{}", depth + 1),
                            depth < 3 ? "passOn" : "hear");
  }
  measure(state, "Bench/Chain0", 4, listener("Link3").heard);
  state.SetLabel("control=raiseToSubscribers/1");
}

BENCHMARK(controlSignals2)->Arg(1)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK(raiseToSubscribers)->Arg(1)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK(raiseFourDeep);

}  // namespace
