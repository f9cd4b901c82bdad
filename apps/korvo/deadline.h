#pragma once

#include <libmw/eventloop.h>
#include <libmw/genericobject.h>

#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

namespace korvo {

/// Gives up calls that have no answer in time.
///
/// All calls get the same time, so that the one made first is the first to run out of it: one timer serves them all.
///
/// @par Threads  Any. No lock is held while futures finish.
class Deadlines : public std::enable_shared_from_this<Deadlines> {
 public:
  using Answer = mw::Future<mw::AnyValue>;

  /// @param loop   Runs the timer. Must outlive this object and what it watches.
  /// @param limit  More than zero.
  /// @param whom   Who is to answer, for errors: "broker korvo".
  Deadlines(mw::EventLoop& loop, std::chrono::milliseconds limit, std::string whom);

  /// @param what  For the error: "HXMemory.getData".
  /// @return The same answer, or a std::runtime_error that says who did not answer what, and in which time.
  Answer watch(const Answer& answer, std::string what);
  std::chrono::milliseconds limit() const { return limit_; }
  /// The error of an answer that did not come in time.
  std::runtime_error error(const std::string& what) const;

 private:
  using Clock = std::chrono::steady_clock;
  struct Watched {
    Clock::time_point end;
    mw::Promise<mw::AnyValue> promise;
    std::string what;
  };
  void startTimerLocked(Clock::time_point end);
  void expire();

  mw::EventLoop& loop_;
  const std::chrono::milliseconds limit_;
  const std::string whom_;
  std::mutex mutex_;             // Guards all below.
  std::deque<Watched> watched_;  // By their ends.
  bool timerRuns_ = false;
};

/// A handle on `object` whose calls are watched by `deadlines`.
/// @param name  Of the object, for errors.
mw::AnyObject withDeadline(const mw::AnyObject& object, std::string name, std::shared_ptr<Deadlines> deadlines);

}  // namespace korvo
