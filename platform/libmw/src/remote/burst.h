#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>

namespace mw::remote {

/// Tells calls that are made one right after another, and are to leave together, from those made on their own.
///
/// The first of several does not know of the others. It leaves at once, so that a call on its own is not late; that
/// wakes up the peer, and whoever the peer tells of it, for one call. Where the last few like it each began a burst, it
/// is taken to begin another one.
///
/// @par Threads  One at a time, but for `sent`.
class BurstForecast {
 public:
  using Clock = std::chrono::steady_clock;

  enum class Place : std::uint8_t {
    Alone,    ///< For all that is known: it leaves at once.
    First,    ///< Others will follow.
    Follows,  ///< It was made right after another.
  };

  /// A call is made, whose caller goes on.
  Place place(Clock::time_point now) {
    const auto pause = now - last_.exchange(now, std::memory_order_relaxed);
    if (pause < kApart) {
      ++size_;
      return Place::Follows;
    }
    bursts_ = size_ >= kMany && pause < kForgotten ? std::min(bursts_ + 1, kSure) : 0;
    size_ = 1;
    return bursts_ == kSure ? Place::First : Place::Alone;
  }

  /// A call that did not follow has been sent, which may have taken a while.
  void sent(Clock::time_point now) { last_.store(now, std::memory_order_relaxed); }

  /// Calls that follow one another faster are made in one go: no answer comes so soon.
  static constexpr std::chrono::microseconds kApart{4};
  /// So many of them are a burst.
  static constexpr int kMany = 8;
  /// After so many in a row the next one is expected.
  static constexpr int kSure = 8;
  /// After so long nothing is expected.
  static constexpr std::chrono::milliseconds kForgotten{100};

 private:
  std::atomic<Clock::time_point> last_{Clock::time_point()};
  int size_ = 0;    // of the present burst
  int bursts_ = 0;  // in a row, before it; no more than `kSure` of them count
};

}  // namespace mw::remote
