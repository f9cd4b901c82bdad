#include "follower.h"

#include "values.h"

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <stdexcept>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

namespace korvo::python {
namespace {

namespace journal = HX::journal;

/// A change as the program gets it.
struct Told {
  std::string key;
  HX::HXValue value;
  HX::HXValue old;
  journal::TimePoint time;
  std::string author;
  std::uint64_t lost;
  const char* what;
  std::optional<journal::Position> position;  ///< Where to go on when everything up to here has been taken.
};

const char* nameOf(const journal::Change& change) {
  if (change.isState) return "state";
  switch (change.what) {
    case journal::What::Stored:
      return "stored";
    case journal::What::Raised:
      return "raised";
    case journal::What::RaisedMicro:
      return "raised micro";
    case journal::What::Declared:
      return "declared";
    case journal::What::Described:
      return "described";
    case journal::What::Removed:
      return "removed";
  }
  return "stored";
}

py::object changeFrom(const Told& told) {
  const double seconds = std::chrono::duration<double>(told.time.time_since_epoch()).count();
  const py::object position = told.position ? py::object(py::make_tuple(told.position->epoch, told.position->revision))
                                            : py::object(py::none());
  return callPython(Kinds::instance().change, toPython(HX::HXValue(told.key)), toPython(told.value), toPython(told.old),
                    seconds, toPython(HX::HXValue(told.author)), told.lost, told.what, position);
}

}  // namespace

/// Filled on the event loop, emptied by the program.
class Follower::Queue : public Endable {
 public:
  explicit Queue(const Wanted& wanted)
      : capacity_(std::max<std::size_t>(1, wanted.capacity)),
        snapshot_(wanted.snapshot),
        hasPositions_(wanted.rate <= 0),  // A rate keeps back what lies before what it tells.
        isFirst_(!wanted.since),
        isWalking_(!wanted.since),
        place_(wanted.since) {
    if (file_ < 0) throw std::runtime_error("no file for the changes that are followed: too many are open");
  }
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;
  ~Queue() override { ::close(file_); }

  void add(const journal::Change& change) {
    const std::lock_guard lock(mutex_);
    State& known = known_[std::string(change.key)];
    const bool isTold = isNewsLocked(change, known);
    const std::uint64_t missed = missedLocked(change, known);
    HX::HXValue old = std::exchange(known.value, change.what == journal::What::Described ? known.value : change.value);
    if (change.nth != 0) known.nth = change.nth;
    known.isThere = true;
    if (!isWalking_ && !change.isState && hasPositions_) place_ = change.at;
    if (isTold) {
      tellLocked({std::string(change.key), change.value, std::move(old), change.time, std::string(change.author),
                  missed, nameOf(change), place_});
    }
    if (change.what == journal::What::Removed) known_.erase(std::string(change.key));
  }

  /// Changes were missed, and how things stand is told instead.
  void missed(const journal::Gap& gap) {
    const std::lock_guard lock(mutex_);
    isWalking_ = true;
    if (!gap.full) return;
    for (auto& [key, state] : known_) state.isThere = false;
  }

  void completed(journal::Position place) {
    const std::lock_guard lock(mutex_);
    tellRemovalsLocked();
    isFirst_ = isWalking_ = false;
    ready_.notify_all();
    if (!hasPositions_) return;
    place_ = place;
    if (!told_.empty()) told_.back().position = place;
  }

  void end() override {
    const std::lock_guard lock(mutex_);
    ended_ = true;
    ready_.notify_all();
    signalLocked();
  }

  bool waitForBeginning(std::chrono::milliseconds longest) {
    std::unique_lock lock(mutex_);
    return ready_.wait_for(lock, longest, [this] { return ended_ || !isFirst_; });
  }

  bool wait(std::chrono::milliseconds longest) {
    std::unique_lock lock(mutex_);
    const auto isReady = [this] { return ended_ || !told_.empty(); };
    if (longest >= mw::kInfiniteTimeout) {
      ready_.wait(lock, isReady);
      return true;
    }
    return ready_.wait_for(lock, longest, isReady);
  }

  /// @return None when it has ended and is empty.
  std::optional<std::deque<Told>> take() {
    const std::lock_guard lock(mutex_);
    if (told_.empty() && ended_) return std::nullopt;
    std::deque<Told> all;
    all.swap(told_);
    if (!ended_ && std::exchange(signalled_, false)) {
      std::uint64_t count = 0;
      static_cast<void>(!::read(file_, &count, sizeof count));
    }
    return all;
  }

  int file() const { return file_; }

 private:
  struct State {
    HX::HXValue value;
    std::uint32_t nth = 0;
    bool isThere = true;  ///< Unless keys are being told anew, and this has not been.
  };

  /// The first snapshot tells what is there, and later ones what was missed.
  bool isNewsLocked(const journal::Change& change, const State& known) const {
    if (!change.isState) return true;
    return isFirst_ ? snapshot_ : known.nth != change.nth || known.value != change.value;
  }

  static std::uint64_t missedLocked(const journal::Change& change, const State& known) {
    if (known.nth == 0 || change.nth <= known.nth) return 0;
    const std::uint64_t between = change.nth - known.nth - 1;
    return between - std::min<std::uint64_t>(between, change.leftOut);
  }

  /// What was not told when all keys were told anew has gone meanwhile; when, nobody knows.
  void tellRemovalsLocked() {
    for (auto entry = known_.begin(); entry != known_.end();) {
      if (entry->second.isThere) {
        ++entry;
        continue;
      }
      tellLocked({entry->first,
                  {},
                  std::move(entry->second.value),
                  std::chrono::system_clock::now(),
                  {},
                  0,
                  "removed",
                  place_});
      entry = known_.erase(entry);
    }
  }

  void tellLocked(Told told) {
    told_.push_back(std::move(told));
    if (told_.size() > capacity_) {
      const std::uint64_t dropped = told_.front().lost + 1;
      told_.pop_front();
      told_.front().lost += dropped;
    }
    ready_.notify_one();
    signalLocked();
  }

  void signalLocked() {
    if (std::exchange(signalled_, true)) return;
    const std::uint64_t one = 1;
    static_cast<void>(!::write(file_, &one, sizeof one));
  }

  const std::size_t capacity_;
  const bool snapshot_;
  const bool hasPositions_;
  const int file_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  std::mutex mutex_;  // Guards everything below.
  std::condition_variable ready_;
  std::deque<Told> told_;
  std::map<std::string, State, std::less<>> known_;
  bool isFirst_;
  bool isWalking_;  ///< The places of changes do not say yet where to go on.
  std::optional<journal::Position> place_;
  bool ended_ = false;
  bool signalled_ = false;
};

Follower::Follower(const std::shared_ptr<HX::HXBroker>& broker, const Wanted& wanted)
    : queue_(std::make_shared<Queue>(wanted)) {
  journal::FollowOptions options;
  options.since = wanted.since;
  options.rate = wanted.rate;
  // Also where it is not told: it makes known what a key was before.
  options.snapshot = true;
  options.onComplete = [queue = queue_](journal::Position place) { queue->completed(place); };
  options.onGap = [queue = queue_](const journal::Gap& gap) { queue->missed(gap); };
  follow_ = HX::follow(
      broker, journal::Filter(wanted.patterns), [queue = queue_](const journal::Change& change) { queue->add(change); },
      std::move(options));
}

Follower::~Follower() { follow_.end(); }

bool Follower::waitForBeginning(std::chrono::milliseconds longest) { return queue_->waitForBeginning(longest); }

py::object Follower::take(std::optional<double> limit) {
  requireUsable();
  const Limit within(limit);
  if (!waitWhile(within, [this](std::chrono::milliseconds longest) { return queue_->wait(longest); }))
    return py::list();
  const auto taken = queue_->take();
  if (!taken) return py::none();
  py::list changes(taken->size());
  for (std::size_t i = 0; i < taken->size(); ++i) changes[i] = changeFrom((*taken)[i]);
  return changes;
}

std::shared_ptr<Endable> Follower::ending() const { return queue_; }

int Follower::file() const { return queue_->file(); }

void Follower::end() {
  if (isForked()) return;
  queue_->end();
  withoutGil([this] { follow_.end(); });
}

}  // namespace korvo::python
