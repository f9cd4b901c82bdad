// What a copy of a value costs by the size of its content: the lines of one benchmark should not differ.

#include <hxvalue/hxvalue.h>

#include <benchmark/benchmark.h>

namespace {

using HX::HXValue;

HXValue binaryOf(const benchmark::State& state) {
  return HXValue::Binary(static_cast<std::size_t>(state.range(0)), std::byte{1});
}

void copyBinary(benchmark::State& state) {
  const HXValue original = binaryOf(state);
  for (auto _ : state) {
    HXValue copy(original);
    benchmark::DoNotOptimize(copy);
  }
  if (HXValue(original) != binaryOf(state)) state.SkipWithError("the copy differs");
  if (state.range(0) > 4) state.SetLabel("control=copyBinary/4 aim=1.1");
}
BENCHMARK(copyBinary)->Arg(4)->Arg(4 << 10)->Arg(4 << 20);

// The owner count is what threads that copy one content have in common.
void copySharedBinary(benchmark::State& state) {
  static const HXValue original = HXValue::Binary(4 << 20);
  for (auto _ : state) {
    HXValue copy(original);
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(copySharedBinary)->Threads(1)->Threads(2);

void copyInt(benchmark::State& state) {
  const HXValue original(1);
  for (auto _ : state) {
    HXValue copy(original);
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(copyInt);

// The other side of sharing: the first change of a copy pays for the whole content.
void changeSharedBinary(benchmark::State& state) {
  const HXValue original = binaryOf(state);
  for (auto _ : state) {
    HXValue copy(original);
    benchmark::DoNotOptimize(copy.editBinary().front() = std::byte{2});
  }
}
BENCHMARK(changeSharedBinary)->Arg(4)->Arg(4 << 10)->Arg(4 << 20);

}  // namespace
