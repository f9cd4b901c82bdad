#pragma once

#include <hxerror/api.h>

#include <mutex>
#include <shared_mutex>

// What clang checks about locks (-Wthread-safety, in the preset "clang"): which mutex guards a member, and which one a
// function needs. They take the place of comments that say so.
#if defined(__clang__)
#define HX_THREAD_ATTRIBUTE(...) __attribute__((__VA_ARGS__))
#else
#define HX_THREAD_ATTRIBUTE(...)
#endif

/// Of a class: it is a mutex.
#define HX_CAPABILITY HX_THREAD_ATTRIBUTE(capability("mutex"))
/// Of a class: it holds a mutex for a scope.
#define HX_SCOPED_CAPABILITY HX_THREAD_ATTRIBUTE(scoped_lockable)
/// Of a member: it is used only by whoever holds the mutex; read, at least, by whoever shares it.
#define HX_GUARDED_BY(mutex) HX_THREAD_ATTRIBUTE(guarded_by(mutex))
/// Of a function: whoever calls it holds the mutex.
#define HX_REQUIRES(...) HX_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
/// Of a function: whoever calls it holds the mutex, or shares it.
#define HX_REQUIRES_SHARED(...) HX_THREAD_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
/// Of a function: it locks the mutex; its own object where none is named.
#define HX_ACQUIRE(...) HX_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define HX_ACQUIRE_SHARED(...) HX_THREAD_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
/// Of a function: it unlocks the mutex.
#define HX_RELEASE(...) HX_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define HX_RELEASE_SHARED(...) HX_THREAD_ATTRIBUTE(release_shared_capability(__VA_ARGS__))
/// Of a function: it goes by a rule that cannot be stated this way. A comment says which.
#define HX_UNCHECKED HX_THREAD_ATTRIBUTE(no_thread_safety_analysis)

namespace HX {

/// A mutex whose users the compiler checks, which it cannot of those of the standard library.
class HX_CAPABILITY Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;
  ~Mutex() = default;

  void lock() HX_ACQUIRE() { mutex_.lock(); }
  void unlock() HX_RELEASE() { mutex_.unlock(); }

 private:
  friend class MutexLock;
  std::mutex mutex_;
};

/// The same, which the thread that holds it may lock again. Clang's check refuses a second lock within one function.
class HX_CAPABILITY RecursiveMutex {
 public:
  RecursiveMutex() = default;
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;
  ~RecursiveMutex() = default;

  void lock() HX_ACQUIRE() { mutex_.lock(); }
  void unlock() HX_RELEASE() { mutex_.unlock(); }

 private:
  std::recursive_mutex mutex_;
};

/// A mutex that several may share.
class HX_CAPABILITY SharedMutex {
 public:
  SharedMutex() = default;
  SharedMutex(const SharedMutex&) = delete;
  SharedMutex& operator=(const SharedMutex&) = delete;
  ~SharedMutex() = default;

  void lock() HX_ACQUIRE() { mutex_.lock(); }
  void unlock() HX_RELEASE() { mutex_.unlock(); }
  void lock_shared() HX_ACQUIRE_SHARED() { mutex_.lock_shared(); }
  void unlock_shared() HX_RELEASE_SHARED() { mutex_.unlock_shared(); }

 private:
  std::shared_mutex mutex_;
};

/// Holds a `Mutex` for a scope, or for less, and may wait meanwhile.
class HX_SCOPED_CAPABILITY MutexLock {
 public:
  /// @param mutex  Locked until the end of the scope, or `unlock`.
  explicit MutexLock(Mutex& mutex) HX_ACQUIRE(mutex) : lock_(mutex.mutex_) {}
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;
  ~MutexLock() HX_RELEASE() = default;

  void lock() HX_ACQUIRE() { lock_.lock(); }
  void unlock() HX_RELEASE() { lock_.unlock(); }
  /// For conditions to wait with: std::condition_variable.
  std::unique_lock<std::mutex>& native() { return lock_; }

 private:
  std::unique_lock<std::mutex> lock_;
};

/// Holds whatever is annotated as a mutex for a scope.
template <class Lockable>
class HX_SCOPED_CAPABILITY Lock {
 public:
  /// @param mutex  Locked until the end of the scope.
  explicit Lock(Lockable& mutex) HX_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  /// @param mutex  Is locked by the calling thread already, which unlocks it at the end of the scope.
  Lock(Lockable& mutex, std::adopt_lock_t) HX_REQUIRES(mutex) : mutex_(mutex) {}
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
  ~Lock() HX_RELEASE() { mutex_.unlock(); }

 private:
  Lockable& mutex_;
};

/// The same, shared.
template <class Lockable>
class HX_SCOPED_CAPABILITY SharedLock {
 public:
  /// @param mutex  Shared until the end of the scope.
  explicit SharedLock(Lockable& mutex) HX_ACQUIRE_SHARED(mutex) : mutex_(mutex) { mutex_.lock_shared(); }
  SharedLock(const SharedLock&) = delete;
  SharedLock& operator=(const SharedLock&) = delete;
  ~SharedLock() HX_RELEASE() { mutex_.unlock_shared(); }

 private:
  Lockable& mutex_;
};

}  // namespace HX
