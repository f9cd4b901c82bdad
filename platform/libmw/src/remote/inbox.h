#pragma once

#include "chain.h"

#include <hxerror/mutex.h>
#include <libmw/file.h>
#include <libmw/future.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

namespace mw::remote {

/// What wakes a thread that waits within a chain: the end of what it waits for, and calls that it is to serve.
///
/// Calls may come before the thread waits: it has sent, and the answer is a call back. They are kept for it.
///
/// @par Threads  Any may put and wake; the rest is for the thread whose it is, which makes it.
class Inbox final : public detail::Waker, public std::enable_shared_from_this<Inbox> {
 public:
  using Task = std::function<void()>;

  Inbox() = default;
  Inbox(const Inbox&) = delete;
  Inbox& operator=(const Inbox&) = delete;
  ~Inbox() override = default;

  void wake() noexcept override;
  /// @param caller  Whose chain the task belongs to.
  void put(const Caller& caller, Task task);

  /// @return The chain of the wait that this one is inside of, for `endWait`.
  Caller beginWait(const Caller& caller);
  /// What came last was meant for the thread while it waited: it is done by others when the outermost wait has ended.
  void endWait(const Caller& outer);
  /// Only of the chain that the thread waits in: another one's call must not meet the locks that this one holds.
  Task take() { return takeIf(true); }

  /// Sleeps until something was put in, or it was woken since `take`.
  void sleep(std::chrono::steady_clock::time_point deadline);
  /// Makes wakings readable on a file, for a thread that polls.
  /// @return The file; -1 when it was woken already, or when there is none, since the process may be out of them: then
  ///         the thread is to `sleep`, which sees to both.
  int beginPolling();
  void endPolling();

 private:
  bool isAwaited(const Caller& caller) const HX_REQUIRES(mutex_) { return waits_ > 0 && caller == caller_; }
  Task takeIf(bool isAwaitedOne);
  void wakeLocked() noexcept HX_REQUIRES(mutex_);

  const std::thread::id owner_ = std::this_thread::get_id();
  mutable HX::Mutex mutex_;
  std::condition_variable condition_;
  std::deque<std::pair<Caller, Task>> tasks_ HX_GUARDED_BY(mutex_);  // with the chain of each
  int waits_ HX_GUARDED_BY(mutex_) = 0;                              // inside one another
  Caller caller_ HX_GUARDED_BY(mutex_);                              // the chain of the innermost
  bool woken_ HX_GUARDED_BY(mutex_) = false;
  bool polling_ HX_GUARDED_BY(mutex_) = false;
  bool signalled_ HX_GUARDED_BY(mutex_) = false;  // the file can be read
  File file_ HX_GUARDED_BY(mutex_);               // when it has polled
};

}  // namespace mw::remote
