// A process that reads what bench_views_processes writes: it takes orders on its standard input, and answers there.

#include "shared_tally.h"
#include "socket_peer.h"
#include "views_stage.h"

#include <hxcommon/hxbroker.h>
#include <hxproxies/hxmemoryproxy.h>
#include <hxview/futex.h>
#include <libmw/local.h>

#include <array>
#include <cstring>
#include <iostream>
#include <map>
#include <optional>
#include <thread>
#include <utility>

#include <benchmark/benchmark.h>

namespace {

using namespace std::chrono_literals;
using bench::Answer;
using bench::Order;
using bench::sharedNow;

class Reader {
 public:
  Reader(HX::HXMemoryProxy memory, std::string folder) : memory_(std::move(memory)), folder_(std::move(folder)) {}

  Answer obey(const Order& order) {
    switch (order.what) {
      case Order::What::Read:
        return timed([&] {
          for (std::uint64_t i = 0; i < order.count; ++i) benchmark::DoNotOptimize(number_.read().value());
        });
      case Order::What::ReadFew:
        return readFew();
      case Order::What::Ask:
        return timed([&] {
          for (std::uint64_t i = 0; i < order.count; ++i) benchmark::DoNotOptimize(memory_.getData("Number"));
        });
      case Order::What::AwaitView:
        return awaitView(order.count);
      case Order::What::AwaitWord:
        return awaitWord(order.count);
      case Order::What::AwaitRedis:
        return awaitRedis();
      case Order::What::Stream:
        return readStream();
      case Order::What::ReadBinary:
        return readBinary(order.count);
      default:
        return copyBinary(order);
    }
  }

 private:
  template <class Action>
  static Answer timed(Action&& action) {
    const std::int64_t begin = sharedNow();
    action();
    return {sharedNow() - begin};
  }

  Answer readFew() {
    if (few_.empty()) {
      for (std::size_t i = 0; i < bench::kFew; ++i) few_.push_back(memory_.view<int>(bench::fewKey(i)));
      for (auto& view : few_) view.read();
    }
    return timed([&] {
      for (auto& view : few_) benchmark::DoNotOptimize(view.read().value());
    });
  }

  Answer awaitView(std::uint64_t known) {
    while (true) {
      const auto& seen = number_.read();
      if (std::cmp_not_equal(seen.value(), known)) break;
      number_.wait(seen.revision, 1s);
    }
    return {sharedNow()};
  }

  Answer awaitWord(std::uint64_t known) {
    const auto& word = *reinterpret_cast<const HX::view::Word*>(plain() + bench::kWordAt);
    while (word.load() == known) HX::view::sleepWhile(word, known, 1s);
    return {sharedNow()};
  }

  Answer awaitRedis() {
    if (!redis_) {
      redis_.emplace(folder_ + "/redis");
      redis_->send("*2\r\n$9\r\nSUBSCRIBE\r\n$4\r\nTick\r\n");
      std::string confirmed(std::strlen("*3\r\n$9\r\nsubscribe\r\n$4\r\nTick\r\n:1\r\n"), ' ');
      redis_->receive(confirmed);
    }
    std::string message(std::strlen("*3\r\n$7\r\nmessage\r\n$4\r\nTick\r\n$2\r\n42\r\n"), ' ');
    redis_->receive(message);
    return {sharedNow()};
  }

  Answer readStream() {
    if (!stream_)
      stream_.emplace(memory_.stream<HX::HXValue::Binary>("Stream", 65'536, {.capacity = bench::kStreamed}));
    auto& stream = *stream_;
    const std::uint64_t lostBefore = stream.lost();
    HX::Seen<HX::HXValue::Binary> item;
    Answer answer;
    while (true) {
      const auto result = stream.next(item);
      if (result == HX::ReadResult::Nothing) stream.wait(1s);
      if (result == HX::ReadResult::Ended) break;
      if (result != HX::ReadResult::Value) continue;
      if (item.value().empty()) break;
      ++answer.read;
    }
    answer.lost = stream.lost() - lostBefore;
    return answer;
  }

  Answer readBinary(std::size_t size) {
    auto view = binaries_.find(size);
    if (view == binaries_.end()) {
      const std::string key = "Binary" + std::to_string(size);
      view = binaries_.emplace(size, memory_.view<HX::HXValue::Binary>(key, {.capacity = size})).first;
    }
    Answer answer = timed([&] { view->second.read(); });
    answer.read = view->second.read().value().size();
    return answer;
  }

  const std::byte* plain() {
    if (!mapped_) {
      const int file = ::open((folder_ + "/plain").c_str(), O_RDONLY | O_CLOEXEC);
      mapped_ =
          static_cast<const std::byte*>(::mmap(nullptr, bench::kPlain, PROT_READ, MAP_SHARED | MAP_POPULATE, file, 0));
      ::close(file);
    }
    return mapped_;
  }

  Answer copyBinary(const Order& order) {
    copied_.resize(bench::kLarge);
    const std::byte* const source = plain() + order.place * bench::kLarge;
    Answer answer = timed([&] {
      std::memcpy(copied_.data(), source, order.count);
      benchmark::DoNotOptimize(copied_.data());
      benchmark::ClobberMemory();
    });
    answer.read = order.count;
    return answer;
  }

  HX::HXMemoryProxy memory_;
  const std::string folder_;
  HX::View<int> number_ = memory_.view<int>("Number");
  std::vector<HX::View<int>> few_;
  std::optional<bench::PlainSocket> redis_;
  std::optional<HX::Stream<HX::HXValue::Binary>> stream_;
  std::map<std::size_t, HX::View<HX::HXValue::Binary>> binaries_;
  const std::byte* mapped_ = nullptr;
  std::vector<std::byte> copied_;
};

}  // namespace

int main(int argc, char** argv) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  try {
    const auto broker = HX::HXBroker::create("reader");
    const mw::LocalClient client(*broker->session(), "bench");
    Reader reader(*broker->getSpecialisedProxy<HX::HXMemoryProxy>("HXMemory"), argc > 1 ? argv[1] : "");
    Order order{};
    std::optional<bench::OnProcessor> apart;
    while (::read(STDIN_FILENO, &order, sizeof order) == sizeof order) {
      if (order.isApart && !apart) apart.emplace(1);
      if (!order.isApart) apart.reset();
      const Answer answer = reader.obey(order);
      // While the others are still being woken, nobody is to be kept busy by answers.
      const bool isAwakened = order.what == Order::What::AwaitView || order.what == Order::What::AwaitWord ||
                              order.what == Order::What::AwaitRedis;
      if (isAwakened) std::this_thread::sleep_for(2ms);
      if (::write(STDIN_FILENO, &answer, sizeof answer) != sizeof answer) break;
    }
  } catch (const std::exception& error) {
    std::cerr << "bench_views_peer: " << error.what() << '\n';
  }
  return 1;
}
