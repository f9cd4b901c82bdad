#pragma once

#include <libmw/clock.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <mutex>

namespace korvo {

/// How often something happens, and how evenly, of late.
///
/// @par Threads  Any.
class Frequency {
 public:
  /// What lies further back does not count.
  static constexpr std::chrono::seconds kSpan{10};

  struct Summary {
    std::size_t count = 0;  ///< Of happenings; with fewer than two the others say nothing.
    double perSecond = 0;
    double least = 0;  ///< Seconds between one and the next.
    double most = 0;
    double deviation = 0;  ///< Of these seconds from their mean, root of the mean square.
  };

  /// It happened. A time before the latest one counts as that.
  void see(mw::SystemTimePoint at);
  Summary summary(mw::SystemTimePoint now);

 private:
  std::mutex mutex_;  // Guards `seen_`.
  std::deque<mw::SystemTimePoint> seen_;
};

}  // namespace korvo
