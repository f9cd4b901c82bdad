#include "logcategories.h"

#include <hxbase/notifierlock.h>

#include <atomic>

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

/// What the calling thread is inside of.
thread_local const NotifierLock::Calls* innermost = nullptr;

}  // namespace

NotifierLock::Calls::Calls(NotifierLock& lock)
    : lock_(lock), outerOfLock_(lock.calls_.load(std::memory_order_relaxed)), outerOfThread_(innermost) {
  lock.calls_.store(this, std::memory_order_release);
  innermost = this;
}

NotifierLock::Calls::~Calls() {
  innermost = outerOfThread_;
  const std::lock_guard guard(lock_.reading_);
  lock_.calls_.store(outerOfLock_, std::memory_order_relaxed);
}

void NotifierLock::lock() {
  if (mutex_.try_lock()) return;
  if (mutex_.try_lock_until(PatienceClock::now() + waitPatience.load())) return;
  reportWait();
  mutex_.lock();
}

void NotifierLock::setPatience(std::chrono::milliseconds patience) { waitPatience = patience; }

void NotifierLock::reportWait() const {
  std::string text =
      "event " + event_ + " has been waited for longer than " + std::to_string(waitPatience.load().count()) + " ms";
  {
    const std::lock_guard guard(reading_);
    const Calls* calls = calls_.load(std::memory_order_acquire);
    if (const std::string* subscriber = calls ? calls->subscriber_.load(std::memory_order_acquire) : nullptr) {
      text += ", while it notifies " + *subscriber;
    }
  }
  if (const std::string* self = innermost ? innermost->subscriber_.load(std::memory_order_relaxed) : nullptr) {
    text += "; waiting is " + *self + ", which was notified of event " + innermost->lock_.event_;
  }
  HX_LOG_AS(Warning, itemCategory(), "notify", text);
}

}  // namespace HX
