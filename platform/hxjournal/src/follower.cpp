#include "follower.h"

#include "core.h"

#include <hxerror/mutex.h>

#include <algorithm>
#include <exception>
#include <limits>
#include <new>
#include <utility>

namespace HX::journal {
namespace {

constexpr std::chrono::microseconds kNap{500};
/// Who is woken sooner after it fell asleep is beside a busy writer.
constexpr std::chrono::milliseconds kShortSleep{2};
constexpr std::chrono::milliseconds kRetry{10};
constexpr std::chrono::milliseconds kTask{1};
constexpr int kTaskChanges = 512;
constexpr int kChangesPerClock = 16;

}  // namespace

Follower::Follower(std::shared_ptr<Core> core, Filter filter, Listener onChange, FollowOptions options)
    : core_(std::move(core)),
      filter_(std::move(filter)),
      onChange_(std::move(onChange)),
      options_(std::move(options)),
      behind_(options_.behind != 0 ? options_.behind : std::numeric_limits<std::uint64_t>::max()) {
  if (options_.rate > 0) rates_.emplace(options_.rate);
}

Follower::~Follower() = default;

FollowerInfo Follower::info() const {
  const std::uint64_t latest = core_->latest().revision;
  const std::uint64_t told = position_.load(std::memory_order_relaxed);
  return {std::string(who_.text()), latest > told ? latest - told : 0, gaps_.load(std::memory_order_relaxed),
          paused_.load(std::memory_order_relaxed)};
}

Position Follower::position() const noexcept { return {core_->epoch, position_.load(std::memory_order_relaxed)}; }

void Follower::run() {
  if (!enter()) return;
  const Outcome outcome = work();
  const auto thrown = std::exchange(thrown_, nullptr);
  if (leave()) schedule(outcome);
  if (thrown) std::rethrow_exception(thrown);
}

bool Follower::enter() noexcept {
  const MutexLock lock(mutex_);
  parked_ = paused_ && !ended_;
  if (paused_ || ended_) return false;
  running_ = std::this_thread::get_id();
  return true;
}

/// @return Whether there is to be another task.
bool Follower::leave() noexcept {
  bool byItself = false;
  {
    const MutexLock lock(mutex_);
    byItself = leftByItself_;
    if (!byItself) running_ = {};
    stopped_.notify_all();
    if (!ended_) return true;
  }
  if (!byItself) return false;
  dropCallbacks();
  const MutexLock lock(mutex_);
  running_ = {};
  stopped_.notify_all();
  return false;
}

void Follower::end() noexcept {
  bool isOwn = false;
  {
    MutexLock lock(mutex_);
    ended_ = true;
    isOwn = running_ == std::this_thread::get_id();
    if (!isOwn) stopped_.wait(lock.native(), [this]() HX_REQUIRES(mutex_) { return running_ == std::thread::id(); });
    if (std::exchange(left_, true)) return;
    leftByItself_ = isOwn;
  }
  core_->leave(*this);
  if (!isOwn) dropCallbacks();
}

/// What they hold may hold the follower, and goes with its end rather than with its last task. The other options are
/// read by that task still.
void Follower::dropCallbacks() noexcept {
  onChange_ = nullptr;
  options_.onGap = nullptr;
  options_.onComplete = nullptr;
  options_.onUnchanged = nullptr;
  options_.onPause = nullptr;
}

void Follower::pause() noexcept {
  const MutexLock lock(mutex_);
  paused_ = true;
}

void Follower::resume() {
  {
    const MutexLock lock(mutex_);
    paused_ = false;
    if (!std::exchange(parked_, false)) return;
  }
  try {
    post({});
  } catch (...) {
    const MutexLock lock(mutex_);
    paused_ = parked_ = true;
    throw;
  }
}

Follower::Outcome Follower::work() {
  const auto until = core_->executor->now() + kTask;
  looks_ = std::min(looks_ + 1, 2);
  for (int told = 0; !ended_ && !paused_ && !thrown_;) {
    bool askClock = true;
    try {
      if (batch_.isEmpty()) {
        if (!refill()) {
          if (isAtRest()) return Outcome::CaughtUp;
          continue;
        }
      } else {
        looks_ = 0;
        isNews_ = true;
        if (tell(batch_.all[batch_.next])) ++told;
        ++batch_.next;
        askClock = told % kChangesPerClock == 0;
      }
    } catch (const std::bad_alloc&) {
      return Outcome::Retry;
    }
    if (told >= kTaskChanges || (askClock && core_->executor->now() >= until)) break;
  }
  return Outcome::More;
}

/// All is told that there is. @return Whether it is so still, after a callback.
bool Follower::isAtRest() {
  if (!walk_) moveTo(cursor_ - 1);
  // A task may have ended between the last change and here: the looks do not tell.
  if (!std::exchange(isNews_, false) || !options_.onPause) return true;
  try {
    options_.onPause();
  } catch (...) {
    thrown_ = std::current_exception();
  }
  return !thrown_;
}

/// @return Whether a change was told; a rate may have kept it back.
/// @throws std::bad_alloc before the callback.
bool Follower::tell(Told& told) {
  told.change.key = batch_.nameOf(told);
  if (told.type == Told::Type::Change && rates_ && !told.isDue &&
      !rates_->admits(told.change, core_->executor->now())) {
    return false;
  }
  try {
    callBack(told);
  } catch (...) {
    thrown_ = std::current_exception();
  }
  if (!walk_ && !rates_ && told.type == Told::Type::Change && !told.change.isState) {
    moveTo(told.change.at.revision);
  }
  if (told.type == Told::Type::Complete) moveTo(told.change.at.revision);
  return true;
}

/// All up to there is told, but for what a rate keeps back.
void Follower::moveTo(std::uint64_t revision) noexcept {
  position_.store(rates_ ? rates_->toldUpTo(revision) : revision, std::memory_order_relaxed);
}

void Follower::callBack(Told& told) {
  switch (told.type) {
    case Told::Type::Change:
      if (onChange_) onChange_(told.change);
      break;
    case Told::Type::Unchanged:
      if (options_.onUnchanged) options_.onUnchanged(told.change.key, told.change.at);
      break;
    case Told::Type::Gap:
      if (options_.onGap) options_.onGap(*batch_.gap);
      break;
    case Told::Type::Complete:
      if (options_.onComplete) options_.onComplete(told.change.at);
      break;
  }
}

bool Follower::post(std::chrono::nanoseconds delay) {
  return core_->executor->post([self = shared_from_this()] { self->run(); }, delay);
}

void Follower::schedule(Outcome outcome) noexcept {
  try {
    if (outcome == Outcome::More) {
      post({});
    } else if (outcome == Outcome::Retry) {
      post(kRetry);
    } else {
      sleep();
    }
  } catch (const std::bad_alloc&) {
    // No task can be had: the next change rings.
    core_->ring.fallAsleepUnrung(sleeper, cursor_);
    core_->ring.askForBell();
  }
}

/// A follower that slept whenever it had caught up would have a busy writer wake it each time. So where it was woken
/// soon after it had fallen asleep, it looks again by itself until two looks found nothing. What comes now and then
/// wakes it once, and it does not look in vain after that.
void Follower::sleep() {
  const auto now = core_->executor->now();
  const auto due = rates_ ? rates_->next() : std::nullopt;
  const std::chrono::nanoseconds left = due ? *due - now : std::chrono::nanoseconds::max();
  if (left <= left.zero()) {
    post({});
    return;
  }
  isBusy_ = looks_ < 2 && (isBusy_ || now < asleepSince_ + kShortSleep);
  if (isPrompt() && isBusy_) {
    post(std::min<std::chrono::nanoseconds>(kNap, left));
    return;
  }
  asleepSince_ = now;
  const std::uint64_t nap = sleeper.nap + 1;  // Counted by this chain alone.
  if (due) {
    core_->executor->post(
        [self = shared_from_this(), nap] {
          if (self->core_->ring.wakeFrom(self->sleeper, nap)) self->run();
        },
        left);
  }
  if (!isPrompt()) {
    core_->ring.fallAsleepUnrung(sleeper, cursor_);
  } else if (!core_->ring.fallAsleep(sleeper, cursor_)) {
    post({});
    return;
  }
  // The timer may have come before the sleep.
  if (due && core_->executor->now() >= *due && core_->ring.wakeFrom(sleeper, nap)) post({});
}

}  // namespace HX::journal
