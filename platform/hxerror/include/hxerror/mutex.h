#pragma once

#include <hxerror/api.h>

#include <mutex>

// What clang checks about locks (-Wthread-safety, in the preset "clang"): which mutex guards a member, and which one a
// function needs. They take the place of comments that say so.
#if defined(__clang__)
#define HX_THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define HX_THREAD_ATTRIBUTE(attribute)
#endif

/// Of a member: it is used only by whoever holds the mutex.
#define HX_GUARDED_BY(mutex) HX_THREAD_ATTRIBUTE(guarded_by(mutex))
/// Of a function: whoever calls it holds the mutex.
#define HX_REQUIRES(mutex) HX_THREAD_ATTRIBUTE(requires_capability(mutex))

namespace HX {

/// A mutex whose users the compiler checks, which it cannot of those of the standard library.
class HX_THREAD_ATTRIBUTE(capability("mutex")) Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;
  ~Mutex() = default;

  void lock() HX_THREAD_ATTRIBUTE(acquire_capability()) { mutex_.lock(); }
  void unlock() HX_THREAD_ATTRIBUTE(release_capability()) { mutex_.unlock(); }

 private:
  friend class MutexLock;
  std::mutex mutex_;
};

/// Holds a mutex for a scope, or for less.
class HX_THREAD_ATTRIBUTE(scoped_lockable) MutexLock {
 public:
  /// @param mutex  Locked until the end of the scope, or `unlock`.
  explicit MutexLock(Mutex& mutex) HX_THREAD_ATTRIBUTE(acquire_capability(mutex)) : lock_(mutex.mutex_) {}
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;
  ~MutexLock() HX_THREAD_ATTRIBUTE(release_capability()) = default;

  void lock() HX_THREAD_ATTRIBUTE(acquire_capability()) { lock_.lock(); }
  void unlock() HX_THREAD_ATTRIBUTE(release_capability()) { lock_.unlock(); }
  /// For conditions to wait with: std::condition_variable.
  std::unique_lock<std::mutex>& native() { return lock_; }

 private:
  std::unique_lock<std::mutex> lock_;
};

}  // namespace HX
