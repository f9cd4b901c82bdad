#pragma once

// The bodies of future.h's templates; included at its end, and from nowhere else.

namespace mw {
namespace detail {

/// Calls a continuation and gives what it returned or threw as a future of R.
template <class R, class F, class... Args>
Future<R> invokeToFuture(F& callback, Args&&... args) noexcept {
  using Result = std::invoke_result_t<F&, Args...>;
  try {
    if constexpr (std::is_void_v<Result>) {
      std::invoke(callback, std::forward<Args>(args)...);
      return Future<R>::ready();
    } else if constexpr (IsFuture<std::remove_cvref_t<Result>>::value) {
      return std::invoke(callback, std::forward<Args>(args)...);
    } else {
      return Future<R>::ready(std::invoke(callback, std::forward<Args>(args)...));
    }
  } catch (...) {
    return Future<R>::failed(std::current_exception());
  }
}

template <class T>
FutureStateBase::Dependents FutureSharedState<T>::settle(Future<T> result) noexcept {
  if (auto* source = std::get_if<Future<T>::kShared>(&result.content_); source && awaitSource(*source)) return {};
  if (result.isCanceled()) return publish(FutureState::Canceled);
  try {
    if constexpr (std::is_void_v<T>) {
      result.value();
      value_.emplace();
    } else {
      value_.emplace(std::move(result).take());
    }
    return publish(FutureState::FinishedWithValue);
  } catch (...) {
    return publish(FutureState::FinishedWithError, std::current_exception());
  }
}

template <class T, class R, class F>
FutureStateBase::Dependents ThenState<T, R, F>::resume(const std::shared_ptr<Base>& source) noexcept {
  if (!callback_) return this->settle(Future<R>(std::static_pointer_cast<FutureSharedState<R>>(source)));
  this->leaveSource();
  auto result = invokeToFuture<R>(*callback_, Future<T>(std::static_pointer_cast<FutureSharedState<T>>(source)));
  // Before the result is visible: whoever waits for it may rely on the captured objects being released.
  callback_.reset();
  return this->settle(std::move(result));
}

}  // namespace detail

template <class T>
FutureState Future<T>::state() const noexcept {
  switch (content_.index()) {
    case kValue:
      return FutureState::FinishedWithValue;
    case kCanceled:
      return FutureState::Canceled;
    case kException:
      return FutureState::FinishedWithError;
    case kShared:
      return std::get_if<kShared>(&content_)->get()->state();
    default:
      return FutureState::None;
  }
}

template <class T>
FutureState Future<T>::wait(std::chrono::milliseconds timeout) const {
  const auto* shared = std::get_if<kShared>(&content_);
  return shared ? (*shared)->wait(timeout) : state();
}

template <class T>
FutureState Future<T>::waitFinished(std::chrono::milliseconds timeout) const {
  const FutureState reached = wait(timeout);
  if (reached == FutureState::None) throw FutureError(FutureError::Kind::NoState);
  if (reached == FutureState::Running) throw FutureError(FutureError::Kind::Timeout);
  return reached;
}

template <class T>
void Future<T>::requireValue(std::chrono::milliseconds timeout) const {
  if (content_.index() == kValue) return;
  if (const auto failure = exception(timeout)) std::rethrow_exception(failure);
}

template <class T>
auto Future<T>::value(std::chrono::milliseconds timeout) const& -> ConstResult {
  requireValue(timeout);
  if constexpr (!std::is_void_v<T>) {
    if (const auto* own = std::get_if<kValue>(&content_)) return *own;
    return (*std::get_if<kShared>(&content_))->value();
  }
}

template <class T>
T Future<T>::take(std::chrono::milliseconds timeout) && {
  requireValue(timeout);
  if constexpr (!std::is_void_v<T>) {
    if (auto* own = std::get_if<kValue>(&content_)) return std::move(*own);
    return (*std::get_if<kShared>(&content_))->value();
  }
}

template <class T>
std::string Future<T>::error(std::chrono::milliseconds timeout) const {
  const auto failure = exception(timeout);
  return failure ? detail::describe(failure) : std::string();
}

template <class T>
std::exception_ptr Future<T>::exception(std::chrono::milliseconds timeout) const {
  const FutureState reached = waitFinished(timeout);
  if (reached == FutureState::FinishedWithValue) return nullptr;
  if (reached == FutureState::Canceled) return std::make_exception_ptr(FutureError(FutureError::Kind::Canceled));
  if (const auto* own = std::get_if<kException>(&content_)) return *own;
  return (*std::get_if<kShared>(&content_))->exception();
}

template <class T>
void Future<T>::cancel() {
  if (auto* shared = std::get_if<kShared>(&content_)) (*shared)->cancel();
}

/// The state that continuations wait for: a future that holds its result itself gets one made.
template <class T>
std::shared_ptr<detail::FutureSharedState<T>> Future<T>::shared() const {
  if (const auto* state = std::get_if<kShared>(&content_)) return *state;
  auto made = std::make_shared<State>();
  if (isCanceled()) {
    made->tryCancel();
  } else if (const auto* failure = std::get_if<kException>(&content_)) {
    made->tryFail(*failure);
  } else {
    made->trySetValue(Stored(*std::get_if<kValue>(&content_)));
  }
  return made;
}

template <class T>
template <class F>
auto Future<T>::then(F&& callback, FutureCallbackType type) const -> Future<detail::UnwrappedResult<F, Future<T>>> {
  using R = detail::UnwrappedResult<F, Future<T>>;
  using Chained = detail::ThenState<T, R, std::decay_t<F>>;
  if (!isValid()) throw FutureError(FutureError::Kind::NoState);
  if (type != FutureCallbackType::Async && isFinished()) {
    return detail::invokeToFuture<R>(callback, *this);
  }
  auto chained = std::make_shared<Chained>(std::forward<F>(callback));
  detail::FutureStateBase::chain(shared(), {chained, type});
  return Future<R>(std::move(chained));
}

template <class T>
template <class F>
auto Future<T>::andThen(F&& callback, FutureCallbackType type) const {
  return then(
      [callback = std::forward<F>(callback)](const Future& source) mutable {
        const auto call = [&]() -> decltype(auto) {
          if constexpr (std::is_void_v<T>) {
            return std::invoke(callback);
          } else {
            return std::invoke(callback, source.value());
          }
        };
        using R = detail::UnwrappedResult<decltype(call)>;
        if (source.isCanceled()) return Future<R>::canceled();
        if (auto failure = source.exception()) return Future<R>::failed(std::move(failure));
        return detail::invokeToFuture<R>(call);
      },
      type);
}

template <class T>
Promise<T>::Promise(std::function<void(Promise&)> onCancel) {
  detail::FutureStateBase::OnCancel ask;
  if (onCancel) {
    ask = [onCancel = std::move(onCancel)](detail::FutureStateBase& state) {
      Promise promise(std::static_pointer_cast<State>(state.shared_from_this()));
      onCancel(promise);
    };
  }
  state_ = std::make_shared<State>(std::move(ask));
  state_->addPromise();
}

}  // namespace mw
