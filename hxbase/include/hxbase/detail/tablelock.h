#pragma once

#include <hxerror/mutex.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace HX {

/// A reader/writer lock for tables that are read from many threads all the time and change now and then.
///
/// Readers of different threads share no cache line: each thread counts itself on one of several counters, a line
/// apiece, so that entering and leaving cost one atomic step each, however many read at once. A writer pays for it: it
/// closes every counter, and waits until each is back at nothing.
///
/// @par Fairness  Phases. A reader that comes while a writer waits or writes gets in before the next writer does; a
///   writer waits for the readers that are in, and for those that waited for the writer before it, but for none that
///   comes later. So neither side can keep the other out, however busy it is. Among themselves writers come in any
///   order.
/// @par Memory ordering  A counter holds the number of readers in its upper bits and "closed" in its lowest: the one
///   step that counts a reader also tells it whether it was refused, so nothing depends on the order of two variables.
///   Entering acquires what the last writer released by opening the counter; leaving releases to the next writer, who
///   acquires by reading the counter empty. Readers order nothing between themselves.
/// @par Hazards  Not recursive, on either side: a thread that holds the shared side and asks for it again waits for
///   ever if a writer came between. Who takes the shared side releases it, on the same thread. The lock must outlive
///   everyone in it or waiting for it. It knows no time-outs.
class HX_CAPABILITY TableLock {
 public:
  TableLock() = default;
  TableLock(const TableLock&) = delete;
  TableLock& operator=(const TableLock&) = delete;

  void lock_shared() HX_ACQUIRE_SHARED() {
    auto& readers = ofThisThread();
    if (readers.fetch_add(kOneReader, std::memory_order_acquire) & kClosed) [[unlikely]]
      waitForWriter(readers);
  }

  void unlock_shared() HX_RELEASE_SHARED() {
    if (ofThisThread().fetch_sub(kOneReader, std::memory_order_release) & kClosed) [[unlikely]]
      tellWriter();
  }

  void lock() HX_ACQUIRE();
  void unlock() HX_RELEASE();

 private:
  using Readers = std::atomic<std::uint32_t>;
  static constexpr std::uint32_t kClosed = 1;
  static constexpr std::uint32_t kOneReader = 2;
  static constexpr std::size_t kCacheLine = 64;
  static constexpr std::size_t kCounters = 16;  // Threads beyond these share, which is slower and as right.

  struct alignas(kCacheLine) Counter {
    Readers readers{0};
  };

  // Threads are numbered in the order in which they first come. 0: not yet. The fastest model of thread-local storage
  // takes four bytes of what a process reserves for libraries that it loads while it runs.
  [[gnu::tls_model("initial-exec")]] static constinit thread_local std::uint32_t threadNumber;
  static std::uint32_t numberThisThread() noexcept;

  Readers& ofThisThread() noexcept {
    const std::uint32_t number = threadNumber;
    return counters_[(number != 0 ? number : numberThisThread()) % kCounters].readers;
  }

  void waitForWriter(Readers& readers);
  void tellWriter();
  bool isEmpty() const noexcept;

  std::array<Counter, kCounters> counters_;

  Mutex mutex_;                                      // Guards the closing and opening of the counters, too.
  std::condition_variable drained_;                  // A reader has left a closed counter.
  std::condition_variable writersTurn_;              // Nobody writes, and the readers that were due are in.
  std::condition_variable readersTurn_;              // `phase_` has changed.
  bool writing_ HX_GUARDED_BY(mutex_) = false;       // A writer is in, or waits for the readers that are.
  std::uint32_t waiting_ HX_GUARDED_BY(mutex_) = 0;  // Readers that wait for it to end,
  std::uint32_t due_ HX_GUARDED_BY(mutex_) = 0;      // and those that waited for the one before it and are not in yet.
  std::uint64_t phase_ HX_GUARDED_BY(mutex_) = 0;    // Writers so far.
};

}  // namespace HX
