#pragma once

#include "recycled.h"
#include "threadlocal.h"

#include <libmw/future.h>

#include <chrono>
#include <utility>

namespace mw::detail {

/// How the calling thread waits for futures, where it does more than sleep meanwhile: a thread that has called into
/// another process serves the calls that come back to it.
class HX_API ThreadWait {
 public:
  virtual ~ThreadWait() = default;
  virtual FutureState wait(const FutureStateBase& state, std::chrono::milliseconds timeout) = 0;
  /// An `AboutToWait` has ended.
  virtual void hasWaited() noexcept = 0;

  /// Null for threads that sleep.
  static ThreadWait* current() noexcept { return current_; }
  /// @param wait  Must outlive the thread, or be set back.
  static void setCurrent(ThreadWait* wait) noexcept { current_ = wait; }

  /// Has `function` called on the calling thread each time before it sleeps until a future has finished.
  static void setBeforeWaiting(void (*function)()) noexcept { beforeWaiting_ = function; }
  static void tellOfWaiting() {
    if (beforeWaiting_) beforeWaiting_();
  }

 private:
  HX_THREAD_LOCAL static inline ThreadWait* current_ = nullptr;
  HX_THREAD_LOCAL static inline void (*beforeWaiting_)() = nullptr;
};

/// While one lives, the calling thread makes one call, and waits for its answer at once.
class HX_API AboutToWait {
 public:
  AboutToWait() noexcept : outer_(std::exchange(isSo_, true)) {}
  AboutToWait(const AboutToWait&) = delete;
  AboutToWait& operator=(const AboutToWait&) = delete;
  ~AboutToWait() {
    isSo_ = outer_;
    if (ThreadWait* const own = ThreadWait::current()) own->hasWaited();
  }

  /// Whether one lives whose call the calling thread has not made yet.
  static bool takeHere() noexcept { return std::exchange(isSo_, false); }

 private:
  HX_THREAD_LOCAL static inline bool isSo_ = false;
  const bool outer_;
};

/// While one lives, futures that the calling thread finishes have their continuations run on the event loop. For
/// threads that others depend on to go on: one that reads a connection would wait for itself if a continuation waited
/// for an answer on it.
class NoForeignCode {
 public:
  NoForeignCode() noexcept : outer_(std::exchange(holds_, true)) {}
  NoForeignCode(const NoForeignCode&) = delete;
  NoForeignCode& operator=(const NoForeignCode&) = delete;
  ~NoForeignCode() { holds_ = outer_; }

  static bool holdsHere() noexcept { return holds_; }

 private:
  HX_THREAD_LOCAL static inline bool holds_ = false;
  const bool outer_;
};

/// What only the library itself does with promises.
struct PromiseAccess {
  template <class T>
  static const FutureStateBase& stateOf(const Promise<T>& promise) {
    return *promise.state_;
  }
  /// @param onCancel  As Promise's, called with the state.
  template <class T>
  static Promise<T> make(FutureStateBase::OnCancel onCancel) {
    return Promise<T>(std::allocate_shared<FutureSharedState<T>>(Recycled<T>(), std::move(onCancel)));
  }
};

}  // namespace mw::detail
