#include "logcategories.h"

#include <hxbase/notifierlock.h>

#include <atomic>

namespace HX {
namespace {

std::atomic<std::chrono::milliseconds> waitPatience{std::chrono::seconds(5)};

/// What the calling thread is inside of.
thread_local const NotifierLock::Call* innermost = nullptr;

}  // namespace

NotifierLock::Call::Call(NotifierLock& lock, const std::string& subscriber)
    : lock_(lock), subscriber_(subscriber), outerOfLock_(lock.call_), outerOfThread_(innermost) {
  const std::lock_guard guard(lock_.callLock_);
  lock_.call_ = this;
  innermost = this;
}

NotifierLock::Call::~Call() {
  const std::lock_guard guard(lock_.callLock_);
  lock_.call_ = outerOfLock_;
  innermost = outerOfThread_;
}

void NotifierLock::lock() {
  if (mutex_.try_lock()) return;
  // By the system clock, because ThreadSanitizer does not see locks that are taken by the steady one. A clock that is
  // set meanwhile moves a log line, nothing more.
  if (mutex_.try_lock_until(std::chrono::system_clock::now() + waitPatience.load())) return;
  reportWait();
  mutex_.lock();
}

void NotifierLock::setPatience(std::chrono::milliseconds patience) { waitPatience = patience; }

void NotifierLock::reportWait() const {
  std::string text =
      "event " + event_ + " has been waited for longer than " + std::to_string(waitPatience.load().count()) + " ms";
  {
    const std::lock_guard guard(callLock_);
    if (call_) text += ", while it notifies " + call_->subscriber_;
  }
  if (innermost) {
    text += "; waiting is " + innermost->subscriber_ + ", which was notified of event " + innermost->lock_.event_;
  }
  HX_LOG_AS(Warning, itemCategory(), "notify", text);
}

}  // namespace HX
