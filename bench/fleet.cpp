// What a fleet costs beside plain libnats at the same server: events, calls, raises. Each figure and its control are
// measured in turns in this one process.
//
//     bench_fleet [ROUNDS [live]]
//
// With "live" the live events without a store alone, which take few milliseconds and want many rounds.

#include "hub.h"
#include "hxfleet.h"
#include "memory_host.h"
#include "private_hub.h"

#include <hxcommon/settings.h>
#include <hxvalue/json.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace {

using namespace std::chrono_literals;
using HX::HXValue;
using HX::fleet::Connection;
using Clock = std::chrono::steady_clock;

constexpr int kEvents = 18'000;  // Fewer than give way to later ones.
constexpr int kCalls = 2'000;
constexpr int kRaises = 2'000;

double seconds(Clock::time_point begin) { return std::chrono::duration<double>(Clock::now() - begin).count(); }

double median(std::vector<double> values) {
  std::ranges::sort(values);
  return values[values.size() / 2];
}

void await(const std::function<bool()>& isSo) {
  const auto end = Clock::now() + 60s;
  while (!isSo()) {
    if (Clock::now() > end) throw std::runtime_error("it does not come true");
    std::this_thread::sleep_for(1ms);
  }
}

class Bench {
 public:
  Bench() : tool_({{hub_.url()}, {}, {}, false}, Connection::Options{"bench", "_INBOX.bench", true, {}}) {
    HX::fleet::initialise(tool_, subjects_, 1h, 512 << 20, 1);
    host_.broker->session()->registerService("Broker", host_.broker->getProxy("HXMemory")->asObject());
    bulk_ = std::make_unique<Connection>(HX::fleet::Access{{hub_.url()}, {}, {}, false}, Connection::Options{"plain"});
    require(natsConnection_JetStream(&stream_, bulk_->raw(), nullptr));
    tool_.subscribe("plain.echo", [this](const auto& message) { tool_.publish(message.reply(), "1"); });
    tool_.flush(5s);
  }
  ~Bench() {
    end();
    jsCtx_Destroy(stream_);
  }

  void join(const std::vector<HXValue>& kept) {
    host_.broker->provideSettings(
        "HXFleet",
        HX::GivenSettings::of(HXValue::map({{"url", hub_.url()}, {"robot", "robot7"}, {"keep", HXValue::list(kept)}})));
    robot_ = HX::HXModule::createModule<HX::HXFleet>(host_.broker, "HXFleet");
    awaitConnected();
  }
  void end() {
    if (!robot_) return;
    robot_->exit();
    robot_.reset();
  }

  /// Events a second, from the first raise until the hub has confirmed all.
  double raiseAll(const std::string& event) {
    const auto confirmed = robot_->status()["confirmed"].asInt64();
    const auto begin = Clock::now();
    for (int i = 0; i < kEvents; ++i) host_.memory->raiseEvent(event, i);
    await([&] { return robot_->status()["confirmed"].asInt64() >= confirmed + kEvents; });
    return kEvents / seconds(begin);
  }
  /// The same payloads by the plain library.
  double publishAll(const std::string& subject) {
    const auto begin = Clock::now();
    for (int i = 0; i < kEvents; ++i) bulk_->publish(subject, payload(i));
    bulk_->flush(10s);
    return kEvents / seconds(begin);
  }
  double publishAllStored(const char* subject) {
    const auto begin = Clock::now();
    for (int i = 0; i < kEvents; ++i) {
      const std::string data = payload(i);
      require(js_PublishAsync(stream_, subject, data.data(), static_cast<int>(data.size()), nullptr));
    }
    jsPubOptions options;
    jsPubOptions_Init(&options);
    options.MaxWait = 30'000;
    require(js_PublishAsyncComplete(stream_, &options));
    return kEvents / seconds(begin);
  }
  double call(const std::string& subject, const std::string& data) {
    std::vector<double> took;
    for (int i = 0; i < kCalls; ++i) {
      const auto begin = Clock::now();
      bulkRequest(subject, data);
      took.push_back(seconds(begin) * 1e6);
    }
    return median(took);
  }
  /// Microseconds of a raise, and of the worst of them, at 1 kHz when `isPaced`.
  std::pair<double, double> raise(bool isPaced) {
    double worst = 0;
    const auto begin = Clock::now();
    for (int i = 0; i < kRaises; ++i) {
      if (isPaced) std::this_thread::sleep_until(begin + i * 1ms);
      const auto start = Clock::now();
      host_.memory->raiseEvent("Raised", i);
      worst = std::max(worst, seconds(start) * 1e6);
    }
    return {seconds(begin) * 1e6 / kRaises, worst};
  }
  /// Hears the events of both, as a tool does.
  std::unique_ptr<Connection> listen() const {
    auto listener = std::make_unique<Connection>(HX::fleet::Access{{hub_.url()}, {}, {}, false},
                                                 Connection::Options{"listener", "_INBOX.listener"});
    for (const char* subject : {"plain.event", "fleet.robot7.event.>"})
      listener->subscribe(subject, [](const auto&) {});
    listener->flush(5s);
    return listener;
  }
  /// From now on events go to who listens alone.
  void removeStream() { tool_.request({subjects_.interface("STREAM.DELETE.FLEET_EVENTS"), ""}, 5s); }
  /// Seconds until the hub has as many keys as are in the memory, from the start of the module on.
  double mirror(int keys) {
    for (int i = 0; i < keys; ++i) host_.memory->insertData(fmt::format("Mirrored/{}/Value", i), i);
    const auto begin = Clock::now();
    join({"Kept"});
    await([&] {
      const auto answer = tool_.request({subjects_.interface("STREAM.INFO.KV_fleet"), ""}, 5s);
      return HX::fromJson(answer.data())["state"]["messages"].toInt() >= keys;
    });
    return seconds(begin);
  }
  /// Seconds until events are confirmed again when the server was killed and started again, and 200 of them.
  double restart() {
    std::atomic<bool> ends{false};
    std::thread raiser([&] {
      for (int i = 0; !ends; ++i) {
        host_.memory->raiseEvent("Steady", i);
        std::this_thread::sleep_for(1ms);
      }
    });
    std::this_thread::sleep_for(500ms);
    const auto begin = Clock::now();
    const auto before = robot_->status()["confirmed"].asInt64();
    hub_.stop();
    hub_.start();
    await([&] { return robot_->status()["confirmed"].asInt64() > before + 200; });
    const double took = seconds(begin);
    ends = true;
    raiser.join();
    return took;
  }
  void awaitConnected() {
    await([&] { return robot_->status()["state"] == HXValue("connected"); });
  }
  void freeze() { hub_.freeze(); }
  void thaw() { hub_.thaw(); }

 private:
  static void require(natsStatus status) {
    if (status != NATS_OK) throw std::runtime_error(natsStatus_GetText(status));
  }
  static std::string payload(int i) {
    return fmt::format(
        R"({{"key":"Live","kind":"Event","n":{},"run":"123456789abcdef0","time":"2026-11-22T06:47:12.123456Z","value":{}}})",
        i, i);
  }
  void bulkRequest(const std::string& subject, const std::string& data) {
    natsMsg* reply = nullptr;
    require(natsConnection_RequestString(&reply, caller().raw(), subject.c_str(), data.c_str(), 5000));
    natsMsg_Destroy(reply);
  }
  Connection& caller() {
    if (!caller_) {
      caller_ = std::make_unique<Connection>(HX::fleet::Access{{hub_.url()}, {}, {}, false},
                                             Connection::Options{"caller", "_INBOX.caller", true, {}});
    }
    return *caller_;
  }

  const HX::fleet::FleetSubjects subjects_{"fleet"};
  kit::Hub hub_;
  Connection tool_;
  std::unique_ptr<Connection> bulk_, caller_;
  jsCtx* stream_ = nullptr;
  bench::MemoryHost host_;
  std::shared_ptr<HX::HXFleet> robot_;
};

struct Ratios {
  std::vector<double> ours, plain, ratios;
  void add(double our, double control) {
    ours.push_back(our);
    plain.push_back(control);
    ratios.push_back(our / control);
  }
  void print(const char* what, const char* unit) const {
    std::printf("| %s | %.4g %s | %.4g | %.2f |\n", what, median(ours), unit, median(plain), median(ratios));
    std::fflush(stdout);
  }
};

void runWithStore(Bench& bench, int rounds, const std::vector<double>& alone) {
  Ratios raise, worst, stored, kept, call;
  for (int i = 0; i < rounds; ++i) {
    stored.add(bench.raiseAll("Live") / 1e3, bench.publishAll("fleet.plain.event.Live") / 1e3);
    kept.add(bench.raiseAll("Kept") / 1e3, bench.publishAllStored("fleet.plain.event.Kept") / 1e3);
    call.add(bench.call("fleet.robot7.get", "\"Live\""), bench.call("plain.echo", "1"));
    raise.add(bench.raise(false).first, alone[static_cast<std::size_t>(i)]);
    const double before = bench.raise(true).second;
    bench.freeze();
    worst.add(bench.raise(true).second, before);
    bench.thaw();
    bench.awaitConnected();
  }
  stored.print("live events, which the hub stores too", "k/s");
  kept.print("kept events", "k/s");
  call.print("a call", "us");
  raise.print("a raise, by one without the module", "us");
  worst.print("the worst raise at 1 kHz, hub frozen, by not frozen", "us");
}

void runWithoutStore(Bench& bench, int rounds) {
  Ratios live, heard;
  bench.removeStream();
  for (int i = 0; i < rounds; ++i) live.add(bench.raiseAll("Live") / 1e3, bench.publishAll("plain.event") / 1e3);
  live.print("live events, with no store at the hub, to nobody", "k/s");
  const auto listener = bench.listen();
  for (int i = 0; i < rounds; ++i) heard.add(bench.raiseAll("Live") / 1e3, bench.publishAll("plain.event") / 1e3);
  heard.print("live events, with no store at the hub, to one who listens", "k/s");
}

void run(int rounds, bool isLiveAlone) {
  Bench bench;
  std::vector<double> alone;
  for (int i = 0; i < rounds; ++i) alone.push_back(bench.raise(false).first);
  std::printf("5,000 keys at the hub after %.2f s\n", bench.mirror(5'000));
  if (!isLiveAlone) runWithStore(bench, rounds, alone);
  runWithoutStore(bench, rounds);
  if (isLiveAlone) return;
  std::printf("a server that is killed and started again: %.2f s until 200 more events are confirmed\n",
              bench.restart());
}

}  // namespace

int main(int argc, char** argv) {
  try {
    run(argc > 1 ? std::max(1, std::atoi(argv[1])) : 5, argc > 2 && std::string_view(argv[2]) == "live");
  } catch (const std::exception& error) {
    std::fprintf(stderr, "error: %s\n", error.what());
    return 1;
  }
  return 0;
}
