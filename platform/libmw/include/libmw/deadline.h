#pragma once

#include <hxerror/api.h>
#include <hxerror/mutex.h>
#include <libmw/eventloop.h>
#include <libmw/genericobject.h>

#include <chrono>
#include <deque>
#include <memory>
#include <stdexcept>
#include <string>

namespace mw {

/// A call had no answer in the time that it was given. What() says whose, and which time.
class HX_API DeadlineError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  DeadlineError(const DeadlineError&) = default;
  DeadlineError& operator=(const DeadlineError&) = default;
  ~DeadlineError() override;
};

/// Gives up calls that have no answer in time: they fail, and are cancelled, which the process that serves them is
/// told.
///
/// All calls get the same time, so that the one made first is the first to run out of it: one timer serves them all.
///
/// @par Threads  Any. No lock is held while futures finish.
class HX_API Deadlines : public std::enable_shared_from_this<Deadlines> {
 public:
  using Answer = Future<AnyValue>;

  /// @param loop   Runs the timer. Must outlive this object and what it watches.
  /// @param limit  More than zero.
  /// @param whom   Who is to answer, for errors: "broker korvo".
  Deadlines(EventLoop& loop, std::chrono::milliseconds limit, std::string whom);

  /// @param answer  Of the call.
  /// @param what    For the error: "HXMemory.getData".
  /// @return The same answer, or a DeadlineError that says who did not answer what, and in which time. To cancel it
  ///         cancels the call.
  Answer watch(const Answer& answer, std::string what);
  std::chrono::milliseconds limit() const { return limit_; }
  /// The error of an answer that did not come in time.
  DeadlineError error(const std::string& what) const;

 private:
  using Clock = std::chrono::steady_clock;
  struct Watched {
    Clock::time_point end;
    Answer answer;
    Promise<AnyValue> promise;
    std::string what;
  };
  void startTimerLocked(Clock::time_point end) HX_REQUIRES(mutex_);
  void expire();

  EventLoop& loop_;
  const std::chrono::milliseconds limit_;
  const std::string whom_;
  HX::Mutex mutex_;
  std::deque<Watched> watched_ HX_GUARDED_BY(mutex_);  // By their ends.
  bool timerRuns_ HX_GUARDED_BY(mutex_) = false;
};

/// A handle on `object` whose calls are watched by `deadlines`. Posts, signals and properties are not.
/// @param object     Stays as it is.
/// @param name       Of the object, for errors.
/// @param deadlines  Kept as long as the handle.
HX_API AnyObject withDeadline(const AnyObject& object, std::string name, std::shared_ptr<Deadlines> deadlines);

}  // namespace mw
