#include <hxview/clock.h>

#include <algorithm>
#include <atomic>
#include <ctime>

namespace HX::view {
namespace {

std::int64_t read(clockid_t clock) noexcept {
  timespec time{};
  ::clock_gettime(clock, &time);
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

// How far the system's clock is ahead. Both are asked one after the other, so it is right but for what lies between.
std::atomic<std::int64_t> ahead{0};

// The coarse clock is behind by up to a tick, and the system's clock may have been asked a moment ago.
constexpr std::int64_t kEarliest = -1'000'000;
constexpr std::int64_t kLatest = 11'000'000;

}  // namespace

std::uint64_t monotonicNow() noexcept { return static_cast<std::uint64_t>(read(CLOCK_MONOTONIC)); }

std::uint64_t monotonicRecently() noexcept { return static_cast<std::uint64_t>(read(CLOCK_MONOTONIC_COARSE)); }

std::uint64_t monotonicAt(std::int64_t systemNanoseconds) noexcept {
  // Unsigned, for any time may be said.
  const std::uint64_t guess =
      static_cast<std::uint64_t>(systemNanoseconds) - static_cast<std::uint64_t>(ahead.load(std::memory_order_relaxed));
  const auto later = static_cast<std::int64_t>(guess - monotonicRecently());
  if (later >= kEarliest && later <= kLatest) return guess;
  const std::int64_t monotonic = read(CLOCK_MONOTONIC);
  ahead.store(read(CLOCK_REALTIME) - monotonic, std::memory_order_relaxed);
  return static_cast<std::uint64_t>(monotonic);
}

std::uint64_t monotonicThen(std::int64_t systemNanoseconds) noexcept {
  const std::int64_t monotonic = read(CLOCK_MONOTONIC);
  const std::int64_t ago = read(CLOCK_REALTIME) - std::max<std::int64_t>(systemNanoseconds, 0);
  return static_cast<std::uint64_t>(std::clamp<std::int64_t>(monotonic - ago, 0, monotonic));
}

}  // namespace HX::view
