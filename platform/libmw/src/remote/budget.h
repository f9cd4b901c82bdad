#pragma once

#include "channel.h"

#include <hxerror/mutex.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace mw::remote {

/// What all connections of the process hold together of one kind. A limit of each connection alone lets a thousand of
/// them take a thousand times as much.
///
/// Where it is too much, the peer that holds most loses the connection by which it holds most, until the rest fits. So
/// whoever holds no more than an equal part, the limit divided by the peers, never pays for others; to refuse those who
/// come last would let those who came first keep everybody else from being served.
///
/// @par Threads  Any.
class HX_API Budget {
 public:
  class Share;

  /// Of the process: messages that are not whole yet, and what has come and is not begun.
  static Budget& input();
  /// Of the process: what waits because its receiver does not read.
  static Budget& output();

  /// @param what  For the reason that whoever exceeds it is told.
  explicit Budget(std::string what) : what_(std::move(what)) {}

  /// What counts of all shares. For tests and diagnosis.
  std::size_t bytes() const { return static_cast<std::size_t>(steps_.load()) * kStep; }

 private:
  /// Less than this of a share is not told: a hundred short messages on their way cost the budget nothing.
  static constexpr std::size_t kStep = std::size_t{64} << 10;

  void join(Share& share);
  void leave(Share& share);
  void change(Share& share, std::ptrdiff_t steps);
  void relieve(std::size_t limit);
  Share* largestLocked() const HX_REQUIRES(mutex_);

  const std::string what_;
  std::atomic<std::ptrdiff_t> steps_{0};  // changed under `mutex_`
  HX::Mutex mutex_;                       // Guards what is its in the shares, too. Inner to all.
  std::vector<Share*> shares_ HX_GUARDED_BY(mutex_);
};

/// What one connection holds. One that was chosen to go does not count any more, and does not wait for its end.
class HX_API Budget::Share {
 public:
  /// @param limit  Of the budget, in bytes: it is kept whenever this share asks for it.
  Share(Budget& budget, std::size_t limit) : budget_(budget), limit_(limit) {}
  Share(const Share&) = delete;
  Share& operator=(const Share&) = delete;
  ~Share() { budget_.leave(*this); }

  /// From now on the share counts. Once.
  /// @param peer     Whose it is: all connections with one name count together.
  /// @param channel  Is ended when the share has to go.
  void join(std::string peer, std::weak_ptr<Channel> channel);

  void add(std::size_t size) {
    const std::size_t before = bytes_.fetch_add(size);
    tell(before, before + size);
  }
  void remove(std::size_t size) {
    const std::size_t before = bytes_.fetch_sub(size);
    tell(before, before - size);
  }
  void set(std::size_t size) { tell(bytes_.exchange(size), size); }

  /// Sees that all shares together are no more than the limit. With no lock held: it may end connections.
  void keepLimit() {
    if (budget_.bytes() > limit_) budget_.relieve(limit_);
  }
  /// Whether it was chosen to go.
  bool isOver() const { return isOver_; }

 private:
  friend Budget;
  void tell(std::size_t before, std::size_t after) {
    const auto steps = static_cast<std::ptrdiff_t>(after / kStep) - static_cast<std::ptrdiff_t>(before / kStep);
    if (steps != 0) budget_.change(*this, steps);
  }

  Budget& budget_;
  const std::size_t limit_;
  std::atomic<std::size_t> bytes_{0};

  // Under the lock of the budget.
  std::string peer_;
  std::weak_ptr<Channel> channel_;
  std::ptrdiff_t steps_ = 0;
  bool counts_ = false;
  std::atomic<bool> isOver_{false};  // read without it
};

}  // namespace mw::remote
