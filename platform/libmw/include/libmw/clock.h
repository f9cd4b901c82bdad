#pragma once

#include <hxerror/api.h>

#include <chrono>

namespace mw {

using SystemClock = std::chrono::system_clock;

/// Wall-clock time in signed 64-bit nanoseconds since the epoch, whatever the resolution of the library's clock.
using SystemTimePoint = std::chrono::time_point<SystemClock, std::chrono::nanoseconds>;

/// The current wall-clock time. Not monotonic: it jumps when somebody sets the clock, so intervals and time-outs
/// are measured with std::chrono::steady_clock instead. Safe from any thread; does not allocate.
HX_API SystemTimePoint systemNow() noexcept;

/// A function that tells the time in place of the system's clock.
using SystemClockSource = SystemTimePoint (*)() noexcept;

/// Makes systemNow() ask `source`, process-wide, so that tests decide what time it is.
///
/// @param source  Null restores the system's clock.
/// @return The source in use before, null for the system's clock; hand it back to restore it.
HX_API SystemClockSource exchangeSystemClock(SystemClockSource source) noexcept;

}  // namespace mw
