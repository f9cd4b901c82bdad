// What it costs to keep keys, beside a store that appends each change to a file, and how soon they are back.

#include "memory_host.h"
#include "socket_peer.h"

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <hxkeeper.h>
#include <limits>
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

double processorSecondsOf(pid_t process) {
  std::ifstream stat(fmt::format("/proc/{}/stat", process));
  stat.ignore(std::numeric_limits<std::streamsize>::max(), ')');  // behind the name, which may have blanks
  std::string skipped;
  for (int field = 3; field < 14; ++field) stat >> skipped;
  double user = 0;
  double system = 0;
  stat >> user >> system;
  return (user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

/// What it has given to the disk, as pages of files; 0 where files lie in memory.
double diskBytesOf(pid_t process) {
  std::ifstream io(fmt::format("/proc/{}/io", process));
  double bytes = 0;
  for (std::string name; io >> name >> bytes;) {
    if (name == "write_bytes:") return bytes;
  }
  return 0;
}

/// 20 thousand changes a second of 1,000 keys, in bursts, as a robot writes.
/// @param processorSeconds  What is counted has taken so far.
/// @param write             Stores so many values from the one with this number on.
template <class Seconds, class Write>
void keepUpWith(benchmark::State& state, pid_t process, Seconds&& processorSeconds, Write&& write) {
  using Clock = std::chrono::steady_clock;
  constexpr std::size_t kBurst = 200;
  constexpr auto kPeriod = std::chrono::milliseconds(10);
  const double before = processorSeconds();
  const double bytesBefore = diskBytesOf(process);
  const auto begin = Clock::now();
  std::size_t written = 0;
  for (auto _ : state) {
    for (int burst = 0; burst < 100; ++burst) {
      write(written, kBurst);
      written += kBurst;
      std::this_thread::sleep_until(begin + kPeriod * static_cast<std::int64_t>(written / kBurst));
    }
  }
  const std::chrono::duration<double> took = Clock::now() - begin;
  const double seconds = processorSeconds() - before;
  const auto changes = static_cast<double>(written);
  state.counters["processor"] = seconds / took.count();
  state.counters["changes"] = changes / took.count();
  state.counters["us_each"] = seconds * 1e6 / changes;
  state.counters["bytes_each"] = (diskBytesOf(process) - bytesBefore) / changes;
}

std::string keptKey(std::size_t number) { return fmt::format("Kept/Key{}", number % 1000); }

/// What it takes beside writing the memory.
void keepUp(benchmark::State& state) {
  const Folder folder;
  const auto keeper = keep(folder, "Kept/");
  auto& memory = *MemoryHost::instance().memory;
  keepUpWith(state, ::getpid(), processorSecondsOfOthers, [&](std::size_t first, std::size_t count) {
    for (std::size_t i = first; i < first + count; ++i) {
      memory.insertData(keptKey(i), HXValue(static_cast<double>(i)));
    }
  });
  keeper->flush();
  keeper->exit();
}
BENCHMARK(keepUp)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);

/// Redis, all of the process: what it takes to keep is the difference of a file that is synced each second and none.
void keepUpInRedis(benchmark::State& state, const std::string& appendOnly) {
  const Folder folder;
  const std::string path = folder.path / "redis";
  const bench::Child redis({"redis-server", "--port", "0", "--unixsocket", path, "--dir", folder.path.string(),
                            "--loglevel", "warning", "--save", "", "--appendonly", appendOnly, "--appendfsync",
                            "everysec"});
  bench::PlainSocket socket(path);
  std::string requests;
  std::string answers;
  const auto write = [&](std::size_t first, std::size_t count) {
    requests.clear();
    for (std::size_t i = first; i < first + count; ++i) {
      const std::string key = keptKey(i);
      const std::string value = fmt::format("{}", static_cast<double>(i));
      requests += fmt::format("*3\r\n$3\r\nSET\r\n${}\r\n{}\r\n${}\r\n{}\r\n", key.size(), key, value.size(), value);
    }
    socket.send(requests);
    answers.resize(count * std::string_view("+OK\r\n").size());
    socket.receive(answers);
  };
  write(0, 1000);
  keepUpWith(
      state, redis.pid(), [&] { return processorSecondsOf(redis.pid()); }, write);
}

[[maybe_unused]] const bool withRedis = [] {
  if (!std::filesystem::exists("/usr/bin/redis-server")) return false;
  for (const char* appendOnly : {"yes", "no"}) {
    benchmark::RegisterBenchmark(fmt::format("keepUpInRedis/appendonly:{}", appendOnly).c_str(),
                                 [appendOnly](benchmark::State& state) { keepUpInRedis(state, appendOnly); })
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond)
        ->Iterations(3);
  }
  return true;
}();

}  // namespace
