#include "threadwait.h"

#include <hxerror/mutex.h>
#include <libmw/detail/racepoint.h>
#include <libmw/eventloop.h>
#include <libmw/future.h>

#include <algorithm>
#include <stdexcept>

namespace mw {
namespace {

const char* describeKind(FutureError::Kind kind) noexcept {
  switch (kind) {
    case FutureError::Kind::Timeout:
      return "The future did not finish in time";
    case FutureError::Kind::Canceled:
      return "The future was canceled";
    case FutureError::Kind::NoState:
      return "The future has no result: its promise is gone";
    case FutureError::Kind::UserError:
      break;
  }
  return "The future failed";
}

}  // namespace

FutureError::FutureError(Kind kind) : FutureError(kind, describeKind(kind)) {}
FutureError::~FutureError() = default;

namespace detail {
namespace {

std::exception_ptr noState() { return std::make_exception_ptr(FutureError(FutureError::Kind::NoState)); }

}  // namespace

std::string describe(const std::exception_ptr& exception) {
  try {
    std::rethrow_exception(exception);
  } catch (const std::exception& error) {
    return *error.what() ? error.what() : "Error without a text";
  } catch (...) {
    return "Unknown error";
  }
}

FutureStateBase::FutureStateBase(Kind kind, OnCancel onCancel) : kind_(kind), onCancel_(std::move(onCancel)) {}
FutureStateBase::~FutureStateBase() = default;

Waker::~Waker() = default;

bool FutureStateBase::addWaker(Waker& waker) const {
  const HX::MutexLock lock(mutex_);
  if (state() != FutureState::Running) return false;
  wakers_.push_back(&waker);
  return true;
}

void FutureStateBase::removeWaker(Waker& waker) const noexcept {
  const HX::MutexLock lock(mutex_);
  // Once: the thread may wait for this state further out as well.
  if (const auto found = std::ranges::find(wakers_, &waker); found != wakers_.end()) wakers_.erase(found);
}

FutureState FutureStateBase::wait(std::chrono::milliseconds timeout) const {
  if (state() != FutureState::Running || timeout <= timeout.zero()) return state();
  if (ThreadWait* const own = ThreadWait::current()) return own->wait(*this, timeout);
  ThreadWait::tellOfWaiting();
  const auto isFinished = [this] { return state() != FutureState::Running; };
  HX::MutexLock lock(mutex_);
  if (timeout >= kInfiniteTimeout) {
    finished_.wait(lock.native(), isFinished);
  } else {
    finished_.wait_for(lock.native(), timeout, isFinished);
  }
  return state();
}

void FutureStateBase::cancel() {
  for (auto asked = shared_from_this(); asked;) asked = asked->requestCancel();
}

/// @return The state to ask next, if this one is not the producer's.
std::shared_ptr<FutureStateBase> FutureStateBase::requestCancel() {
  OnCancel onCancel;
  {
    const HX::MutexLock lock(mutex_);
    if (state() != FutureState::Running) return nullptr;
    const bool isRepeated = std::exchange(cancelRequested_, true);
    if (kind_ == Kind::Dependent) return source_.lock();
    if (isRepeated) return nullptr;
    onCancel = std::exchange(onCancel_, nullptr);
  }
  if (!onCancel) {
    tryCancel();
    return nullptr;
  }
  try {
    onCancel(*this);
  } catch (...) {
    tryFail(std::current_exception());
  }
  return nullptr;
}

/// Continuations on their way to the event loop, which keep their order; fails them when the loop drops them.
struct DeferredRun {
  std::shared_ptr<FutureStateBase> source;
  FutureStateBase::Dependents dependents;

  DeferredRun(std::shared_ptr<FutureStateBase> from, FutureStateBase::Dependents to)
      : source(std::move(from)), dependents(std::move(to)) {}
  DeferredRun(const DeferredRun&) = delete;
  DeferredRun& operator=(const DeferredRun&) = delete;
  ~DeferredRun() {
    for (const auto& dependent : dependents) dependent.state->tryFail(noState());
  }

  void operator()() { FutureStateBase::run(std::move(source), std::exchange(dependents, {})); }
};

bool FutureStateBase::isCancelRequested() const {
  const HX::MutexLock lock(mutex_);
  return cancelRequested_;
}

bool FutureStateBase::claim() noexcept { return !claimed_.exchange(true); }

void FutureStateBase::unclaim() noexcept {
  {
    const HX::MutexLock lock(mutex_);
    claimed_ = false;
  }
  finished_.notify_all();
}

void FutureStateBase::finish(FutureState outcome, std::exception_ptr error) {
  auto dependents = publish(outcome, std::move(error));
  if (dependents.empty()) return;
  if (!NoForeignCode::holdsHere()) return run(shared_from_this(), std::move(dependents));
  defaultLoop().post([run = std::make_shared<DeferredRun>(shared_from_this(), std::move(dependents))] { (*run)(); });
}

FutureStateBase::Dependents FutureStateBase::publish(FutureState outcome, std::exception_ptr error) noexcept {
  OnCancel unused;  // may own things whose destructors are foreign: goes after the lock
  Dependents dependents;
  {
    const HX::MutexLock lock(mutex_);
    claimed_ = true;
    exception_ = std::move(error);
    unused.swap(onCancel_);
    dependents.swap(dependents_);
    state_.store(outcome, std::memory_order_release);
    for (Waker* const waker : wakers_) waker->wake();
    wakers_.clear();
  }
  finished_.notify_all();
  return dependents;
}

bool FutureStateBase::tryFail(std::exception_ptr error) {
  if (!claim()) return false;
  finish(FutureState::FinishedWithError, std::move(error));
  return true;
}

bool FutureStateBase::tryCancel() {
  if (!claim()) return false;
  finish(FutureState::Canceled);
  return true;
}

void FutureStateBase::refuseResult() const {
  // Whoever was first may not have published its outcome yet.
  HX::MutexLock lock(mutex_);
  HX_RACE_POINT("a result is there already");
  finished_.wait(lock.native(), [this] { return state() != FutureState::Running || !claimed_; });
  if (state() != FutureState::Canceled) throw std::logic_error("Promise: the future has a result already");
}

void FutureStateBase::dropPromise() {
  if (promises_.fetch_sub(1, std::memory_order_acq_rel) == 1 && state() == FutureState::Running) tryFail(noState());
}

void FutureStateBase::chain(const std::shared_ptr<FutureStateBase>& source, const Dependent& dependent) {
  {
    const HX::MutexLock lock(dependent.state->mutex_);
    dependent.state->source_ = source;
  }
  if (!source->attach(dependent)) run(source, {dependent});
}

bool FutureStateBase::attach(const Dependent& dependent) {
  const HX::MutexLock lock(mutex_);
  if (state() != FutureState::Running) return false;
  dependents_.push_back(dependent);
  return true;
}

FutureStateBase::Dependents FutureStateBase::resume(const std::shared_ptr<FutureStateBase>&) noexcept { return {}; }

void FutureStateBase::leaveSource() {
  const HX::MutexLock lock(mutex_);
  source_.reset();
}

bool FutureStateBase::awaitSource(const std::shared_ptr<FutureStateBase>& source) {
  bool isCanceling = false;
  {
    const HX::MutexLock lock(mutex_);
    source_ = source;
    isCanceling = cancelRequested_;
  }
  if (!source->attach({shared_from_this(), FutureCallbackType::Sync})) return false;
  if (isCanceling) source->cancel();
  return true;
}

/// Runs dependents, and those that may run after them, level by level: a chain as long as memory needs no stack.
void FutureStateBase::run(std::shared_ptr<FutureStateBase> source, Dependents dependents) {
  struct Ready {
    std::shared_ptr<FutureStateBase> source;
    Dependent dependent;
  };
  std::vector<Ready> level;
  for (auto& dependent : dependents) level.push_back({source, std::move(dependent)});
  source.reset();
  while (!level.empty()) {
    std::vector<Ready> next;
    for (auto& ready : level) {
      const auto [from, dependent] = std::move(ready);
      if (dependent.type == FutureCallbackType::Async) {
        post(from, dependent.state);
        continue;
      }
      for (auto& following : dependent.state->resume(from)) next.push_back({dependent.state, std::move(following)});
    }
    level = std::move(next);
  }
}

/// A continuation on its way through the event loop; fails it when the loop drops it.
struct AsyncRun {
  std::shared_ptr<FutureStateBase> source;
  std::shared_ptr<FutureStateBase> dependent;

  AsyncRun(std::shared_ptr<FutureStateBase> from, std::shared_ptr<FutureStateBase> to)
      : source(std::move(from)), dependent(std::move(to)) {}
  AsyncRun(const AsyncRun&) = delete;
  AsyncRun& operator=(const AsyncRun&) = delete;
  ~AsyncRun() {
    if (dependent) dependent->tryFail(noState());
  }

  void operator()() {
    FutureStateBase::run(std::move(source), {{std::exchange(dependent, nullptr), FutureCallbackType::Sync}});
  }
};

void FutureStateBase::post(std::shared_ptr<FutureStateBase> source, std::shared_ptr<FutureStateBase> dependent) {
  defaultLoop().post([run = std::make_shared<AsyncRun>(std::move(source), std::move(dependent))] { (*run)(); });
}

}  // namespace detail
}  // namespace mw
