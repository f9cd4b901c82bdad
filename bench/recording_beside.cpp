// What recording and the black box cost beside the writer whose changes they keep.

#include "memory_host.h"

#include <hxcommon/feed.h>

#include <blackbox.h>
#include <ctime>
#include <filesystem>
#include <memory>
#include <recorder.h>
#include <thread>
#include <unistd.h>

#include <benchmark/benchmark.h>

namespace {

using bench::MemoryHost;
using namespace HX::recording;

constexpr std::size_t kKeys = 100;

const std::vector<std::string>& keys() {
  static const auto all = bench::shuffledKeys(kKeys);
  return all;
}

Feed feed() {
  return {[](auto filter, auto onChange, auto options) {
            return HX::follow(MemoryHost::instance().broker, std::move(filter), std::move(onChange),
                              std::move(options));
          },
          [] { return HX::retainedChanges(MemoryHost::instance().broker).latest; }};
}

class Folder {
 public:
  Folder() { std::filesystem::create_directories(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() { std::filesystem::remove_all(path_); }
  const std::filesystem::path& path() const { return path_; }

 private:
  const std::filesystem::path path_ =
      std::filesystem::temp_directory_path() / ("bench-recording-" + std::to_string(::getpid()));
};

double processorSeconds(clockid_t clock) {
  timespec time{};
  ::clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

void writeOnce(std::uint64_t i) {
  static const auto& memory = MemoryHost::instance().memory;
  const std::size_t number = i % kKeys;
  const std::string& key = keys()[number];
  if (number % 3 == 0) memory->insertData(key, static_cast<int>(i / kKeys));
  if (number % 3 == 1) memory->insertData(key, static_cast<float>(i * 2'654'435'761U % 1'000'000) * 1e-6F);
  if (number % 3 == 2) memory->insertData(key, i % 17 == 0);
}

/// A second of 200 thousand changes. Beside its own time the benchmark tells what part of a processor the threads of
/// the recorder take, and what was missed.
void record200ThousandASecond(benchmark::State& state) {
  constexpr int kSlices = 1000;
  constexpr std::uint64_t kInSlice = 200;
  const Folder folder;
  RecorderOptions options;
  options.file = folder.path() / "a.mcap";
  options.minFree = 0;
  Recorder recorder(std::move(options), feed());
  while (!recorder.state().hasBegun) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  const double before = processorSeconds(CLOCK_PROCESS_CPUTIME_ID) - processorSeconds(CLOCK_THREAD_CPUTIME_ID);
  const auto begin = std::chrono::steady_clock::now();
  auto next = begin;
  std::uint64_t count = 0;
  for (auto _ : state) {
    for (int slice = 0; slice < kSlices; ++slice) {
      for (std::uint64_t i = 0; i < kInSlice; ++i) writeOnce(count++);
      next += std::chrono::milliseconds(1);
      std::this_thread::sleep_until(next);
    }
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  recorder.stop();
  const double spent = processorSeconds(CLOCK_PROCESS_CPUTIME_ID) - processorSeconds(CLOCK_THREAD_CPUTIME_ID) - before;
  const RecorderState end = recorder.state();
  if (end.gaps > 0 || end.missed > 0) state.SkipWithError("changes were missed");
  state.counters["per_second"] = static_cast<double>(count) / took.count();
  state.counters["processor_percent"] = 100 * spent / took.count();
  state.counters["bytes"] = static_cast<double>(end.bytes) / static_cast<double>(count);
}
BENCHMARK(record200ThousandASecond)->Iterations(3)->UseRealTime()->Unit(benchmark::kSecond);

/// A million changes a second, in bursts, between which those who follow come to read. At full speed they would be left
/// behind, be told states instead, and cost less the less they do.
/// The time of an iteration is the processor time of one write.
void write(benchmark::State& state) {
  constexpr int kInBurst = 1000;
  auto next = std::chrono::steady_clock::now();
  std::uint64_t count = 0;
  for (auto _ : state) {
    const double before = processorSeconds(CLOCK_THREAD_CPUTIME_ID);
    for (int i = 0; i < kInBurst; ++i) writeOnce(count++);
    state.SetIterationTime((processorSeconds(CLOCK_THREAD_CPUTIME_ID) - before) / kInBurst);
    next += std::chrono::milliseconds(1);
    std::this_thread::sleep_until(next);
  }
  for (const auto& follower : MemoryHost::instance().memory->sharedJournal()->followers()) {
    if (follower.gaps > 0) state.SkipWithError("changes were missed");
  }
}

void writeBesideFollower(benchmark::State& state) {
  std::uint64_t told = 0;  // On the follower's thread.
  HX::journal::FollowOptions options;
  options.promptness = HX::journal::Promptness::Relaxed;
  const auto follow = feed().follow(
      HX::journal::Filter(), [&](const HX::journal::Change&) { ++told; }, std::move(options));
  write(state);
}

void writeBesideBlackBox(benchmark::State& state) {
  const Folder folder;
  BlackBoxOptions options;
  options.folder = folder.path();
  options.before = std::chrono::seconds(30);
  BlackBox box(std::move(options), feed());
  write(state);
  state.counters["mebibytes"] = static_cast<double>(box.state().bytes >> 20U);
  state.SetLabel("control=writeBesideFollower/iterations:1000/manual_time aim=1.05");
}
BENCHMARK(writeBesideFollower)->Iterations(1000)->UseManualTime();
BENCHMARK(writeBesideBlackBox)->Iterations(1000)->UseManualTime();

}  // namespace
