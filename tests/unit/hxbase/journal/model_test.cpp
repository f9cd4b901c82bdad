#include <hxcommon/feed.h>
#include <hxjournal/replica.h>
#include <libmw/local.h>
#include <libmw/log.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <end_broker.h>
#include <hxjournal.h>
#include <map>
#include <memory>
#include <memory_fixture.h>
#include <mutex>
#include <optional>
#include <random>
#include <socket_folder.h>
#include <string>
#include <thread>
#include <together.h>
#include <tuple>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace HX {
namespace {

using journal::Change;
using journal::Filter;
using journal::FollowOptions;
using journal::What;
using namespace std::chrono_literals;

/// Rather than the standard generator's own numbers, whose type is wider than they are.
class Random {
 public:
  explicit Random(std::uint32_t seed) : engine_(seed) {}
  std::uint32_t operator()() { return static_cast<std::uint32_t>(engine_()); }

 private:
  std::mt19937 engine_;
};

constexpr std::uint32_t kKeys = 40;
constexpr int kWriters = 3;

std::string keyOf(std::uint32_t number) {
  constexpr const char* kGroups[] = {"Arm", "Leg", "Head"};
  return fmt::format("{}/Joint/{}", kGroups[number % 3], number);
}

/// A follower, and what must hold of all that it is told.
class Watched {
 public:
  /// @param broker  Through which it follows, from the memory's process or from another one.
  Watched(HXMemory& memory, std::shared_ptr<HXBroker> broker, std::uint32_t seed)
      : memory_(memory), broker_(std::move(broker)), random_(seed) {
    chooseFilter();
  }

  /// Follows anew, or goes on from where it was.
  void start(bool resume) {
    FollowOptions options;
    if (resume) options.since = left_;
    if (isRated_) options.rate = 200;
    if (random_() % 3 == 0) options.behind = 300;
    if (random_() % 3 == 0) options.promptness = journal::Promptness::Relaxed;
    const std::lock_guard starting(mutex_);
    // Ended in the middle of a snapshot it goes on from before that, and is told again what came meanwhile.
    std::erase_if(last_, [this](const auto& last) { return last.second.first > left_.revision; });
    if (!resume) {
      replica_ = std::make_unique<journal::Replica>();
      last_.clear();
    }
    options = replica_->following(std::move(options));
    options.onGap = [this, inner = options.onGap](const journal::Gap& gap) {
      EXPECT_GE(gap.to.revision + 1, gap.from.revision);
      const std::lock_guard lock(mutex_);
      last_.clear();
      inner(gap);
    };
    follow_ = HX::follow(
        broker_, filter_, [this](const Change& change) { hear(change); }, std::move(options));
  }

  /// Something between two rounds, or in the middle of one.
  void disturb() {
    switch (random_() % 4) {
      case 0:
        follow_.end();
        left_ = follow_.position();
        start(true);
        break;
      case 1:
        follow_.end();
        chooseFilter();
        start(false);
        break;
      case 2:
        stall_ = true;
        break;
      default:
        follow_.pause();
        std::this_thread::sleep_for(std::chrono::microseconds(random_() % 3000));
        follow_.resume();
    }
  }

  /// Once nothing is written any more.
  void expectTheTable() {
    const auto until = std::chrono::steady_clock::now() + 20s;
    std::string difference = "not caught up";
    while (!difference.empty() && std::chrono::steady_clock::now() < until) {
      // A place behind changes that it does not want reaches another process later.
      const bool isBehind = choice_ == 0 && !isRated_ && follow_.position() != memory_.journal().position();
      if (!isBehind) difference = differenceToTheTable();
      if (!difference.empty()) std::this_thread::sleep_for(200us);
    }
    ASSERT_EQ(difference, "") << "filter " << choice_ << ", kind " << kind_ << (isRated_ ? ", rated" : "") << " at "
                              << follow_.position().revision << " of " << memory_.journal().position().revision;
  }

 private:
  void chooseFilter() {
    filter_ = Filter();
    kind_ = -1;
    choice_ = random_() % 5;
    switch (choice_) {
      case 0:
        break;
      case 1:
        for (int i = 0; i < 5; ++i) filter_.addKey(keyOf(random_() % kKeys));
        filter_.addKey("Solo0");
        break;
      case 2:
        filter_.addPrefix("Arm/");
        break;
      case 3:
        filter_.addGlob("*1*").exclude("Leg/");
        break;
      default:
        kind_ = random_() % 2 == 0 ? STMValue::Event : STMValue::Data;
        filter_.addKind(static_cast<std::uint8_t>(kind_));
    }
    isRated_ = random_() % 5 == 0;
  }

  void hear(const Change& change) {
    if (stall_.exchange(false)) std::this_thread::sleep_for(5ms);
    EXPECT_TRUE(filter_.wantsKey(change.key));
    if (change.key.starts_with("Solo") && change.what == What::Stored) {
      EXPECT_GE(memory_.getData(std::string(change.key)).toInt(), change.value.toInt()) << "the table is older";
    }
    if (!isRated_) expectNext(change);
    const std::lock_guard lock(mutex_);
    replica_->change(change);
  }

  /// Within a key: revisions rise, and numbers follow each other.
  void expectNext(const Change& change) {
    const std::lock_guard lock(mutex_);
    // Made again, a key counts from the beginning.
    const std::pair now(change.at.revision, change.what == What::Removed ? 0 : change.nth);
    const auto [last, isFirst] = last_.try_emplace(std::string(change.key), now);
    if (isFirst) return;
    const auto [revision, nth] = std::exchange(last->second, now);
    EXPECT_TRUE(change.at.revision > revision) << change.key << " again";
    // By a kind, some changes are not told.
    EXPECT_TRUE(kind_ >= 0 || change.isState || change.nth == nth + 1) << change.key;
  }

  std::string differenceToTheTable() {
    const std::lock_guard lock(mutex_);
    auto held = replica_->items();
    std::erase_if(held, [&](const auto& item) { return !filter_.wantsKind(item.second.kind); });
    for (const std::string& name : memory_.getDataListName()) {
      const auto state = memory_.xGetSTMValue(name)->state();
      if (!filter_.wantsKey(name) || !filter_.wantsKind(state.kind)) continue;
      const auto item = held.find(name);
      if (item == held.end()) return name + " is missing";
      if (item->second.value != state.value) return name + " has another value";
      if (item->second.nth != state.nth) return fmt::format("{} is {}, not {}", name, item->second.nth, state.nth);
      if (item->second.kind != state.kind) return name + " has another kind";
      using std::chrono::microseconds;
      if (std::chrono::floor<microseconds>(item->second.time) != std::chrono::floor<microseconds>(state.time)) {
        return name + " has another time";
      }
      held.erase(item);
    }
    return held.empty() ? "" : held.begin()->first + " is too many";
  }

  HXMemory& memory_;
  const std::shared_ptr<HXBroker> broker_;
  Random random_;
  Filter filter_;
  std::uint32_t choice_ = 0;
  int kind_ = -1;
  bool isRated_ = false;
  std::atomic<bool> stall_{false};
  journal::Position left_;
  std::mutex mutex_;  // Guards the next two.
  std::unique_ptr<journal::Replica> replica_ = std::make_unique<journal::Replica>();
  std::map<std::string, std::pair<std::uint64_t, std::uint32_t>> last_;  // Revision and number, since the last gap.
  journal::Follow follow_;
};

/// The seed, and whether the followers are of another process.
class JournalModel : public kit::MemoryFixture, public testing::WithParamInterface<std::tuple<std::uint32_t, bool>> {
 protected:
  void TearDown() override {
    client_.reset();
    if (far_) kit::endBroker(*std::exchange(far_, nullptr));
    server_.reset();
    kit::MemoryFixture::TearDown();
  }

  /// In place of the fixture's memory, one whose ring turns all the time.
  void startSmall() {
    shutDown();
    broker = HXBroker::create("memory-fixture");
    HXMemory::JournalSettings settings;
    settings.options.chunks = 4;
    settings.options.bytes = 256 << 10U;
    settings.options.linger = 3ms;
    memory = HXModule::createModule<HXMemory>(broker, "HXMemory", settings);
    if (!std::get<bool>(GetParam())) return;
    HXModule::createModule<HXJournal>(broker, "HXJournal");
    server_.emplace(*broker->session(), broker->getName());
    far_ = HXBroker::create("far");
    client_.emplace(*far_->session(), broker->getName());
  }

  std::unique_ptr<Watched> watch(std::uint32_t seed) const {
    return std::make_unique<Watched>(*memory, far_ ? far_ : broker, seed);
  }

  void writeSome(std::uint32_t writer, std::uint32_t seed) {
    Random random(seed);
    const std::string solo = fmt::format("Solo{}", writer);
    for (int i = 0; i < 1500; ++i) {
      const std::string key = keyOf(random() % kKeys);
      try {
        write(random(), key, solo);
      } catch (const HXError&) {
        // Another writer has removed the key, or its address is known.
      }
    }
  }

  void write(std::uint32_t choice, const std::string& key, const std::string& solo) {
    switch (choice % 16) {
      case 0:
        return memory->removeData(key);
      case 1:
        return memory->declareEvent(key);
      case 2:
        return memory->setDescription(key, "text");
      case 3:
        return memory->subscribeToMicroEvent(key, "nobody", "", "heard");
      case 4:
        if (key == keyOf(7)) memory->getIntPtr(key);
        return;
      case 5:
        return memory->insertData(key, std::string(choice % 3000, 'x'));
      case 6:
      case 7:
        return memory->raiseEvent(key, HXValue(static_cast<int>(choice)));
      case 8:
        return memory->raiseMicroEvent(key, HXValue(1.5));
      case 9:
      case 10:
        return memory->insertData(solo, ++next_[solo.back() - '0']);
      default:
        return memory->insertData(key, static_cast<int>(choice));
    }
  }

 private:
  const kit::SocketFolder sockets_;
  std::optional<mw::LocalServer> server_;
  std::shared_ptr<HXBroker> far_;
  std::optional<mw::LocalClient> client_;
  int next_[kWriters]{};
};

// Writers of all that changes the table, followers of all kinds; whenever the writers rest, what was told is the table.
TEST_P(JournalModel, FollowersHaveTheTable) {
  startSmall();
  mw::log::setLevel(mw::LogLevel::Error);
  Random random(std::get<std::uint32_t>(GetParam()));
  std::vector<std::unique_ptr<Watched>> followers;
  for (int i = 0; i < 4; ++i) {
    followers.push_back(watch(random()));
    followers.back()->start(false);
  }
  for (int round = 0; round < 12 && !HasFailure(); ++round) {
    std::vector<std::function<void()>> jobs;
    for (std::uint32_t writer = 0; writer < kWriters; ++writer) {
      jobs.emplace_back([this, writer, seed = random()] { writeSome(writer, seed); });
    }
    for (auto& follower : followers) {
      jobs.emplace_back([&follower, times = random() % 4] {
        for (std::uint32_t i = 0; i < times; ++i) {
          follower->disturb();
          std::this_thread::sleep_for(1ms);
        }
      });
    }
    kit::together(jobs);
    for (auto& follower : followers) follower->expectTheTable();
    if (round % 4 != 3) continue;
    // Nobody follows, and recording may end.
    followers.pop_back();
    followers.push_back(watch(random()));
    followers.back()->start(false);
  }
  followers.clear();
}

INSTANTIATE_TEST_SUITE_P(Seeds, JournalModel, testing::Combine(testing::Range(1U, 7U), testing::Bool()),
                         [](const auto& row) {
                           return (std::get<1>(row.param) ? "Far" : "Near") + std::to_string(std::get<0>(row.param));
                         });

}  // namespace
}  // namespace HX
