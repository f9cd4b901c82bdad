#pragma once

#include <hxerror/api.h>
#include <libmw/detail/futurestate.h>

#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>

/// Results that are not there yet.
///
/// - **Where continuations run.** `Auto` and `Sync`: on the thread that finishes the future, before the call that
///   finishes it returns; or at once in the caller when the future has finished already. `Async`: on the default
///   event loop, always. Continuations of one future run in the order in which they were added. However long a
///   chain is, it runs without recursion. Futures of calls to other processes are finished by a thread that reads their
///   connection, which others depend on: it has `Auto` and `Sync` continuations run on the default event loop too.
/// - **Locks.** No lock of a future is held while a continuation or an on-cancel callback runs, so these may use
///   the same future.
/// - **Dropping a future** cancels nothing: the work goes on, its continuations run, its result is discarded.
///   Dropping the last copy of a promise that has no result yet fails its future (FutureError::Kind::NoState).
/// - **Throwing** in a continuation makes the exception the error of the continuation's own future; what nobody
///   asks for is lost. Throwing in an on-cancel callback fails the promise's future with the exception.
/// - **Cancelling** is a request to the producer, which `cancel()` on the future of a continuation passes up while
///   the continuation waits for its source. A continuation that has begun is not interrupted: its future stays
///   Running until it has returned, and what it captured is gone, so `cancel(); wait();` leaves nothing behind that
///   runs. If it then returns an unfinished future, the request is passed on to that.
///
/// Every operation is safe from any thread; one Future or Promise object must not be assigned to while another
/// thread uses it (copies are independent objects that share the result).
namespace mw {

/// `enum class FutureState { None, Running, Canceled, FinishedWithError, FinishedWithValue }`: None is a future that
/// stands for nothing, the last three are final.
///
/// `enum class FutureCallbackType { Auto, Sync, Async }`: see above.

/// Waits without limit. A constant rather than the largest duration, so that it is the same number for every caller.
inline constexpr std::chrono::milliseconds kInfiniteTimeout{0x7fffffff};

/// Why there is no value, when no producer's own exception tells.
class HX_API FutureError : public std::runtime_error {
 public:
  enum class Kind {
    Timeout,    ///< It did not finish in the time given.
    Canceled,   ///< It was cancelled.
    NoState,    ///< Nobody will ever set it: the promise is gone, or the future stands for nothing.
    UserError,  ///< The producer reported an error in words (Promise::setError).
  };

  explicit FutureError(Kind kind);
  FutureError(Kind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}
  FutureError(const FutureError&) = default;
  FutureError& operator=(const FutureError&) = default;
  ~FutureError() override;

  Kind kind() const noexcept { return kind_; }

 private:
  Kind kind_;
};

namespace detail {
struct CanceledTag {};
struct PromiseAccess;

/// The text of any exception; never empty.
HX_API std::string describe(const std::exception_ptr& exception);
}  // namespace detail

/// A result of type T that is there, will come, or failed.
///
/// A future made from a result that is there (ready, failed, canceled) holds it itself and allocates nothing, and
/// neither do `then` and `andThen` on it: synchronous calls cost no more than their result. Otherwise copies share
/// one state with the promise.
///
/// T can be copied, because copies of a future share the result; wrap what cannot in a shared_ptr.
template <class T>
class Future {
  static_assert(std::is_void_v<T> || std::is_copy_constructible_v<T>, "share what cannot be copied");
  using Stored = detail::Stored<T>;
  using State = detail::FutureSharedState<T>;
  using ConstResult = std::conditional_t<std::is_void_v<T>, void, const Stored&>;

 public:
  using ValueType = T;

  /// Stands for nothing (FutureState::None).
  Future() noexcept = default;

  static Future ready(Stored value) requires(!std::is_void_v<T>) {
    return Future(std::in_place_index<kValue>, std::move(value));
  }
  static Future ready() requires(std::is_void_v<T>) { return Future(std::in_place_index<kValue>); }
  /// @param exception  Not null.
  static Future failed(std::exception_ptr exception) {
    return Future(std::in_place_index<kException>, std::move(exception));
  }
  /// Fails with a FutureError of kind UserError.
  static Future failed(const std::string& text) {
    return failed(std::make_exception_ptr(FutureError(FutureError::Kind::UserError, text)));
  }
  static Future canceled() { return Future(std::in_place_index<kCanceled>); }

  FutureState state() const noexcept;
  bool isValid() const noexcept { return content_.index() != kNone; }
  bool isRunning() const noexcept { return state() == FutureState::Running; }
  bool isCanceled() const noexcept { return state() == FutureState::Canceled; }
  /// With a value, with an error, or cancelled.
  bool isFinished() const noexcept { return state() > FutureState::Running; }

  /// Waits until the future has finished or `timeout` has passed.
  ///
  /// @param timeout  Zero and less do not wait.
  /// @return The state then; None at once for a future that stands for nothing.
  FutureState wait(std::chrono::milliseconds timeout = kInfiniteTimeout) const;

  /// Waits for the value, and gives it as long as this future, or a copy of it, is there.
  ///
  /// @throws What the producer set; FutureError when it ran out of time, was cancelled, or nobody will set it.
  ConstResult value(std::chrono::milliseconds timeout = kInfiniteTimeout) const&;
  /// The same for a temporary future, which the value outlives.
  T value(std::chrono::milliseconds timeout = kInfiniteTimeout) && { return std::move(*this).take(timeout); }

  /// Waits and gives the value away: moved where this future holds it itself, otherwise copied, since others may read
  /// it. Throws like value(). To run out of time cancels nothing, as other copies may still want it; `cancel` does.
  T take(std::chrono::milliseconds timeout = kInfiniteTimeout) &&;

  /// Whether it finished with an error; a cancelled future has none.
  ///
  /// @throws FutureError of kind Timeout or NoState when it does not finish in time.
  bool hasError(std::chrono::milliseconds timeout = kInfiniteTimeout) const {
    return waitFinished(timeout) == FutureState::FinishedWithError;
  }
  bool hasValue(std::chrono::milliseconds timeout = kInfiniteTimeout) const {
    return waitFinished(timeout) == FutureState::FinishedWithValue;
  }

  /// Why there is no value: the text of the error, or that it was cancelled; empty when there is a value.
  /// Throws like hasError().
  std::string error(std::chrono::milliseconds timeout = kInfiniteTimeout) const;

  /// The same as an exception, null when there is a value. Throws like hasError().
  std::exception_ptr exception(std::chrono::milliseconds timeout = kInfiniteTimeout) const;

  /// Asks the producer to stop; see the top of this file. Without effect on a finished future.
  ///
  /// Unless the producer has its own on-cancel callback, the future is cancelled when this returns, and its
  /// continuations have run.
  void cancel();

  /// Calls `callback(Future<T>)` when this future has finished in whatever way.
  ///
  /// @return Future of what the callback returns; if that is a future, the result of that one.
  /// @throws FutureError of kind NoState when this future stands for nothing.
  template <class F>
  auto then(F&& callback, FutureCallbackType type = FutureCallbackType::Auto) const
      -> Future<detail::UnwrappedResult<F, Future<T>>>;

  /// Calls `callback(const T&)`, or `callback()` for void, when this future has a value. Otherwise the callback is
  /// dropped, and the error or the cancellation becomes that of the future returned. Else like then().
  template <class F>
  auto andThen(F&& callback, FutureCallbackType type = FutureCallbackType::Auto) const;

 private:
  template <class>
  friend class Future;
  template <class>
  friend class Promise;
  template <class>
  friend class detail::FutureSharedState;
  template <class, class, class>
  friend class detail::ThenState;

  enum : std::size_t { kNone, kValue, kCanceled, kException, kShared };

  template <std::size_t Index, class... Args>
  explicit Future(std::in_place_index_t<Index> index, Args&&... args) : content_(index, std::forward<Args>(args)...) {}
  explicit Future(std::shared_ptr<State> state) noexcept : content_(std::in_place_index<kShared>, std::move(state)) {}

  FutureState waitFinished(std::chrono::milliseconds timeout) const;
  void requireValue(std::chrono::milliseconds timeout) const;
  std::shared_ptr<State> shared() const;

  std::variant<std::monostate, Stored, detail::CanceledTag, std::exception_ptr, std::shared_ptr<State>> content_;
};

/// The producer's end of a future. One that was moved from can only be assigned to or destroyed.
///
/// Copies are the same producer: the future fails with NoState when the last of them goes without a result. The
/// first result counts. A result for a future that was cancelled meanwhile is dropped silently, because its producer
/// cannot know; any other second result is a mistake and throws std::logic_error. The `try…` twins report instead.
template <class T>
class Promise {
  using Stored = detail::Stored<T>;
  using State = detail::FutureSharedState<T>;

 public:
  /// A promise whose future is cancelled as soon as somebody asks for it.
  Promise() : Promise(std::make_shared<State>()) {}

  /// A promise that decides itself what a request to cancel means.
  ///
  /// @param onCancel  Empty is as none. Called at most once, with this promise, on the thread that cancels and with no
  /// lock held, while
  ///                  the future is running. It may setCanceled(), set another result, or do nothing.
  explicit Promise(std::function<void(Promise&)> onCancel);

  Promise(const Promise& other) noexcept : Promise(other.state_) {}
  Promise(Promise&& other) noexcept = default;
  Promise& operator=(Promise other) noexcept {
    state_.swap(other.state_);
    return *this;
  }
  ~Promise() {
    if (state_) state_->dropPromise();
  }

  Future<T> future() const { return Future<T>(state_); }

  /// Finishes the future with a value; its continuations run before this returns.
  void setValue(Stored value) requires(!std::is_void_v<T>) {
    if (!state_->trySetValue(std::move(value))) state_->refuseResult();
  }
  void setValue() requires(std::is_void_v<T>) {
    if (!state_->trySetValue({})) state_->refuseResult();
  }

  /// @param exception  What value() will throw; not null.
  void setException(std::exception_ptr exception) {
    if (!state_->tryFail(std::move(exception))) state_->refuseResult();
  }
  /// Sets a FutureError of kind UserError.
  void setError(const std::string& text) {
    setException(std::make_exception_ptr(FutureError(FutureError::Kind::UserError, text)));
  }
  void setCanceled() {
    if (!state_->tryCancel()) state_->refuseResult();
  }

  /// @return Whether this result was the first.
  bool trySetValue(Stored value) requires(!std::is_void_v<T>) { return state_->trySetValue(std::move(value)); }
  bool trySetValue() requires(std::is_void_v<T>) { return state_->trySetValue({}); }
  bool trySetException(std::exception_ptr exception) { return state_->tryFail(std::move(exception)); }
  bool trySetCanceled() { return state_->tryCancel(); }

  /// Whether somebody asked to cancel; for producers that look now and then instead of being called.
  bool isCancelRequested() const { return state_->isCancelRequested(); }

 private:
  friend struct detail::PromiseAccess;
  explicit Promise(std::shared_ptr<State> state) noexcept : state_(std::move(state)) {
    if (state_) state_->addPromise();
  }

  std::shared_ptr<State> state_;  // null only when moved from
};

template <class T>
Future<std::decay_t<T>> makeReadyFuture(T&& value) {
  return Future<std::decay_t<T>>::ready(std::forward<T>(value));
}
inline Future<void> makeReadyFuture() { return Future<void>::ready(); }

template <class T>
Future<T> makeFailedFuture(std::exception_ptr exception) {
  return Future<T>::failed(std::move(exception));
}
template <class T>
Future<T> makeFailedFuture(const std::string& text) {
  return Future<T>::failed(text);
}

/// Waits until every future of a range has finished, in whatever way.
template <class Range>
void waitForAll(const Range& futures) {
  for (const auto& future : futures) future.wait();
}

}  // namespace mw

#include <libmw/detail/future_impl.h>
