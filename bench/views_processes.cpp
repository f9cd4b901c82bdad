// Views in other processes: what a read costs there, a wake-up, a stream and a large value, beside the memory's own
// process, plain copies, and Redis where bench/peers has installed it. Readers time themselves.

#include "memory_host.h"
#include "shared_tally.h"
#include "transport_hosts.h"
#include "views_stage.h"

#include <hxview/futex.h>
#include <libmw/local.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <hxviews.h>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

using bench::Answer;
using bench::kReaders;
using bench::Order;
using bench::Redis;
using HX::HXValue;
using What = bench::Order::What;

constexpr std::uint64_t kReads = 100'000;

/// The memory, with the readers around it.
class Hall {
 public:
  static Hall& instance() {
    static Hall the;
    return the;
  }

  HX::HXMemory& memory() { return *bench::MemoryHost::instance().memory; }
  void order(std::size_t reader, What what, std::uint64_t count = 0) {
    const Order order{what, count, written_ % bench::kPlaces, apart_ ? 1U : 0U};
    sockets_.at(reader)->send({reinterpret_cast<const char*>(&order), sizeof order});
  }
  Answer answer(std::size_t reader) {
    std::string bytes(sizeof(Answer), '\0');
    sockets_.at(reader)->receive(bytes);
    Answer answer;
    std::memcpy(&answer, bytes.data(), sizeof answer);
    return answer;
  }
  Answer ask(What what, std::uint64_t count = 0) {
    order(0, what, count);
    return answer(0);
  }
  /// The same of the first so many.
  std::vector<Answer> askAll(std::size_t readers, What what, std::uint64_t count = 0) {
    std::vector<Answer> answers;
    for (std::size_t i = 0; i < readers; ++i) order(i, what, count);
    for (std::size_t i = 0; i < readers; ++i) answers.push_back(answer(i));
    return answers;
  }
  /// From now on the writer and the readers stand on two processors: on one there would be nothing to fetch. @return
  /// Ends it.
  std::shared_ptr<void> standApart() {
    apart_.emplace(0);
    return {nullptr, [this](void*) { apart_.reset(); }};
  }
  /// What the readers copy by themselves, in one of several places by turns, as a view has it.
  void writePlain(const std::vector<std::byte>& bytes) {
    std::memcpy(plain_ + ++written_ % bench::kPlaces * bench::kLarge, bytes.data(), bytes.size());
  }
  HX::view::Word& word() { return *reinterpret_cast<HX::view::Word*>(plain_ + bench::kWordAt); }

 private:
  Hall() {
    bench::socketFolder();
    auto& host = bench::MemoryHost::instance();
    views_ = HX::HXModule::createModule<HX::HXViews>(host.broker, "HXViews");
    server_ = std::make_unique<mw::LocalServer>(*host.broker->session(), "bench");
    memory().insertData("Number", 1);
    for (std::size_t i = 0; i < bench::kFew; ++i) memory().insertData(bench::fewKey(i), 1);
    const std::string path = bench::socketFolder() + "/plain";
    const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (::ftruncate(file, bench::kPlain) != 0) throw std::runtime_error("cannot make " + path);
    plain_ = static_cast<std::byte*>(::mmap(nullptr, bench::kPlain, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
    ::close(file);
    const std::string program = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "bench_views_peer";
    for (std::size_t i = 0; i < kReaders; ++i) {
      std::array<int, 2> ends{};
      if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
        throw std::runtime_error("no sockets");
      children_.push_back(
          std::make_unique<bench::Child>(std::vector<std::string>{program, bench::socketFolder()}, ends[0]));
      ::close(ends[0]);
      sockets_.push_back(std::make_unique<bench::PlainSocket>(ends[1]));
    }
    askAll(kReaders, What::Read, 1);
  }

  std::shared_ptr<HX::HXViews> views_;
  std::unique_ptr<mw::LocalServer> server_;
  std::byte* plain_ = nullptr;
  std::size_t written_ = 0;
  std::optional<bench::OnProcessor> apart_;
  std::vector<std::unique_ptr<bench::Child>> children_;
  std::vector<std::unique_ptr<bench::PlainSocket>> sockets_;
};

void compareWith(benchmark::State& state, const std::string& control, double aim) {
  state.SetLabel(fmt::format("control={} aim={}", control, aim));
}

double seconds(std::int64_t nanoseconds) { return static_cast<double>(nanoseconds) * 1e-9; }

/// Takes the time of each iteration, and tells the median: on a machine with others on it a mean tells of those.
template <class Action>
void takeTimes(benchmark::State& state, Action&& action) {
  std::vector<double> times;
  for (auto _ : state) {
    times.push_back(action());
    state.SetIterationTime(times.back());
  }
  std::ranges::sort(times);
  state.counters["p50_us"] = times[times.size() / 2] * 1e6;
  state.counters["p99_us"] = times[times.size() * 99 / 100] * 1e6;
}

// --- A number --------------------------------------------------------------------------------------------------------

void getHere(benchmark::State& state) {
  auto& memory = Hall::instance().memory();
  takeTimes(state, [&] {
    const std::int64_t begin = bench::sharedNow();
    for (std::uint64_t i = 0; i < kReads; ++i) benchmark::DoNotOptimize(memory.getData("Number"));
    return seconds(bench::sharedNow() - begin) / kReads;
  });
}

void readThere(benchmark::State& state) {
  takeTimes(state, [] { return seconds(Hall::instance().ask(What::Read, kReads).nanoseconds) / kReads; });
}
void readThereToGet(benchmark::State& state) {
  readThere(state);
  compareWith(state, "getHere/iterations:20/manual_time", 0.3);
}
void readThereToRedis(benchmark::State& state) {
  readThere(state);
  compareWith(state, "getRedis/iterations:20/manual_time", 0.001);
}

void readThereWhileWritten(benchmark::State& state) {
  const auto apart = Hall::instance().standApart();
  std::atomic<bool> isOver{false};
  std::thread writer([&] {
    // A million times a second. It does not sleep, so that it is where it was.
    std::int64_t next = bench::sharedNow();
    for (int i = 0; !isOver; ++i) {
      Hall::instance().memory().insertData("Number", i);
      for (next += 1000; bench::sharedNow() < next;) continue;
    }
  });
  readThere(state);
  isOver = true;
  writer.join();
  compareWith(state, "readThereToGet/iterations:20/manual_time", 2);
}

void getRedis(benchmark::State& state) {
  constexpr int kTimes = 100;
  auto& redis = Redis::instance();
  takeTimes(state, [&] {
    const std::int64_t begin = bench::sharedNow();
    for (int i = 0; i < kTimes; ++i) redis.call("*2\r\n$3\r\nGET\r\n$3\r\nkey\r\n", std::strlen("$2\r\n42\r\n"));
    return seconds(bench::sharedNow() - begin) / kTimes;
  });
}

// --- Those of a control loop -----------------------------------------------------------------------------------------

void readFewJustWritten(benchmark::State& state) {
  auto& hall = Hall::instance();
  const auto apart = hall.standApart();
  int round = 0;
  takeTimes(state, [&] {
    ++round;
    for (std::size_t i = 0; i < bench::kFew; ++i) hall.memory().insertData(bench::fewKey(i), round);
    return seconds(hall.ask(What::ReadFew).nanoseconds);
  });
  compareWith(state, "askOnce/iterations:20/manual_time", 0.05);
}

void askOnce(benchmark::State& state) {
  constexpr std::uint64_t kTimes = 100;
  takeTimes(state, [] { return seconds(Hall::instance().ask(What::Ask, kTimes).nanoseconds) / kTimes; });
}

// --- Waking ten ------------------------------------------------------------------------------------------------------

/// @param known  What they know already, so that none waits for what has come.
/// @param send  What they wait for. @return What it took who sent it, and until the last one was awake.
template <class Send>
std::pair<double, double> wakeAll(What what, std::uint64_t known, Send&& send) {
  auto& hall = Hall::instance();
  for (std::size_t i = 0; i < kReaders; ++i) hall.order(i, what, known);
  std::this_thread::sleep_for(std::chrono::milliseconds(3));  // Until they sleep.
  const std::int64_t begin = bench::sharedNow();
  send();
  const std::int64_t end = bench::sharedNow();
  std::int64_t last = end;
  for (std::size_t i = 0; i < kReaders; ++i) last = std::max(last, hall.answer(i).nanoseconds);
  return {seconds(end - begin), seconds(last - begin)};
}

std::pair<double, double> wakeByWrite() {
  static int number = 0;
  Hall::instance().memory().insertData("Number", ++number);
  const auto known = static_cast<std::uint64_t>(number);
  return wakeAll(What::AwaitView, known, [] { Hall::instance().memory().insertData("Number", ++number); });
}

/// What the system takes for it: one call, by whoever has something to say.
std::pair<double, double> wakeByWord() {
  auto& word = Hall::instance().word();
  return wakeAll(What::AwaitWord, word, [&] {
    ++word;
    HX::view::wakeAll(word);
  });
}

void publish() { Redis::instance().call("*3\r\n$7\r\nPUBLISH\r\n$4\r\nTick\r\n$2\r\n42\r\n", std::strlen(":10\r\n")); }

std::pair<double, double> wakeByPublish() {
  static const bool isReady = [] {
    // Until all have subscribed.
    Redis::instance();
    for (std::size_t i = 0; i < kReaders; ++i) Hall::instance().order(i, What::AwaitRedis);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    publish();
    for (std::size_t i = 0; i < kReaders; ++i) Hall::instance().answer(i);
    return true;
  }();
  benchmark::DoNotOptimize(isReady);
  return wakeAll(What::AwaitRedis, 0, publish);
}

void writeToTen(benchmark::State& state) {
  takeTimes(state, [] { return wakeByWrite().first; });
  if (Redis::isInstalled()) compareWith(state, "publishToTen/iterations:100/manual_time", 0.1);
}
void writeUntilTenAreAwake(benchmark::State& state) {
  takeTimes(state, [] { return wakeByWrite().second; });
  if (Redis::isInstalled()) compareWith(state, "publishUntilTenAreAwake/iterations:100/manual_time", 0.4);
}
void wakeUntilTenAreAwake(benchmark::State& state) {
  takeTimes(state, [] { return wakeByWord().second; });
}
void publishToTen(benchmark::State& state) {
  takeTimes(state, [] { return wakeByPublish().first; });
}
void publishUntilTenAreAwake(benchmark::State& state) {
  takeTimes(state, [] { return wakeByPublish().second; });
}

// --- Every value to ten ----------------------------------------------------------------------------------------------

/// Its time is that of one delivery. @param pause  After each hundred values.
void streamToTen(benchmark::State& state, std::chrono::nanoseconds pause) {
  constexpr int kValues = 100'000;
  auto& hall = Hall::instance();
  const HXValue value = HXValue::binary(std::vector<std::byte>(bench::kStreamed));
  const HXValue last = HXValue::binary({});
  std::uint64_t read = 0;
  std::uint64_t lost = 0;
  hall.memory().insertData("Stream", last);
  hall.askAll(kReaders, What::Stream);  // Opens them, and reads all that is there.
  for (auto _ : state) {
    for (std::size_t i = 0; i < kReaders; ++i) hall.order(i, What::Stream);
    const std::int64_t begin = bench::sharedNow();
    for (int i = 0; i < kValues; ++i) {
      hall.memory().insertData("Stream", value);
      if (i % 100 == 99 && pause.count() > 0) std::this_thread::sleep_for(pause);
    }
    hall.memory().insertData("Stream", last);
    std::uint64_t now = 0;
    for (std::size_t i = 0; i < kReaders; ++i) {
      const Answer answer = hall.answer(i);
      now += answer.read;
      lost += answer.lost;
      if (answer.read + answer.lost != kValues) state.SkipWithError("losses are counted wrong");
    }
    read += now;
    state.SetIterationTime(seconds(bench::sharedNow() - begin) / static_cast<double>(now));
  }
  state.counters["lost_percent"] = 100.0 * static_cast<double>(lost) / static_cast<double>(read + lost);
}
void streamToTenAsFastAsItGoes(benchmark::State& state) { streamToTen(state, std::chrono::nanoseconds(0)); }
void streamToTenAtAPace(benchmark::State& state) { streamToTen(state, std::chrono::microseconds(20)); }

// --- Large values ----------------------------------------------------------------------------------------------------

/// Mean of the readers; each time of what has just been written.
template <class Write>
void readLarge(benchmark::State& state, What what, Write&& write) {
  const auto size = static_cast<std::size_t>(state.range(0));
  const auto readers = static_cast<std::size_t>(state.range(1));
  const auto apart = readers == 1 ? Hall::instance().standApart() : nullptr;
  std::vector<std::byte> bytes(size, std::byte{1});
  const auto readOnce = [&] {
    write(bytes);
    std::int64_t sum = 0;
    for (const Answer& answer : Hall::instance().askAll(readers, what, size)) {
      sum += answer.nanoseconds;
      if (answer.read != size) state.SkipWithError("a wrong size");
    }
    return seconds(sum) / static_cast<double>(readers);
  };
  for (int i = 0; i < 5; ++i) readOnce();
  takeTimes(state, readOnce);
}
void copyLargeThere(benchmark::State& state) {
  readLarge(state, What::CopyBinary, [](const auto& bytes) { Hall::instance().writePlain(bytes); });
}
void readLargeThere(benchmark::State& state) {
  const std::string key = "Binary" + std::to_string(state.range(0));
  readLarge(state, What::ReadBinary,
            [&](const auto& bytes) { Hall::instance().memory().insertData(key, HXValue::binary(bytes)); });
  compareWith(state, fmt::format("copyLargeThere/{}/{}/iterations:200/manual_time", state.range(0), state.range(1)),
              1 / 0.9);
}

// Each iteration is many reads already, or has to be prepared: their number does not go by the times of readers.
BENCHMARK(getHere)->UseManualTime()->Iterations(20);
BENCHMARK(readThereToGet)->UseManualTime()->Iterations(20);
BENCHMARK(readThereWhileWritten)->UseManualTime()->Iterations(20);
BENCHMARK(readFewJustWritten)->UseManualTime()->Iterations(2000);
BENCHMARK(askOnce)->UseManualTime()->Iterations(20);
BENCHMARK(writeToTen)->UseManualTime()->Iterations(100);
BENCHMARK(writeUntilTenAreAwake)->UseManualTime()->Iterations(100);
BENCHMARK(wakeUntilTenAreAwake)->UseManualTime()->Iterations(100);
BENCHMARK(streamToTenAsFastAsItGoes)->UseManualTime()->Iterations(3);
BENCHMARK(streamToTenAtAPace)->UseManualTime()->Iterations(3);
BENCHMARK(copyLargeThere)
    ->UseManualTime()
    ->ArgsProduct({{bench::kPage, bench::kLarge}, {1, kReaders}})
    ->Iterations(200);
BENCHMARK(readLargeThere)
    ->UseManualTime()
    ->ArgsProduct({{bench::kPage, bench::kLarge}, {1, kReaders}})
    ->Iterations(200);

[[maybe_unused]] const bool withRedis = [] {
  if (!Redis::isInstalled()) return false;
  const auto add = [](const char* name, void (*run)(benchmark::State&), int iterations) {
    benchmark::RegisterBenchmark(name, run)->UseManualTime()->Iterations(iterations);
  };
  add("getRedis", getRedis, 20);
  add("readThereToRedis", readThereToRedis, 20);
  add("publishToTen", publishToTen, 100);
  add("publishUntilTenAreAwake", publishUntilTenAreAwake, 100);
  return true;
}();

}  // namespace
