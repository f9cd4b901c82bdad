#pragma once

#include <hxerror/mutex.h>

#include <atomic>
#include <cstdint>

namespace HX {

/// A mutex of four bytes, for records of which there are many: it fits beside what it guards on one cache line, where a
/// std::mutex takes most of a line for itself.
///
/// @par Threads  Not recursive. Waiting sleeps; it does not spin for longer than the standard library's atomics do.
///   Waiters get in in no order, so it is meant for sections of a few instructions that call nothing foreign.
/// @par Memory ordering  As std::mutex: locking acquires, unlocking releases.
/// @par Hazards  Unlocking may touch the lock after another thread has got it: who destroys it must know that nobody is
///   in it or leaving, not merely that it is free.
///
/// Free, held, or held with someone waiting. Whoever has waited keeps the third state, for there may be others, and so
/// wakes one of them, or nobody, when it leaves.
class HX_CAPABILITY WordLock {
 public:
  WordLock() = default;
  WordLock(const WordLock&) = delete;
  WordLock& operator=(const WordLock&) = delete;

  void lock() noexcept HX_ACQUIRE() {
    std::uint32_t free = kFree;
    if (!state_.compare_exchange_strong(free, kHeld, std::memory_order_acquire, std::memory_order_relaxed)) [[unlikely]]
      wait();
  }

  void unlock() noexcept HX_RELEASE() {
    if (state_.exchange(kFree, std::memory_order_release) == kWaitedFor) [[unlikely]]
      state_.notify_one();
  }

 private:
  static constexpr std::uint32_t kFree = 0;
  static constexpr std::uint32_t kHeld = 1;
  static constexpr std::uint32_t kWaitedFor = 2;

  void wait() noexcept {
    while (state_.exchange(kWaitedFor, std::memory_order_acquire) != kFree) {
      state_.wait(kWaitedFor, std::memory_order_relaxed);
    }
  }

  std::atomic<std::uint32_t> state_{kFree};
};

}  // namespace HX
