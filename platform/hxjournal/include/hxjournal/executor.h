#pragma once

#include <hxerror/api.h>

#include <chrono>
#include <functional>

namespace HX::journal {

/// Where followers run: an event loop, seen from the journal.
///
/// @par Threads  Both functions may be called from any thread, and call nothing of the journal themselves.
class HX_API Executor {
 public:
  virtual ~Executor();

  /// Runs `task` later, never in the caller, once `delay` has passed.
  /// @return False when nothing is run any more.
  /// @throws std::bad_alloc, with nothing posted.
  virtual bool post(std::function<void()> task, std::chrono::nanoseconds delay) = 0;
  /// By a clock that does not jump.
  virtual std::chrono::steady_clock::time_point now() const noexcept = 0;
};

}  // namespace HX::journal
