#pragma once

#include <hxerror/api.h>
#include <hxerror/mutex.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

namespace mw {

enum class FutureState : std::uint8_t { None, Running, Canceled, FinishedWithError, FinishedWithValue };
/// Where a continuation runs, as the top of future.h says: `Auto` and `Sync` on the thread that finishes the future,
/// but for answers of other processes, whose continuations run on the default event loop; `Async` there always.
enum class FutureCallbackType : std::uint8_t { Auto, Sync, Async };

template <class T>
class Future;

}  // namespace mw

/// What futures and promises are made of. Not for use outside future.h.
namespace mw::detail {

struct Unit {};

/// What a state keeps for a result of type T.
template <class T>
using Stored = std::conditional_t<std::is_void_v<T>, Unit, T>;

/// Woken when a state has finished, beside the threads that wait on the state itself: for threads that wait for more
/// than one thing.
class HX_API Waker {
 public:
  virtual ~Waker();
  /// Called under the state's lock; must not wait, nor use the state.
  virtual void wake() noexcept = 0;
};

/// The part of a shared state that does not depend on the type of the result.
///
/// A state is finished once, in two steps: claim() decides who may, publish() makes the result visible. The value
/// is built in between, outside the lock; readers see it through the acquire load in state().
///
/// A state that belongs to a continuation is a *dependent* of the state it waits for (its source): the source owns
/// it until it runs, and it knows the source only weakly, for passing a cancellation up.
///
/// @par Locks  `mutex_` is a leaf; nothing foreign runs under it, and no two states are ever locked at once.
class HX_API FutureStateBase : public std::enable_shared_from_this<FutureStateBase> {
 public:
  struct Dependent {
    std::shared_ptr<FutureStateBase> state;
    FutureCallbackType type;
  };
  using Dependents = std::vector<Dependent>;
  using OnCancel = std::function<void(FutureStateBase&)>;

  FutureStateBase(const FutureStateBase&) = delete;
  FutureStateBase& operator=(const FutureStateBase&) = delete;
  virtual ~FutureStateBase();

  FutureState state() const noexcept { return state_.load(std::memory_order_acquire); }
  FutureState wait(std::chrono::milliseconds timeout) const;

  /// Has `waker` woken when the state finishes. @return False, with nothing added, when it has.
  bool addWaker(Waker& waker) const;
  /// Once it has returned, `waker` is not woken any more.
  void removeWaker(Waker& waker) const noexcept;

  /// Set when the state has finished with an error.
  const std::exception_ptr& exception() const noexcept { return exception_; }

  /// Passes the request up to the state that a producer answers for, and there asks the producer.
  void cancel();

  /// Whether somebody called cancel() while the state was running.
  bool isCancelRequested() const;

  /// Reserves the right to finish. @return False when the state is finished or reserved already.
  bool claim() noexcept;
  void unclaim() noexcept;

  /// Makes the outcome visible, wakes waiters and runs the dependents. The caller has claimed.
  void finish(FutureState outcome, std::exception_ptr error = nullptr);

  bool tryFail(std::exception_ptr error);
  bool tryCancel();

  /// For a result that came too late: silent when the state was cancelled, otherwise throws std::logic_error.
  void refuseResult() const;

  void addPromise() noexcept { promises_.fetch_add(1, std::memory_order_relaxed); }
  void dropPromise();

  /// Makes `dependent` run when `source` has finished, which may be now.
  static void chain(const std::shared_ptr<FutureStateBase>& source, const Dependent& dependent);

 protected:
  enum class Kind : bool { Produced, Dependent };
  explicit FutureStateBase(Kind kind, OnCancel onCancel = nullptr);

  /// Runs a dependent, on the thread that finished `source`. @return The dependents that may run now in turn.
  virtual Dependents resume(const std::shared_ptr<FutureStateBase>& source) noexcept;

  /// Marks the dependent as running: there is nothing upstream to cancel any more.
  void leaveSource();

  /// Makes a running dependent wait for one more source. @return False when that has finished already.
  bool awaitSource(const std::shared_ptr<FutureStateBase>& source);

  /// finish() without running the dependents: those are returned.
  Dependents publish(FutureState outcome, std::exception_ptr error = nullptr) noexcept;

 private:
  friend struct AsyncRun;
  friend struct DeferredRun;
  bool attach(const Dependent& dependent);
  std::shared_ptr<FutureStateBase> requestCancel();
  static void run(std::shared_ptr<FutureStateBase> source, Dependents dependents);
  static void post(std::shared_ptr<FutureStateBase> source, std::shared_ptr<FutureStateBase> dependent);

  std::atomic<FutureState> state_{FutureState::Running};  // written under mutex_
  std::atomic<bool> claimed_{false};                      // cleared under mutex_
  std::atomic<int> promises_{0};
  const Kind kind_;

  mutable HX::Mutex mutex_;
  mutable std::condition_variable finished_;
  mutable std::vector<Waker*> wakers_ HX_GUARDED_BY(mutex_);
  bool cancelRequested_ HX_GUARDED_BY(mutex_) = false;
  OnCancel onCancel_ HX_GUARDED_BY(mutex_);
  Dependents dependents_ HX_GUARDED_BY(mutex_);
  std::weak_ptr<FutureStateBase> source_ HX_GUARDED_BY(mutex_);
  std::exception_ptr exception_;  // Guarded likewise, until the state is finished.
};

template <class T>
class FutureSharedState : public FutureStateBase {
 public:
  explicit FutureSharedState(OnCancel onCancel = nullptr) : FutureStateBase(Kind::Produced, std::move(onCancel)) {}

  /// Only when finished with a value.
  const Stored<T>& value() const noexcept { return *value_; }

  bool trySetValue(Stored<T>&& value) {
    if (!claim()) return false;
    try {
      value_.emplace(std::move(value));
    } catch (...) {
      unclaim();
      throw;
    }
    finish(FutureState::FinishedWithValue);
    return true;
  }

 protected:
  explicit FutureSharedState(Kind kind) : FutureStateBase(kind) {}

  /// Ends this dependent like `result`, now or when that has finished.
  Dependents settle(Future<T> result) noexcept;

 private:
  std::optional<Stored<T>> value_;  // written by whoever has claimed, read once finished
};

template <class T>
struct IsFuture : std::false_type {};
template <class T>
struct IsFuture<Future<T>> : std::true_type {};

template <class T>
struct Unwrapped {
  using Type = T;
};
template <class T>
struct Unwrapped<Future<T>> {
  using Type = T;
};

/// The type of the future's result when F runs as a continuation: futures of futures do not arise.
template <class F, class... Args>
using UnwrappedResult = typename Unwrapped<std::remove_cvref_t<std::invoke_result_t<std::decay_t<F>&, Args...>>>::Type;

/// The state of the future that `then` gives for a callback which has yet to run.
template <class T, class R, class F>
class ThenState final : public FutureSharedState<R> {
  using Base = FutureStateBase;

 public:
  explicit ThenState(F callback) : FutureSharedState<R>(Base::Kind::Dependent), callback_(std::move(callback)) {}

 private:
  Base::Dependents resume(const std::shared_ptr<Base>& source) noexcept override;

  std::optional<F> callback_;  // empty once it ran; what is resumed then is the wait for the future it returned
};

}  // namespace mw::detail
