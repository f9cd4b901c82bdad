#include "waiting.h"

#include "../runtime/threadkept.h"
#include "../runtime/threadwait.h"
#include "channel.h"
#include "outputbatch.h"

#include <hxerror/mutex.h>
#include <libmw/eventloop.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace mw::remote {
namespace {

using Clock = std::chrono::steady_clock;
using Task = std::function<void()>;

/// A thread that has called and does not wait at once may never do so. What came for it is then done by others.
constexpr std::chrono::milliseconds kPatience{5};

}  // namespace

/// What wakes a thread that waits within a chain: the end of what it waits for, and calls that it is to serve.
///
/// Calls may come before the thread waits: it has sent, and the answer is a call back. They are kept for it.
class Inbox final : public detail::Waker, public std::enable_shared_from_this<Inbox> {
 public:
  Inbox() = default;
  Inbox(const Inbox&) = delete;
  Inbox& operator=(const Inbox&) = delete;
  ~Inbox() override {
    if (file_ >= 0) ::close(file_);
  }

  void wake() noexcept override {
    const HX::MutexLock lock(mutex_);
    wakeLocked();
  }

  void put(const Caller& caller, Task task) {
    const HX::MutexLock lock(mutex_);
    tasks_.emplace_back(caller, std::move(task));
    if (isAwaited(caller)) return wakeLocked();
    defaultLoop().post(
        [self = shared_from_this()] {
          while (const Task late = self->takeUnawaited()) late();
        },
        kPatience);
  }

  /// @return The chain of the wait that this one is inside of, for `endWait`.
  Caller beginWait(const Caller& caller) {
    const HX::MutexLock lock(mutex_);
    ++waits_;
    woken_ = false;  // The thread looks for whatever it was before it sleeps.
    return std::exchange(caller_, caller);
  }

  /// What came last was meant for the thread while it waited: it is done by others when the outermost wait has ended.
  void endWait(const Caller& outer) {
    std::deque<std::pair<Caller, Task>> left;
    {
      const HX::MutexLock lock(mutex_);
      caller_ = outer;
      if (--waits_ == 0) left.swap(tasks_);
    }
    for (auto& [caller, task] : left) defaultLoop().post(std::move(task));
  }

  Task takeUnawaited() { return takeIf(false); }

  /// Only of the chain that the thread waits in: another one's call must not meet the locks that this one holds.
  Task take() { return takeIf(true); }

  /// Sleeps until something was put in, or it was woken since `take`.
  void sleep(Clock::time_point deadline) {
    HX::MutexLock lock(mutex_);
    const auto isWoken = [this]() HX_REQUIRES(mutex_) { return woken_; };
    if (deadline == Clock::time_point::max()) {
      condition_.wait(lock.native(), isWoken);
    } else {
      condition_.wait_until(lock.native(), deadline, isWoken);
    }
    woken_ = false;
  }

  /// Whether there is a file to poll; the process may be out of them.
  bool hasFile() const {
    const HX::MutexLock lock(mutex_);
    return file_ >= 0;
  }

  /// Makes wakings readable on a file, for a thread that polls. @return The file; -1 when it cannot be, or when the
  /// inbox was woken already.
  int beginPolling() {
    const HX::MutexLock lock(mutex_);
    if (file_ < 0) file_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (file_ < 0 || std::exchange(woken_, false)) return -1;
    polling_ = true;
    return file_;
  }

  void endPolling() {
    const HX::MutexLock lock(mutex_);
    polling_ = false;
    woken_ = false;  // Whatever it was for is looked at next.
    if (!std::exchange(signalled_, false)) return;
    std::uint64_t count = 0;
    static_cast<void>(!::read(file_, &count, sizeof count));
  }

 private:
  bool isAwaited(const Caller& caller) const HX_REQUIRES(mutex_) { return waits_ > 0 && caller == caller_; }

  Task takeIf(bool isAwaitedOne) {
    const HX::MutexLock lock(mutex_);
    const auto isOne = [&](const auto& one) HX_REQUIRES(mutex_) { return isAwaited(one.first) == isAwaitedOne; };
    const auto found = std::ranges::find_if(tasks_, isOne);
    if (found == tasks_.end()) return {};
    Task task = std::move(found->second);
    tasks_.erase(found);
    return task;
  }

  void wakeLocked() noexcept HX_REQUIRES(mutex_) {
    woken_ = true;
    if (!polling_) {
      condition_.notify_one();
    } else if (std::this_thread::get_id() != owner_ && !std::exchange(signalled_, true)) {
      const std::uint64_t one = 1;
      static_cast<void>(!::write(file_, &one, sizeof one));
    }
  }

  const std::thread::id owner_ = std::this_thread::get_id();
  mutable HX::Mutex mutex_;
  std::condition_variable condition_;
  std::deque<std::pair<Caller, Task>> tasks_ HX_GUARDED_BY(mutex_);  // with the chain of each
  int waits_ HX_GUARDED_BY(mutex_) = 0;                              // inside one another
  Caller caller_ HX_GUARDED_BY(mutex_);                              // the chain of the innermost
  bool woken_ HX_GUARDED_BY(mutex_) = false;
  bool polling_ HX_GUARDED_BY(mutex_) = false;
  bool signalled_ HX_GUARDED_BY(mutex_) = false;
  int file_ HX_GUARDED_BY(mutex_) = -1;
};

namespace {

/// Which threads of this process wait, or are about to, within which chain, and where.
class Waiters {
 public:
  static Waiters& instance() {
    static Waiters* const the = new Waiters;  // Never destroyed: threads may wait until the very end.
    return *the;
  }

  void add(const WaitingPlace& place, const std::shared_ptr<Inbox>& inbox) {
    const HX::MutexLock lock(mutex_);
    waiting_.emplace_back(place, inbox);
  }

  void remove(const WaitingPlace& place, const std::shared_ptr<Inbox>& inbox) {
    std::shared_ptr<Inbox> last;  // Goes after the lock.
    const HX::MutexLock lock(mutex_);
    const auto found = std::find(waiting_.rbegin(), waiting_.rend(), std::pair(place, inbox)).base() - 1;
    last = std::move(found->second);
    waiting_.erase(found);
  }

  bool put(const WaitingPlace& place, Task& task) {
    const HX::MutexLock lock(mutex_);
    const auto found =
        std::find_if(waiting_.rbegin(), waiting_.rend(), [&](const auto& waiting) { return waiting.first == place; });
    if (found == waiting_.rend()) return false;
    found->second->put(place.first, std::move(task));
    return true;
  }

 private:
  HX::Mutex mutex_;  // Outer to the mutex of an inbox.
  /// In the order in which they began: few at a time, so that looking through them costs less than an index.
  std::vector<std::pair<WaitingPlace, std::shared_ptr<Inbox>>> waiting_ HX_GUARDED_BY(mutex_);
};

/// How the calling thread waits.
class WaitingThread final : public detail::ThreadWait {
 public:
  WaitingThread() { setCurrent(this); }
  WaitingThread(const WaitingThread&) = delete;
  WaitingThread& operator=(const WaitingThread&) = delete;
  ~WaitingThread() override { setCurrent(nullptr); }

  Expectation expect(const std::shared_ptr<Channel>& channel, Calling then, const detail::FutureStateBase& answer);
  bool beginReading();

  FutureState wait(const detail::FutureStateBase& state, std::chrono::milliseconds timeout) override;
  void hasWaited() noexcept override;

 private:
  static WaitingPlace place() { return {servedByThisThread().chain.caller, servedByThisThread().domain}; }
  void pause(Clock::time_point deadline);
  bool readInstead(Clock::time_point deadline);
  std::shared_ptr<Channel> tryToRead();
  void endReading();

  const std::shared_ptr<Inbox> inbox_ = std::make_shared<Inbox>();
  /// The one called last, which is read while the thread waits. It may end, and go, meanwhile.
  std::weak_ptr<Channel> channel_;
  const Channel* known_ = nullptr;  // the same, to compare with
  bool hasTurn_ = false;            // to read it
  const detail::FutureStateBase* expected_ =
      nullptr;  // the answer that the thread waits for next, and is registered for
};

Expectation WaitingThread::expect(const std::shared_ptr<Channel>& channel, Calling then,
                                  const detail::FutureStateBase& answer) {
  endReading();
  expected_ = nullptr;
  if (known_ != channel.get() || channel_.expired()) {
    if (const auto before = channel_.lock()) before->flush();  // The thread will not come to it when it waits.
    channel_ = channel;
    known_ = channel.get();
  }
  if (then == Calling::MakesMore || servedByThisThread().relays) return {};
  if (then == Calling::Waits) expected_ = &answer;
  return {place(), inbox_};
}

bool WaitingThread::beginReading() {
  if (expected_) tryToRead();
  return hasTurn_;
}

/// @return The channel, where the thread has the turn to read it now.
std::shared_ptr<Channel> WaitingThread::tryToRead() {
  auto channel = channel_.lock();
  auto* const reading = channel ? channel->callerReading() : nullptr;
  hasTurn_ = reading && (hasTurn_ || reading->beginReading());
  return channel;
}

void WaitingThread::endReading() {
  if (!std::exchange(hasTurn_, false)) return;
  if (const auto channel = channel_.lock()) channel->callerReading()->endReading();
}

void WaitingThread::hasWaited() noexcept {
  expected_ = nullptr;
  endReading();
}

FutureState WaitingThread::wait(const detail::FutureStateBase& state, std::chrono::milliseconds timeout) {
  const bool isExpected = std::exchange(expected_, nullptr) == &state;
  if (!state.addWaker(*inbox_)) return state.state();
  const auto deadline = timeout >= kInfiniteTimeout ? Clock::time_point::max() : Clock::now() + timeout;
  const Caller outer = inbox_->beginWait(servedByThisThread().chain.caller);
  {
    // The call that is waited for has registered the thread, for as long as it is not answered.
    const Expectation own = isExpected ? Expectation() : Expectation(place(), inbox_);
    while (state.state() == FutureState::Running) {
      if (const Task task = inbox_->take()) {
        endReading();  // What the task does may last.
        task();
        continue;
      }
      if (deadline != Clock::time_point::max() && Clock::now() >= deadline) break;
      pause(deadline);
    }
  }
  state.removeWaker(*inbox_);
  inbox_->endWait(outer);
  return state.state();
}

void WaitingThread::pause(Clock::time_point deadline) {
  if (!readInstead(deadline)) inbox_->sleep(deadline);
}

bool WaitingThread::readInstead(Clock::time_point deadline) {
  const auto channel = tryToRead();
  // What is to be sent leaves after that: the answer may come at once, and would wake another thread.
  if (channel) channel->flush();
  OutputBatch::flushAll();
  if (!hasTurn_) return false;
  auto* const reading = channel->callerReading();
  if (reading->readSoon()) {
    endReading();
    return true;
  }
  if (const int file = inbox_->beginPolling(); file >= 0) {
    static constexpr std::chrono::milliseconds kLongest{60'000};
    const auto left = deadline == Clock::time_point::max()
                          ? kLongest
                          : std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    reading->read(file, std::clamp(left, std::chrono::milliseconds(0), kLongest));
    inbox_->endPolling();
  }
  endReading();
  return inbox_->hasFile();
}

}  // namespace

Expectation::Expectation(const WaitingPlace& place, std::shared_ptr<Inbox> inbox)
    : place_(place), inbox_(std::move(inbox)) {
  Waiters::instance().add(place_, inbox_);
}

void Expectation::end() { Waiters::instance().remove(place_, inbox_); }

void serveWhileWaiting() {
  if (!detail::ThreadWait::current()) detail::ofThisThread<WaitingThread>();
}

bool runInChain(const Caller& caller, Domain domain, std::function<void()>& task) {
  return Waiters::instance().put({caller, domain}, task);
}

Expectation expectAnswer(const std::shared_ptr<Channel>& channel, Domain domain, Calling then,
                         const detail::FutureStateBase& answer) {
  servedByThisThread().domain = domain;
  auto* const thread = detail::ofThisThread<WaitingThread>();
  return thread ? thread->expect(channel, then, answer) : Expectation();
}

bool beginReadingAnswer() {
  auto* const thread = detail::ofThisThread<WaitingThread>();
  return thread && thread->beginReading();
}

}  // namespace mw::remote
