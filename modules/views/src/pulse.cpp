#include "pulse.h"

#include <hxview/clock.h>

#include <atomic>
#include <new>
#include <pthread.h>
#include <sched.h>
#include <utility>

namespace HX {

Pulse::~Pulse() { stop(); }

void Pulse::stop() noexcept {
  std::thread thread;
  {
    const MutexLock lock(mutex_);
    stopped_ = true;
    thread.swap(thread_);
    changed_.notify_all();
  }
  if (thread.joinable()) thread.join();
}

void Pulse::beatIn(Segments segments, std::chrono::milliseconds interval) {
  beat(segments);  // Who has just got one looks at once.
  const MutexLock lock(mutex_);
  if (stopped_) return;
  if (!thread_.joinable() && !segments.empty()) thread_ = std::thread([this] { run(); });
  segments_.swap(segments);
  interval_ = interval;
  changed_.notify_all();
}

void Pulse::wakeLater(std::shared_ptr<const view::Shown> shown) noexcept {
  try {
    {
      const MutexLock lock(mutex_);
      if (stopped_) return;  // Those who wait are told of the end.
      // Whoever is to be woken twice, is woken once.
      if (due_.empty() || due_.back() != shown) due_.push_back(std::move(shown));
    }
    changed_.notify_all();  // The thread would find the lock held, and the writer would have to wake it again.
  } catch (const std::bad_alloc&) {
    shown->ring();  // Rather keep the writer.
  }
}

void Pulse::beat(const Segments& segments) noexcept {
  const std::uint64_t now = view::monotonicNow();
  for (const auto& segment : segments) segment->head().beat.store(now, std::memory_order_relaxed);
}

void Pulse::run() {
  // Woken by a writer, it does not take that one's processor away. Where this is refused, it only costs time.
  const sched_param none{};
  ::pthread_setschedparam(::pthread_self(), SCHED_BATCH, &none);
  std::vector<std::shared_ptr<const view::Shown>> due;
  auto next = std::chrono::steady_clock::now();
  MutexLock lock(mutex_);
  while (!stopped_) {
    if (!due_.empty()) {
      due.swap(due_);
      lock.unlock();
      for (const auto& shown : due) shown->ring();
      due.clear();
      lock.lock();
      continue;
    }
    const auto now = std::chrono::steady_clock::now();
    if (segments_.empty()) {
      changed_.wait(lock.native());
    } else if (next > now + interval_ || next <= now) {
      next = now + interval_;
      const Segments segments = segments_;
      lock.unlock();
      beat(segments);
      lock.lock();
    } else {
      changed_.wait_until(lock.native(), next);
    }
  }
}

}  // namespace HX
