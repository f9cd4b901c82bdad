#pragma once

#include "follower.h"
#include "ring.h"

#include <hxerror/mutex.h>
#include <hxjournal/journal.h>

#include <atomic>
#include <condition_variable>
#include <list>
#include <memory>

namespace HX::journal {

/// What journal and followers share: the ring, who follows, and whether anything is recorded. It outlives the journal
/// in tasks that are still queued; those do nothing once it is closed.
class Core : public std::enable_shared_from_this<Core> {
 public:
  Core(Source& source, std::shared_ptr<Executor> executor, const Journal::Options& options);

  std::shared_ptr<Follower> join(Filter filter, Follower::Listener onChange, FollowOptions options);
  void leave(const Follower& follower) noexcept;
  void keep(bool on);
  void close() noexcept;
  bool isRecording() const;
  Position latest() const noexcept;
  /// As `Journal::retained`, but from the first change on that is not older than `time`.
  Retained retainedFrom(TimePoint time);
  /// As `Journal::scan` and `Journal::followers`.
  void scan(const Filter& filter, const std::function<void(const Change&)>& use);
  std::vector<FollowerInfo> followers() const;

  /// Has those woken who sleep. From any thread that holds none of the locks.
  /// @param isLast  The caller does nothing more after it but return: it may wake them itself, when it has.
  void ringBell(bool isLast) noexcept;

  Ring ring;
  Source& source;
  const std::shared_ptr<Executor> executor;
  const std::uint64_t epoch;

 private:
  using Followers = std::list<std::shared_ptr<Follower>>;

  void beginRecording() HX_REQUIRES(mutex_);
  void endRecording() noexcept HX_REQUIRES(mutex_);
  bool later(void (Core::*step)(), std::chrono::nanoseconds delay);
  void linger() noexcept HX_REQUIRES(mutex_);
  void lingerFor(std::chrono::nanoseconds time) noexcept HX_REQUIRES(mutex_);
  void endLinger();
  void bell();
  void runSoon(const std::shared_ptr<Follower>& follower);
  std::shared_ptr<Follower> nextSleeper();
  std::shared_ptr<Follower> nextRelaxed();
  void lookLater() noexcept HX_REQUIRES(mutex_);
  void look();

  const std::chrono::nanoseconds lingerTime_;

  mutable Mutex mutex_;  // Outer to the table's lock.
  std::condition_variable somebodyLeft_;
  Followers followers_ HX_GUARDED_BY(mutex_);
  bool recording_ HX_GUARDED_BY(mutex_) = false;
  bool keep_ HX_GUARDED_BY(mutex_) = false;
  bool closed_ HX_GUARDED_BY(mutex_) = false;
  bool lingering_ HX_GUARDED_BY(mutex_) = false;  // A task is under way that ends the recording.
  std::chrono::steady_clock::time_point lingerUntil_ HX_GUARDED_BY(mutex_);
  // The look that followers who need no promptness share.
  bool looking_ HX_GUARDED_BY(mutex_) = false;
  std::uint64_t lookedAt_ HX_GUARDED_BY(mutex_) = 0;
  int looksWithout_ HX_GUARDED_BY(mutex_) = 0;
};

}  // namespace HX::journal
