#pragma once

#include "../runtime/callerscope.h"

#include <hxauthor/author.h>
#include <hxerror/mutex.h>
#include <libmw/genericobject.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

namespace mw::detail {

/// A call that waits for its turn.
class QueuedCall : public std::enable_shared_from_this<QueuedCall> {
 public:
  QueuedCall() = default;
  QueuedCall(const QueuedCall&) = delete;
  QueuedCall& operator=(const QueuedCall&) = delete;
  virtual ~QueuedCall();

  /// For a caller that wants the result. Cancelled before the call begins, it keeps it from beginning; later it changes
  /// nothing. Fails with FutureError::Kind::NoState when the call never begins.
  Future<AnyValue> promiseResult();

  /// @return False when it has begun, or is not to begin any more.
  bool begin() noexcept { return !begun_.exchange(true); }
  virtual Future<AnyValue> run() noexcept = 0;
  /// Whoever queued it.
  const HX::Author& author() const { return author_; }
  /// Tells whoever wants the result; what nobody is told of is logged when it failed.
  void finish(Future<AnyValue> result);

 private:
  virtual std::string name() const = 0;

  const HX::Author author_ = HX::Author::present();
  std::atomic<bool> begun_{false};
  std::optional<Promise<AnyValue>> promise_;  ///< Set before it is queued, if at all.
};

/// The calls that one caller has queued for one object. They run on the event loop, each after the one before has
/// ended.
///
/// @par Threads  Any. Nothing foreign is called under the lock.
class CallQueue : public std::enable_shared_from_this<CallQueue> {
 public:
  explicit CallQueue(std::uintptr_t object) : object_(object) {}

  std::uintptr_t object() const { return object_; }
  void add(std::shared_ptr<QueuedCall> call);
  bool isIdle() const;
  /// Finished when all that was added so far has ended.
  Future<void> idle();

 private:
  class Runner;
  std::shared_ptr<QueuedCall> next();
  void runAll();
  void runOn();
  void abandon();

  const std::uintptr_t object_;
  mutable HX::Mutex mutex_;
  std::deque<std::shared_ptr<QueuedCall>> waiting_ HX_GUARDED_BY(mutex_);
  bool isRunning_ HX_GUARDED_BY(mutex_) = false;
  std::optional<Promise<void>> idle_ HX_GUARDED_BY(mutex_);
};

/// Logs that what nobody waits for has failed.
/// @param from  Where it was posted, when that is another process.
void logFailedPost(const std::string& member, const std::exception_ptr& error, const std::string& from = {});

/// Queues a call of the calling thread, behind those that it has queued for the object before.
void queueCall(const GenericObject& object, std::shared_ptr<QueuedCall> call);

/// Waits for the calls that the thread has queued for the object. @see awaitQueuedCalls
void awaitQueuedCallsOf(CallerScope& caller, const GenericObject& object);

/// Before a call that the thread makes itself: those that it has queued for the same object come first. Not from inside
/// another call, whose locks they may need.
inline void awaitQueuedCalls(const GenericObject& object) {
  CallerScope* const caller = CallerScope::present();
  if (caller && !caller->queues.empty()) awaitQueuedCallsOf(*caller, object);
}

/// @param name  Gives what to call it in the log.
/// @param run   Gives the result, a future of an AnyValue.
template <class Name, class Run>
std::shared_ptr<QueuedCall> makeQueuedCall(Name name, Run run) {
  class Made final : public QueuedCall {
   public:
    Made(Name name, Run run) : name_(std::move(name)), run_(std::move(run)) {}
    Future<AnyValue> run() noexcept override {
      try {
        return run_();
      } catch (...) {
        return Future<AnyValue>::failed(std::current_exception());
      }
    }

   private:
    std::string name() const override { return name_(); }
    Name name_;
    Run run_;
  };
  return std::make_shared<Made>(std::move(name), std::move(run));
}

}  // namespace mw::detail
