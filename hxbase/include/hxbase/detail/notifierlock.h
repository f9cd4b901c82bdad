#pragma once

#include <hxcommon/memoryinsight.h>
#include <hxerror/mutex.h>
#include <hxvalue/detail/wordlock.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <vector>

namespace HX {

/// The recursive lock around the subscriptions of one item, which is held while subscribers are called.
///
/// A subscriber that does not return keeps its raiser and everybody else from the item; two events whose subscribers
/// raise each other crosswise on two threads keep each other for ever. Neither can be prevented without calling
/// subscribers unlocked, so it is made visible: who waits longer than the patience logs, once, for which event and
/// subscriber, and inside which notification; and `patrol` logs, once, which call lasts longer.
class HX_CAPABILITY NotifierLock {
  struct Thread;  // What one thread is calling.
  class Threads;  // All of them, for who waits and for the patrol.

 public:
  /// @param event  Name of the item; must outlive the lock.
  explicit NotifierLock(const std::string& event) : event_(event) {}
  NotifierLock(const NotifierLock&) = delete;
  NotifierLock& operator=(const NotifierLock&) = delete;

  void lock() HX_ACQUIRE();
  void unlock() HX_RELEASE() { mutex_.unlock(); }
  /// The same, for a raise: where another process has asked for it, about as long as that wants it.
  /// @throws std::runtime_error when it does not any more.
  void lockForCaller() HX_ACQUIRE();

  /// The calls of subscribers that one notification makes, one after another, on the thread that holds the lock.
  class Calls {
   public:
    explicit Calls(NotifierLock& lock) HX_REQUIRES(lock);
    Calls(const Calls&) = delete;
    Calls& operator=(const Calls&) = delete;
    ~Calls();

    /// @param subscriber  Who is called next. Must outlive this object, for who waits may be reading it.
    void next(const std::string& subscriber);

   private:
    friend NotifierLock;
    NotifierLock& lock_;
    Thread& thread_;
    std::atomic<const std::string*> subscriber_{nullptr};
    const Calls* const outer_;  // of the same thread
  };

  /// How long to wait before saying so, 5 seconds at first. For all items.
  static void setPatience(std::chrono::milliseconds patience);
  static std::chrono::milliseconds patience();

  /// Looks at the calls of all threads, and logs those that last longer than the patience. To be called several times
  /// in that time.
  static void patrol();

  /// The subscribers that are being called, of all threads.
  static std::vector<MemoryInsight::Call> calls();
  /// The threads that wait for a lock.
  static std::vector<MemoryInsight::Wait> waits();

 private:
  class Waiting;  // While one lives, the thread waits for a lock.
  void reportWait() const;

  const std::string& event_;
  std::recursive_timed_mutex mutex_;
};

}  // namespace HX
