#pragma once

#include <hxerror/api.h>

#include <chrono>

namespace HX {

/// Measures the time between a `start` and a `stop` on the steady clock.
///
/// @par Threads  One at a time.
class HX_API Stopwatch {
 public:
  /// @param offsetNs  Nanoseconds added to every measurement: what was measured before, or, negative, the cost of
  ///   measuring to be left out; usually 0.
  explicit Stopwatch(int offsetNs) noexcept : offset_(offsetNs) {}

  void start() noexcept;
  void stop() noexcept;

  /// Nanoseconds between the last start and the last stop; the offset alone before the first.
  ///
  /// The result is 32 bits wide, as its callers print it: it wraps round for measurements beyond 2.1 seconds.
  int diffNs() const noexcept;

 private:
  using Clock = std::chrono::steady_clock;

  std::chrono::nanoseconds offset_;
  Clock::time_point started_;
  Clock::time_point stopped_;
};

}  // namespace HX
