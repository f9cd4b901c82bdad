#pragma once

#include "runningcalls.h"
#include "threadkept.h"

#include <memory>
#include <utility>
#include <vector>

namespace mw {
class GenericObject;
}

namespace mw::detail {

class CallQueue;

/// Whom the calling thread calls for, from here to the end of the scope, and what calls of that caller are queued. A
/// thread that works for others has one for each piece of work: nobody waits for what another one has queued.
class CallerScope {
 public:
  CallerScope() noexcept : outer_(std::exchange(present_, this)) {}
  CallerScope(const CallerScope&) = delete;
  CallerScope& operator=(const CallerScope&) = delete;
  ~CallerScope() { present_ = outer_; }

  /// The innermost one; null for a thread that works for itself and has not queued anything.
  static CallerScope* present() noexcept { return present_; }

  /// Of this caller, one for each object. Those that have run empty are dropped when somebody looks.
  std::vector<std::shared_ptr<CallQueue>> queues;

 private:
  HX_THREAD_LOCAL static inline constinit CallerScope* present_ = nullptr;
  CallerScope* const outer_;
};

/// While one lives, the calling thread is inside a call of an object of this process.
class InsideCall {
 public:
  /// @param object  To be told by `RunningCalls::of`.
  InsideCall(const GenericObject& object, unsigned member) noexcept : calls_(ofThisThread<RunningCalls>()) {
    if (calls_) calls_->enter(&object, member);
  }
  InsideCall(const InsideCall&) = delete;
  InsideCall& operator=(const InsideCall&) = delete;
  ~InsideCall() {
    if (calls_) calls_->leave();
  }

  static bool isHere() noexcept {
    const auto* const calls = ofThisThread<RunningCalls>();
    return calls && calls->isInside();
  }

 private:
  RunningCalls* const calls_;
};

}  // namespace mw::detail
