#include <libmw/clock.h>

#include <atomic>

namespace mw {
namespace {
std::atomic<SystemClockSource> clockSource{nullptr};
}

SystemTimePoint systemNow() noexcept {
  if (const auto source = clockSource.load(std::memory_order_acquire)) return source();
  return SystemClock::now();
}

SystemClockSource exchangeSystemClock(SystemClockSource source) noexcept {
  return clockSource.exchange(source, std::memory_order_acq_rel);
}

}  // namespace mw
