#pragma once

#include <hxerror/mutex.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace HX::journal {

/// A mutex for a section of some ten instructions that every writer of the memory goes through.
///
/// To let go of it is a plain store: nobody is woken, for nobody sleeps until woken. Who meets it held looks again a
/// few times, which outlasts the section, and then sleeps for moments: the holder was interrupted, and may be a thread
/// that runs when this one sleeps, and not before. A lock that wakes its waiters asks for them with a locked
/// instruction at each end, which is a tenth of what a write that is recorded costs.
///
/// @par Threads  Not recursive. Waiters get in in no order.
/// @par Memory ordering  As std::mutex: locking acquires, unlocking releases.
class HX_CAPABILITY RingLock {
 public:
  RingLock() = default;
  RingLock(const RingLock&) = delete;
  RingLock& operator=(const RingLock&) = delete;

  void lock() noexcept HX_ACQUIRE() {
    if (isHeld_.exchange(true, std::memory_order_acquire)) [[unlikely]]
      wait();
  }
  void unlock() noexcept HX_RELEASE() { isHeld_.store(false, std::memory_order_release); }

 private:
  static constexpr int kLooks = 200;
  static constexpr std::chrono::microseconds kSleep{20};

  void wait() noexcept {
    for (int look = 1; isHeld_.load(std::memory_order_relaxed) || isHeld_.exchange(true, std::memory_order_acquire);
         ++look) {
      if (look % kLooks == 0) std::this_thread::sleep_for(kSleep);
    }
  }

  std::atomic<bool> isHeld_{false};
};

}  // namespace HX::journal
