#pragma once

#include <chrono>
#include <mutex>
#include <string>

namespace HX {

/// The recursive lock around the subscriptions of one item, which is held while subscribers are called.
///
/// A subscriber that does not return keeps everybody from the item; two events whose subscribers raise each other
/// crosswise on two threads keep each other for ever. Neither can be prevented without calling subscribers unlocked, so
/// it is made visible: who waits longer than the patience logs, once, for which event and subscriber, and inside which
/// notification.
class NotifierLock {
 public:
  /// @param event  Name of the item; must outlive the lock.
  explicit NotifierLock(const std::string& event) : event_(event) {}
  NotifierLock(const NotifierLock&) = delete;
  NotifierLock& operator=(const NotifierLock&) = delete;

  void lock();
  void unlock() { mutex_.unlock(); }

  /// One call of a subscriber, made by the thread that holds the lock.
  class Call {
   public:
    /// @param subscriber  Must outlive the call.
    Call(NotifierLock& lock, const std::string& subscriber);
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;
    ~Call();

   private:
    friend NotifierLock;
    NotifierLock& lock_;
    const std::string& subscriber_;
    const Call* const outerOfLock_;
    const Call* const outerOfThread_;
  };

  /// How long to wait before saying so, 5 seconds at first. For all items.
  static void setPatience(std::chrono::milliseconds patience);

 private:
  void reportWait() const;

  const std::string& event_;
  std::recursive_timed_mutex mutex_;
  mutable std::mutex callLock_;  // Guards `call_`; nothing else is locked while it is held.
  const Call* call_ = nullptr;   // The innermost call of the thread that holds the lock.
};

}  // namespace HX
