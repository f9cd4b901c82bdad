#include "logcategories.h"

#include <hxauthor/author.h>
#include <hxbase/detail/notifierlock.h>
#include <hxerror/mutex.h>
#include <libmw/servedcall.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <utility>
#include <vector>

namespace HX {
namespace {

std::atomic<std::chrono::milliseconds> waitPatience{std::chrono::seconds(5)};

#ifndef __has_feature
#define __has_feature(feature) 0
#endif
#if defined(__SANITIZE_THREAD__) || __has_feature(thread_sanitizer)
using PatienceClock =
    std::chrono::system_clock;  // ThreadSanitizer does not see locks that are taken by the steady one.
#else
using PatienceClock = std::chrono::steady_clock;
#endif
/// How long a raise goes on waiting when its caller has given up.
constexpr std::chrono::milliseconds kStep{200};

}  // namespace

/// What one thread is inside of. Known to the others as long as the thread lives.
struct NotifierLock::Thread {
  Thread();
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;
  ~Thread();

  static Thread& current() {
    static thread_local Thread the;
    return the;
  }

  WordLock reading;  // Held by whoever reads what `innermost` points to, and to end that.
  std::atomic<const Calls*> innermost{nullptr};
  std::atomic<std::uint64_t> step{0};  // another one with each call, written by the thread alone

  std::atomic<const NotifierLock*> waitsFor{nullptr};  // Its end is noted with `reading` held.
  std::atomic<PatienceClock::rep> waitsSince{0};
  std::atomic<std::uint32_t> waitsAs{0};  // The author.

  // For the patrol, and for those who ask how long a call lasts: what it saw last. Under the lock of `Threads`.
  std::uint64_t seenStep = 0;
  PatienceClock::time_point seenSince;
  bool isReported = false;

  void nextStep() { step.store(step.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed); }

  /// @return The notification of that event that the thread is inside of; null when it is in none.
  const Calls* find(const NotifierLock& lock) const {
    const Calls* calls = innermost.load(std::memory_order_acquire);
    while (calls && &calls->lock_ != &lock) calls = calls->outer_;
    return calls;
  }
};

class NotifierLock::Threads {
 public:
  static Threads& instance() {
    static Threads* const the = new Threads;  // Never destroyed: threads may end after everything else.
    return *the;
  }

  void add(Thread& thread) {
    const MutexLock lock(mutex_);
    all_.push_back(&thread);
  }
  void remove(Thread& thread) {
    const MutexLock lock(mutex_);
    std::erase(all_, &thread);
  }

  /// Calls `look` with each thread, which may read meanwhile what that is inside of.
  template <class Look>
  void forEach(const Look& look) {
    const MutexLock lock(mutex_);
    for (Thread* const thread : all_) {
      const Lock reading(thread->reading);
      look(*thread);
    }
  }

 private:
  Mutex mutex_;  // Outer to the `reading` of each.
  std::vector<Thread*> all_ HX_GUARDED_BY(mutex_);
};

NotifierLock::Thread::Thread() { Threads::instance().add(*this); }
NotifierLock::Thread::~Thread() { Threads::instance().remove(*this); }

class NotifierLock::Waiting {
 public:
  explicit Waiting(const NotifierLock& lock) {
    thread_.waitsSince.store(PatienceClock::now().time_since_epoch().count(), std::memory_order_relaxed);
    thread_.waitsAs.store(Author::presentNumber(), std::memory_order_relaxed);
    thread_.waitsFor.store(&lock, std::memory_order_release);
  }
  Waiting(const Waiting&) = delete;
  Waiting& operator=(const Waiting&) = delete;
  ~Waiting() {
    const Lock guard(thread_.reading);
    thread_.waitsFor.store(nullptr, std::memory_order_relaxed);
  }

 private:
  Thread& thread_ = Thread::current();
};

NotifierLock::Calls::Calls(NotifierLock& lock)
    : lock_(lock), thread_(Thread::current()), outer_(thread_.innermost.load(std::memory_order_relaxed)) {
  thread_.innermost.store(this, std::memory_order_release);
}

NotifierLock::Calls::~Calls() {
  const Lock guard(thread_.reading);
  thread_.innermost.store(outer_, std::memory_order_relaxed);
  thread_.nextStep();
}

void NotifierLock::Calls::next(const std::string& subscriber) {
  thread_.nextStep();  // First: a patrol between the two takes the earlier subscriber for a new one, and waits.
  subscriber_.store(&subscriber, std::memory_order_release);
}

void NotifierLock::lock() {
  if (mutex_.try_lock()) return;
  const Waiting waiting(*this);
  if (mutex_.try_lock_until(PatienceClock::now() + waitPatience.load())) return;
  reportWait();
  mutex_.lock();
}

void NotifierLock::lockForCaller() {
  if (mutex_.try_lock()) return;
  const auto givenUp = mw::stopOfServedCall();
  if (!givenUp.stop_possible()) return lock();
  const Waiting waiting(*this);
  // In steps: what could wake the thread at once would take room in every item, for what waits in next to none.
  const auto reportAt = PatienceClock::now() + waitPatience.load();
  for (bool isReported = false; !mutex_.try_lock_until(PatienceClock::now() + std::min(kStep, waitPatience.load()));) {
    if (givenUp.stop_requested()) {
      throw std::runtime_error("event " + event_ + " was waited for, and whoever raised it has given up");
    }
    if (!isReported && PatienceClock::now() >= reportAt) {
      reportWait();
      isReported = true;
    }
  }
}

void NotifierLock::setPatience(std::chrono::milliseconds patience) { waitPatience = patience; }
std::chrono::milliseconds NotifierLock::patience() { return waitPatience; }

void NotifierLock::reportWait() const {
  std::string text =
      "event " + event_ + " has been waited for longer than " + std::to_string(waitPatience.load().count()) + " ms";
  Threads::instance().forEach([&](const Thread& thread) {
    // One thread at most is inside of it: calls are made with the lock held.
    const Calls* const calls = thread.find(*this);
    const std::string* const subscriber = calls ? calls->subscriber_.load(std::memory_order_acquire) : nullptr;
    if (subscriber) text += ", while it notifies " + *subscriber;
  });
  const Calls* const own = Thread::current().innermost.load(std::memory_order_relaxed);
  if (const std::string* self = own ? own->subscriber_.load(std::memory_order_relaxed) : nullptr) {
    text += "; waiting is " + *self + ", which was notified of event " + own->lock_.event_;
  }
  HX_LOG_AS(Warning, itemCategory(), "notify", text);
}

std::vector<MemoryInsight::Call> NotifierLock::calls() {
  std::vector<MemoryInsight::Call> found;
  Threads::instance().forEach([&](const Thread& thread) {
    const bool isSeen = thread.seenStep == thread.step.load(std::memory_order_relaxed);
    const Calls* calls = thread.innermost.load(std::memory_order_acquire);
    const Calls* const innermost = calls;
    for (; calls; calls = calls->outer_) {
      const std::string* const subscriber = calls->subscriber_.load(std::memory_order_acquire);
      if (!subscriber) continue;
      const bool isTimed = isSeen && calls == innermost;
      const auto lasts = isTimed ? PatienceClock::now() - thread.seenSince : PatienceClock::duration::zero();
      found.push_back({calls->lock_.event_, *subscriber, lasts});
    }
  });
  return found;
}

std::vector<MemoryInsight::Wait> NotifierLock::waits() {
  std::vector<MemoryInsight::Wait> found;
  std::vector<const NotifierLock*> awaited;  // Of each. May have gone by the time they are compared.
  std::vector<std::pair<const NotifierLock*, std::string>> called;
  Threads::instance().forEach([&](const Thread& thread) {
    const Calls* const innermost = thread.innermost.load(std::memory_order_acquire);
    for (const Calls* calls = innermost; calls; calls = calls->outer_) {
      const std::string* const subscriber = calls->subscriber_.load(std::memory_order_acquire);
      if (subscriber) called.emplace_back(&calls->lock_, *subscriber);
    }
    const NotifierLock* const lock = thread.waitsFor.load(std::memory_order_acquire);
    if (!lock) return;
    const std::string* const self = innermost ? innermost->subscriber_.load(std::memory_order_acquire) : nullptr;
    const auto author = Author::textOf(thread.waitsAs.load(std::memory_order_relaxed));
    const PatienceClock::time_point since(PatienceClock::duration(thread.waitsSince.load(std::memory_order_relaxed)));
    const auto lasts = PatienceClock::now() - since;  // Not by a time from before the look: the wait may be younger.
    found.push_back({lock->event_, self ? *self : author ? *author : std::string(), {}, lasts});
    awaited.push_back(lock);
  });
  for (std::size_t i = 0; i < found.size(); ++i) {
    for (const auto& [lock, subscriber] : called) {
      if (lock == awaited[i]) found[i].forWhom = subscriber;
    }
  }
  return found;
}

void NotifierLock::patrol() {
  const auto now = PatienceClock::now();
  const auto patience = waitPatience.load();
  std::vector<std::string> texts;
  Threads::instance().forEach([&](Thread& thread) {
    const std::uint64_t step = thread.step.load(std::memory_order_relaxed);
    const Calls* const calls = thread.innermost.load(std::memory_order_acquire);
    if (!calls || thread.seenStep != step) {
      thread.seenStep = step;
      thread.seenSince = now;
      thread.isReported = false;
      return;
    }
    const std::string* const subscriber = calls->subscriber_.load(std::memory_order_acquire);
    if (!subscriber || thread.isReported || now - thread.seenSince < patience) return;
    thread.isReported = true;
    texts.push_back("event " + calls->lock_.event_ + " has been notifying " + *subscriber + " for longer than " +
                    std::to_string(patience.count()) + " ms; who raised it waits");
  });
  for (const std::string& text : texts) HX_LOG_AS(Warning, itemCategory(), "notify", text);
}

}  // namespace HX
