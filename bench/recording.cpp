// What a recorded change costs, in time and in bytes, and how long a moment of a recording takes to find.

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <recording/encoder.h>
#include <recording/filewriter.h>
#include <recording/table.h>
#include <string>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

using namespace HX::recording;
using HX::HXValue;
using HX::journal::Change;

constexpr std::size_t kKeys = 100;
constexpr std::uint64_t kChunk = std::uint64_t{1} << 20U;

/// Counters, noisy numbers and switches, as robots have them, five microseconds apart.
class Robot {
 public:
  Robot() {
    for (std::size_t i = 0; i < kKeys; ++i)
      names_.push_back("Robot/Part" + std::to_string(i / 10) + "/Value" + std::to_string(i));
  }
  Change next() {
    const std::size_t key = count_ % kKeys;
    Change change;
    change.key = names_[key];
    change.at = {1, ++count_};
    change.kind = kData;
    change.time = TimePoint(std::chrono::nanoseconds(std::int64_t{1'700'000'000'000'000'000} +
                                                     std::int64_t{5'000} * static_cast<std::int64_t>(count_)));
    const double phase = static_cast<double>(count_) * 1e-4;
    state_ = state_ * 6364136223846793005U + 1442695040888963407U;
    const double noise = static_cast<double>(state_ >> 40U) * 1e-9;
    if (key % 3 == 0) change.value = static_cast<int>(count_ / kKeys);
    if (key % 3 == 1) change.value = static_cast<float>(std::sin(phase) + noise);
    if (key % 3 == 2) change.value = (state_ >> 60U) == 0;
    return change;
  }

 private:
  std::vector<std::string> names_;
  std::uint64_t count_ = 0;
  std::uint64_t state_ = 1;
};

class File {
 public:
  explicit File(bool hasIndex) {
    std::filesystem::remove(path_);
    writer.emplace(path_, TextMap{{"revision", "1"}}, hasIndex);
  }
  ~File() { std::filesystem::remove(path_); }
  void add(const Change& change) {
    encoder.add(change, change.time);
    if (encoder.chunk().records.size() >= kChunk) writer->add(seal(encoder.takeChunk(), compressor));
  }
  void finish() {
    if (!encoder.chunk().isEmpty()) writer->add(seal(encoder.takeChunk(), compressor));
    writer->finish();
  }
  const std::filesystem::path& path() const { return path_; }
  std::optional<FileWriter> writer;
  Encoder encoder;
  Compressor compressor{Compression::Zstd};

 private:
  const std::filesystem::path path_ =
      std::filesystem::temp_directory_path() / ("bench-" + std::to_string(::getpid()) + ".mcap");
};

void recordChange(benchmark::State& state) {
  File file(state.range(0) != 0);
  Robot robot;
  std::uint64_t count = 0;
  for (auto _ : state) {
    file.add(robot.next());
    ++count;
  }
  file.finish();
  state.counters["bytes"] = static_cast<double>(file.writer->size()) / static_cast<double>(count);
}
BENCHMARK(recordChange)->ArgName("index")->Arg(1)->Arg(0);

/// What of it is the making of the changes.
void makeChange(benchmark::State& state) {
  Robot robot;
  for (auto _ : state) {
    Change change = robot.next();
    benchmark::DoNotOptimize(change);
  }
}
BENCHMARK(makeChange);

std::size_t changes() {
  const char* const wanted = std::getenv("BENCH_CHANGES");
  return wanted ? std::strtoull(wanted, nullptr, 10) : 200'000;
}

/// A moment near the end of a recording. With `quiet` there is a key for each ten thousand changes that was written
/// once.
void findMoment(benchmark::State& state) {
  const bool hasQuiet = state.range(0) != 0;
  File file(true);
  Robot robot;
  Change last;
  for (std::size_t i = 0; i < changes(); ++i) {
    last = robot.next();
    if (hasQuiet && i % 10'000 == 0) {
      const std::string quiet = "Quiet" + std::to_string(i);
      Change change = last;
      change.key = quiet;
      file.add(change);
    }
    file.add(last);
  }
  file.finish();
  for (auto _ : state) {
    Reader reader(file.path());
    const Table table = tableAt(reader, last.time, {});
    if (table.size() < kKeys) state.SkipWithError("keys are missing");
  }
}
BENCHMARK(findMoment)->ArgName("quiet")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace
