#pragma once

#include "rates.h"
#include "ring.h"

#include <hxauthor/author.h>
#include <hxerror/mutex.h>
#include <hxjournal/filter.h>
#include <hxjournal/follow.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

namespace HX::journal {

/// A filter, a cursor into the ring, and, while a snapshot is told, a place in the table.
///
/// It runs as one chain of short tasks: each reads some entries or a slice of the table into a batch of its own, with
/// nothing locked or pinned afterwards, tells that, and sees to the next task.
///
/// @par Snapshot and follow. The table is walked in slices; one goes like this. First the feed is read up to the end of
///   the slice before (`end`): changes of names that are not walked yet are skipped, since their state will have them.
///   Then the head is noted (`begin`), the slice's states are copied, and the head is noted again (`end`). Of the
///   changes up to there, those of a name of this slice are told when they are newer than its state, or, where it had
///   none, from `begin` on; those of names walked earlier, all.
/// @par Lapped: the cursor goes to the head, and the table is walked once round, from where a walk was.
/// @par Threads  What is not said to be guarded belongs to the chain.
class Follower : public Following, public std::enable_shared_from_this<Follower> {
 public:
  using Listener = std::function<void(const Change&)>;

  Follower(std::shared_ptr<Core> core, Filter filter, Listener onChange, FollowOptions options);
  Follower(const Follower&) = delete;
  Follower& operator=(const Follower&) = delete;
  ~Follower() override;

  /// Before the first task, while the journal records.
  void begin();
  /// One task.
  void run();
  /// Waits for the task that runs, except its own, and takes it out of the journal.
  void end() noexcept override;
  void pause() noexcept override;
  void resume() override;

  Position position() const noexcept override;
  FollowerInfo info() const;
  bool isPrompt() const noexcept { return options_.promptness == Promptness::Prompt; }

  Ring::Sleeper sleeper;  // Guarded by the ring's lock.

 private:
  enum class Outcome { More, CaughtUp, Retry };

  struct Told {
    enum class Type : std::uint8_t { Change, Unchanged, Gap, Complete };
    Type type = Type::Change;
    bool isDue = false;  // Let through by the rate already.
    std::uint32_t nameLength = 0;
    std::size_t nameAt = 0;  // In `names`, which moves as it grows.
    journal::Change change;  // Of the completion: the place alone.
  };
  /// Read and not told yet.
  struct Batch {
    std::vector<Told> all;
    std::string names;
    std::vector<std::shared_ptr<const std::string>> authors;  // What the changes look at.
    std::optional<journal::Gap> gap;                          // No more than one.
    std::size_t next = 0;

    bool isEmpty() const noexcept { return next == all.size(); }
    void clear() noexcept;
    Told& add(Told::Type type, std::string_view name = {});
    std::string_view nameOf(const Told& told) const noexcept;
  };
  /// A round through the table, or through the keys of an exact filter.
  struct Walk {
    std::optional<std::uint64_t> since;  // Keys that did not change after this are only named. None: all are told.
    std::uint64_t start = 0;
    std::uint64_t progress = 0;   // How far from `start`, round the end.
    std::uint64_t sliceFrom = 0;  // The progress at which the last slice began.
    std::uint64_t begin = 0;      // The head before it,
    std::uint64_t end = 0;        // and after.
  };
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>()(text); }
  };
  class Collector;

  // follower.cpp: running, telling, sleeping.
  bool enter() noexcept;
  bool leave() noexcept;
  bool isAtRest();
  Outcome work();
  bool tell(Told& told);
  void callBack(Told& told);
  void moveTo(std::uint64_t revision) noexcept;
  void schedule(Outcome outcome) noexcept;
  void sleep();
  bool post(std::chrono::nanoseconds delay);
  void dropCallbacks() noexcept;

  // follower_read.cpp: reading the feed and the table.
  bool refill();
  bool refillDue();
  void read(const Entry& entry, std::uint64_t revision);
  bool isWalkedPast(const Entry& entry, std::uint64_t revision) const;
  void readOn(std::span<const Entry> entries);
  bool refillAtEnd();
  void walkSlice();
  std::uint64_t showSlice(Collector& collector) const;
  void startWalk(std::optional<std::uint64_t> since);
  void fallBehind();
  void addGap(const Gap& gap);
  std::uint64_t roundLength() const noexcept;
  std::uint64_t distanceOf(std::string_view name) const noexcept;
  const std::shared_ptr<const std::string>& authorOf(std::uint32_t number);

  const std::shared_ptr<Core> core_;
  const Filter filter_;
  Listener onChange_;  // These two go when the follower has ended and no callback runs.
  FollowOptions options_;
  const std::uint64_t behind_;
  const Author who_ = Author::present();
  std::atomic<std::uint64_t> gaps_{0};

  std::uint64_t cursor_ = 0;
  std::optional<Walk> walk_;
  std::unordered_map<std::string, std::uint64_t, Hash, std::equal_to<>>
      slice_;                                // Revisions of the last slice's states.
  std::optional<std::uint64_t> completeAt_;  // To be told once the cursor is past it, where there was nothing to walk.
  std::optional<Rates> rates_;
  Batch batch_;
  int looks_ = 0;        // In a row that found nothing.
  bool isBusy_ = false;  // It looks by itself rather than be woken.
  std::chrono::steady_clock::time_point asleepSince_ = std::chrono::steady_clock::time_point::min();
  bool isNews_ = false;  // Something was read since all was told.
  std::uint32_t knownAuthor_ = 0;
  std::shared_ptr<const std::string> knownText_;
  std::atomic<std::uint64_t> position_{0};
  std::exception_ptr thrown_;  // By a callback.

  mutable Mutex mutex_;  // A leaf; held for moments.
  std::condition_variable stopped_;
  std::thread::id running_ HX_GUARDED_BY(mutex_);
  std::atomic<bool> ended_{false};                   // Written under `mutex_`.
  bool left_ HX_GUARDED_BY(mutex_) = false;          // Taken out of the journal,
  bool leftByItself_ HX_GUARDED_BY(mutex_) = false;  // from a callback of its own.
  std::atomic<bool> paused_{false};                  // Written under `mutex_`.
  bool parked_ HX_GUARDED_BY(mutex_) = false;        // No task is under way, for it is paused.
};

}  // namespace HX::journal
