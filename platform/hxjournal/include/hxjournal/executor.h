#pragma once

#include <hxerror/api.h>

#include <chrono>
#include <functional>

namespace HX::journal {

/// Where followers run: an event loop, seen from the journal.
///
/// @par Threads  The functions may be called from any thread, and call nothing of the journal themselves.
class HX_API Executor {
 public:
  virtual ~Executor();

  /// Runs `task` later, never in the caller, once `delay` has passed.
  /// @return False when nothing is run any more.
  /// @throws std::bad_alloc, with nothing posted.
  virtual bool post(std::function<void()> task, std::chrono::nanoseconds delay) = 0;
  /// Runs `task` at the end of what the calling thread does for another process, on that thread, which is about to end
  /// it: so nobody has to be woken.
  /// @return False, and nothing is done, where it does nothing of the kind, and has left something already.
  /// @throws std::bad_alloc, with nothing left.
  virtual bool leave(const std::function<void()>& task);
  /// By a clock that does not jump.
  virtual std::chrono::steady_clock::time_point now() const noexcept = 0;
};

}  // namespace HX::journal
