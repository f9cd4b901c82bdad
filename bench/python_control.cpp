// What bench/python compares calls with: the same one in C++. For each line on its standard input, a number of calls,
// it answers with a line: the nanoseconds of one.

#include <hxcommon/hxbroker.h>
#include <hxproxies/hxmemoryproxy.h>
#include <libmw/local.h>

#include <chrono>
#include <exception>
#include <iostream>
#include <string>

#include <benchmark/benchmark.h>

namespace {

void answer(HX::HXMemoryProxy& memory) {
  using Clock = std::chrono::steady_clock;
  for (long count = 0; std::cin >> count && count > 0;) {
    const auto begin = Clock::now();
    for (long i = 0; i < count; ++i) benchmark::DoNotOptimize(memory.getData("Bench/Key"));
    const std::chrono::duration<double, std::nano> took = Clock::now() - begin;
    std::cout << took.count() / static_cast<double>(count) << std::endl;
  }
}

}  // namespace

int main() {
  try {
    const auto broker = HX::HXBroker::create("bench");
    const mw::LocalClient client(*broker->session(), {});
    answer(*broker->getSpecialisedProxy<HX::HXMemoryProxy>("HXMemory"));
    broker->shutdown();
  } catch (const std::exception& error) {
    std::cerr << "bench_python_control: " << error.what() << '\n';
    return 1;
  }
  return 0;
}
