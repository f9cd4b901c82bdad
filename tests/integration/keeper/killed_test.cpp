#include "program.h"
#include "temporary_folder.h"

#include <hxcommon/feed.h>
#include <hxcommon/hxbroker.h>
#include <hxproxies/hxmemoryproxy.h>
#include <libmw/clock.h>
#include <libmw/local.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <end_broker.h>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <socket_folder.h>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>

// A broker that keeps keys, and is killed while they are written, again and again.

namespace HX {
namespace {

using namespace std::chrono_literals;

constexpr int kKeys = 10;
/// What is older when the broker is killed is on the disk, however slow that and the machine are.
constexpr auto kSurely = 2s;

/// By key.
using Numbers = std::array<int, kKeys>;

std::string nameOf(int key) { return fmt::format("Config/Key{}", key); }
HXValue valueOf(int number) {
  return HXValue::list({number, std::string(static_cast<std::size_t>(number % 700), 'x')});
}

/// From the start of a broker until it is killed.
class Round {
 public:
  explicit Round(const std::string& folder)
      : process_(kit::korvo({"run", "--keep", "Config/", "--data-dir", folder, "--log-level", "info"})) {
    if (!process_.waitFor(" is running: ")) throw std::runtime_error("the broker did not start");
    client_.emplace(*broker_->session(), "korvo");
  }
  Round(const Round&) = delete;
  Round& operator=(const Round&) = delete;
  ~Round() {
    follow_.end();
    client_.reset();
    kit::endBroker(*broker_);
  }

  /// What the memory has of the keys, each whole; 0 for none.
  Numbers read() {
    Numbers found{};
    auto memory = this->memory();
    for (const std::string& name : memory.getDataList("Config/Key")) {
      const HXValue value = memory.getData(name);
      const int number = value[0].asInt();
      EXPECT_EQ(value, valueOf(number)) << name << ": half a value";
      found.at(static_cast<std::size_t>(std::stoi(name.substr(nameOf(0).size() - 1)))) = number;
    }
    return found;
  }

  /// Writes on one thread, flushes on another, and follows, until it is killed after `time`.
  void write(Numbers& sent, std::chrono::milliseconds time) {
    journal::FollowOptions options;
    options.snapshot = false;
    follow_ = follow(
        broker_, journal::Filter({"Config/"}), [this](const journal::Change& change) { note(change); }, options);
    std::thread writer([&] {
      try {
        auto memory = this->memory();
        for (int n = 0;; ++n) {
          const auto key = static_cast<std::size_t>(n % kKeys);
          memory.insertData(nameOf(n % kKeys), valueOf(++sent.at(key)));
          answered_.at(key) = sent.at(key);
        }
      } catch (const std::exception&) {
        // It is dead.
      }
    });
    std::thread flusher([&] {
      try {
        const auto keeper = broker_->getProxy("HXKeeper");
        if (!keeper) return;  // It is dead already.
        while (true) {
          Numbers before{};
          for (std::size_t i = 0; i < before.size(); ++i) before.at(i) = answered_.at(i);
          keeper->call("flush");
          flushed_ = before;
        }
      } catch (const std::exception&) {
      }
    });
    std::this_thread::sleep_for(time);
    process_.send(SIGKILL);
    process_.finish();
    writer.join();
    flusher.join();
  }

  /// What the next broker has to have at least: what was flushed, and what the journal told of some time ago.
  Numbers owed() {
    const std::lock_guard lock(mutex_);
    Numbers least = flushed_;
    for (const auto& [key, number] : old_) least.at(key) = std::max(least.at(key), number);
    return least;
  }

 private:
  HXMemoryProxy memory() const { return *broker_->getSpecialisedProxy<HXMemoryProxy>("HXMemory"); }

  void note(const journal::Change& change) {
    const std::lock_guard lock(mutex_);
    const auto key = static_cast<std::size_t>(std::stoi(std::string(change.key.substr(nameOf(0).size() - 1))));
    told_.emplace_back(change.time, std::pair(key, change.value[0].asInt()));
    const auto now = mw::systemNow();
    for (; next_ < told_.size() && told_[next_].first + kSurely < now; ++next_)
      old_[told_[next_].second.first] = told_[next_].second.second;
  }

  const std::shared_ptr<HXBroker> broker_ = HXBroker::create("far");
  kit::Process process_;
  std::optional<mw::LocalClient> client_;
  std::array<std::atomic<int>, kKeys> answered_{};
  Numbers flushed_{};
  std::mutex mutex_;  // Guards all below but the follower.
  std::vector<std::pair<journal::TimePoint, std::pair<std::size_t, int>>> told_;
  std::size_t next_ = 0;
  std::map<std::size_t, int> old_;
  journal::Follow follow_;
};

TEST(KilledBroker, HasWhatItOwesWheneverItIsKilled) {
  ::setenv("XDG_DATA_DIRS", "/nonexistent", 1);
  const char* const wanted = std::getenv("KORVO_KILL_ROUNDS");
  const int rounds = wanted ? std::atoi(wanted) : 3;
  const kit::SocketFolder sockets;
  const kit::TemporaryFolder folder;
  std::mt19937 random(static_cast<unsigned>(rounds));
  Numbers sent{};
  Numbers owed{};
  for (int i = 0; i <= rounds; ++i) {
    SCOPED_TRACE(i);
    Round round(folder.path());
    const Numbers found = round.read();
    for (std::size_t key = 0; key < found.size(); ++key) {
      EXPECT_GE(found.at(key), owed.at(key)) << "key " << key;
      EXPECT_LE(found.at(key), sent.at(key)) << "key " << key;
    }
    // What was read from the disk once is owed for ever.
    sent = owed = found;
    const bool isLong = i % 20 == 10;
    round.write(sent, std::chrono::milliseconds(isLong ? 3000 : random() % 400));
    const Numbers more = round.owed();
    for (std::size_t key = 0; key < owed.size(); ++key) owed.at(key) = std::max(owed.at(key), more.at(key));
  }
}

}  // namespace
}  // namespace HX
