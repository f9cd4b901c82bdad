#include <hxbase/detail/tablelock.h>
#include <hxerror/mutex.h>

#include <algorithm>
#include <utility>

namespace HX {

constinit thread_local std::uint32_t TableLock::threadNumber = 0;

std::uint32_t TableLock::numberThisThread() noexcept {
  static std::atomic<std::uint32_t> last{0};
  do {
    threadNumber = last.fetch_add(1, std::memory_order_relaxed) + 1;
  } while (threadNumber == 0);
  return threadNumber;
}

void TableLock::waitForWriter(Readers& readers) {
  MutexLock lock(mutex_);
  readers.fetch_sub(kOneReader, std::memory_order_release);
  drained_.notify_one();  // The writer may have counted the attempt.
  if (writing_) {
    ++waiting_;
    readersTurn_.wait(lock.native(), [this, phase = phase_]() HX_REQUIRES(mutex_) { return phase_ != phase; });
    // No writer comes before this reader is in: it is one of those that are due.
    if (--due_ == 0) writersTurn_.notify_one();
  }
  readers.fetch_add(kOneReader, std::memory_order_acquire);
}

void TableLock::tellWriter() {
  // Under the mutex: between its look at the counters and its wait the writer must miss nothing.
  const MutexLock lock(mutex_);
  drained_.notify_one();
}

void TableLock::lock() {
  MutexLock lock(mutex_);
  writersTurn_.wait(lock.native(), [this]() HX_REQUIRES(mutex_) { return !writing_ && due_ == 0; });
  writing_ = true;
  for (Counter& counter : counters_) counter.readers.fetch_or(kClosed, std::memory_order_relaxed);
  drained_.wait(lock.native(), [this] { return isEmpty(); });
}

void TableLock::unlock() {
  const MutexLock lock(mutex_);
  for (Counter& counter : counters_) counter.readers.fetch_and(~kClosed, std::memory_order_release);
  writing_ = false;
  ++phase_;
  due_ = std::exchange(waiting_, 0);
  if (due_ != 0) {
    readersTurn_.notify_all();
  } else {
    writersTurn_.notify_one();
  }
}

bool TableLock::isEmpty() const noexcept {
  return std::ranges::all_of(
      counters_, [](const Counter& counter) { return counter.readers.load(std::memory_order_acquire) == kClosed; });
}

}  // namespace HX
