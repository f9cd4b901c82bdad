#include "waiting.h"

#include "../runtime/afterserving.h"
#include "../runtime/threadkept.h"
#include "../runtime/threadwait.h"
#include "channel.h"
#include "inbox.h"
#include "outputbatch.h"

#include <hxerror/mutex.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <vector>

namespace mw::remote {
namespace {

using Clock = std::chrono::steady_clock;
using Task = std::function<void()>;

/// Which threads of this process wait, or are about to, within which chain, and where. Chains are spread over several,
/// so that threads that have nothing to do with one another do not meet at one lock with each call.
struct alignas(64) Waiters {
  /// Those of the chain that `place` is in.
  static Waiters& of(const WaitingPlace& place) {
    static auto* const all = new std::array<Waiters, 16>;  // Never destroyed: threads may wait until the very end.
    return (*all)[place.first.thread % all->size()];
  }

  HX::Mutex mutex;  // Outer to the mutex of an inbox.
  /// In the order in which they began: few at a time, so that looking through them costs less than an index.
  std::vector<std::pair<WaitingPlace, std::shared_ptr<Inbox>>> list HX_GUARDED_BY(mutex);
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
  bool readInstead(Clock::time_point deadline);
  std::shared_ptr<Channel> tryToRead();
  void endReading();

  const std::shared_ptr<Inbox> inbox_ = std::make_shared<Inbox>();
  /// The one called last, which is read while the thread waits. It may end, and go, meanwhile.
  std::weak_ptr<Channel> channel_;
  bool hasTurn_ = false;  // to read it
  /// The answer that the thread waits for next, and is registered for.
  const detail::FutureStateBase* expected_ = nullptr;
};

Expectation WaitingThread::expect(const std::shared_ptr<Channel>& channel, Calling then,
                                  const detail::FutureStateBase& answer) {
  endReading();
  expected_ = nullptr;
  if (channel_.owner_before(channel) || channel.owner_before(channel_)) channel_ = channel;
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
        detail::AfterServing::passOn();  // So may the wait.
        continue;
      }
      if (deadline != Clock::time_point::max() && Clock::now() >= deadline) break;
      if (!readInstead(deadline)) inbox_->sleep(deadline);
    }
  }
  state.removeWaker(*inbox_);
  inbox_->endWait(outer);
  return state.state();
}

/// @return Whether it could. The thread sleeps otherwise.
bool WaitingThread::readInstead(Clock::time_point deadline) {
  const auto channel = tryToRead();
  OutputBatch::flushAll();  // After that: the answer may come at once, and would wake another thread.
  if (!hasTurn_) return false;
  const int file = inbox_->beginPolling();
  if (file >= 0) {
    channel->callerReading()->read(file, deadline);
    inbox_->endPolling();
  }
  endReading();
  return file >= 0;
}

}  // namespace

Expectation::Expectation(const WaitingPlace& place, std::shared_ptr<Inbox> inbox)
    : place_(place), inbox_(std::move(inbox)) {
  Waiters& waiters = Waiters::of(place_);
  const HX::MutexLock lock(waiters.mutex);
  waiters.list.emplace_back(place_, inbox_);
}

void Expectation::end() {
  Waiters& waiters = Waiters::of(place_);
  const HX::MutexLock lock(waiters.mutex);
  const auto found = std::find(waiters.list.rbegin(), waiters.list.rend(), std::pair(place_, inbox_));
  waiters.list.erase(found.base() - 1);  // `inbox_` keeps the inbox until after the lock.
}

void serveWhileWaiting() {
  if (!detail::ThreadWait::current()) detail::ofThisThread<WaitingThread>();
}

bool runInChain(const Caller& caller, Domain domain, Task& task) {
  const WaitingPlace place(caller, domain);
  Waiters& waiters = Waiters::of(place);
  const HX::MutexLock lock(waiters.mutex);
  const auto found = std::find_if(waiters.list.rbegin(), waiters.list.rend(),
                                  [&](const auto& waiting) { return waiting.first == place; });
  if (found == waiters.list.rend()) return false;
  found->second->put(caller, std::move(task));
  return true;
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
