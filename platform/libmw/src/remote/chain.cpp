#include "chain.h"

#include "../runtime/threadlocal.h"
#include "../runtime/threadwait.h"
#include "channel.h"

#include <libmw/eventloop.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <random>
#include <stdexcept>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <fmt/format.h>

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
    const std::lock_guard lock(mutex_);
    wakeLocked();
  }

  void put(const Caller& caller, Task task) {
    const std::lock_guard lock(mutex_);
    tasks_.emplace_back(caller, std::move(task));
    if (isAwaited(caller)) return wakeLocked();
    defaultLoop().post(
        [self = shared_from_this()] {
          while (const Task late = self->takeUnwaited()) late();
        },
        kPatience);
  }

  /// @return The chain of the wait that this one is inside of, for `endWait`.
  Caller beginWait(const Caller& caller) {
    const std::lock_guard lock(mutex_);
    ++waits_;
    woken_ = false;  // The thread looks for whatever it was before it sleeps.
    return std::exchange(caller_, caller);
  }

  /// What came last was meant for the thread while it waited: it is done by others when the outermost wait has ended.
  void endWait(const Caller& outer) {
    std::deque<std::pair<Caller, Task>> left;
    {
      const std::lock_guard lock(mutex_);
      caller_ = outer;
      if (--waits_ == 0) left.swap(tasks_);
    }
    for (auto& [caller, task] : left) defaultLoop().post(std::move(task));
  }

  Task takeUnwaited() { return takeIf(false); }

  /// Only of the chain that the thread waits in: another one's call must not meet the locks that this one holds.
  Task take() { return takeIf(true); }

  /// Sleeps until something was put in, or it was woken since `take`.
  void sleep(Clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    const auto isWoken = [this] { return woken_; };
    if (deadline == Clock::time_point::max()) {
      condition_.wait(lock, isWoken);
    } else {
      condition_.wait_until(lock, deadline, isWoken);
    }
    woken_ = false;
  }

  /// Whether there is a file to poll; the process may be out of them.
  bool hasFile() const { return file_ >= 0; }

  /// Makes wakings readable on a file, for a thread that polls. @return The file; -1 when it cannot be, or when the
  /// inbox was woken already.
  int beginPolling() {
    const std::lock_guard lock(mutex_);
    if (file_ < 0) file_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (file_ < 0 || std::exchange(woken_, false)) return -1;
    polling_ = true;
    return file_;
  }

  void endPolling() {
    const std::lock_guard lock(mutex_);
    polling_ = false;
    woken_ = false;  // Whatever it was for is looked at next.
    if (!std::exchange(signalled_, false)) return;
    std::uint64_t count = 0;
    static_cast<void>(!::read(file_, &count, sizeof count));
  }

 private:
  bool isAwaited(const Caller& caller) const { return waits_ > 0 && caller == caller_; }

  Task takeIf(bool isAwaitedOne) {
    const std::lock_guard lock(mutex_);
    const auto found =
        std::ranges::find_if(tasks_, [&](const auto& one) { return isAwaited(one.first) == isAwaitedOne; });
    if (found == tasks_.end()) return {};
    Task task = std::move(found->second);
    tasks_.erase(found);
    return task;
  }

  void wakeLocked() noexcept {
    woken_ = true;
    if (!polling_) {
      condition_.notify_one();
    } else if (std::this_thread::get_id() != owner_ && !std::exchange(signalled_, true)) {
      const std::uint64_t one = 1;
      static_cast<void>(!::write(file_, &one, sizeof one));
    }
  }

  const std::thread::id owner_ = std::this_thread::get_id();
  std::mutex mutex_;  // Guards everything below.
  std::condition_variable condition_;
  std::deque<std::pair<Caller, Task>> tasks_;  // with the chain of each
  int waits_ = 0;                              // inside one another
  Caller caller_;                              // the chain of the innermost
  bool woken_ = false;
  bool polling_ = false;
  bool signalled_ = false;
  int file_ = -1;
};

namespace {

/// Which threads of this process wait, or are about to, within which chain, and where.
class Waiters {
 public:
  static Waiters& instance() {
    static Waiters* const the = new Waiters;  // Never destroyed: threads may wait until the very end.
    return *the;
  }

  void add(const Place& place, const std::shared_ptr<Inbox>& inbox) {
    const std::lock_guard lock(mutex_);
    waiting_.emplace_back(place, inbox);
  }

  void remove(const Place& place, const std::shared_ptr<Inbox>& inbox) {
    std::shared_ptr<Inbox> last;  // Goes after the lock.
    const std::lock_guard lock(mutex_);
    const auto found = std::find(waiting_.rbegin(), waiting_.rend(), std::pair(place, inbox)).base() - 1;
    last = std::move(found->second);
    waiting_.erase(found);
  }

  bool put(const Place& place, Task& task) {
    const std::lock_guard lock(mutex_);
    const auto found =
        std::find_if(waiting_.rbegin(), waiting_.rend(), [&](const auto& waiting) { return waiting.first == place; });
    if (found == waiting_.rend()) return false;
    found->second->put(place.first, std::move(task));
    return true;
  }

 private:
  std::mutex mutex_;  // Guards `waiting_`. Outer to the mutex of an inbox.
  /// In the order in which they began: few at a time, so that looking through them costs less than an index.
  std::vector<std::pair<Place, std::shared_ptr<Inbox>>> waiting_;
};

std::uint32_t nextThread() {
  static std::atomic<std::uint32_t> last{0};
  return ++last;
}

/// What the calling thread works for.
struct Served {
  Chain chain;  ///< Its own one while it serves nobody.
  Domain domain = nullptr;
  bool relays = false;   ///< Hands the present call on, and will not wait for its answer.
  bool isKnown = false;  ///< As a ThreadInChains.
};
HX_THREAD_LOCAL constinit Served served;

/// The calling thread as chains see it.
class ThreadInChains final : public detail::ThreadWait {
 public:
  static ThreadInChains& current() {
    static thread_local ThreadInChains the;
    return the;
  }

  ThreadInChains() {
    setCurrent(this);
    served.isKnown = true;
  }
  ThreadInChains(const ThreadInChains&) = delete;
  ThreadInChains& operator=(const ThreadInChains&) = delete;
  ~ThreadInChains() override { setCurrent(nullptr); }

  std::shared_ptr<Channel> awaited;
  std::uint64_t claim = 0;  ///< on the reading of `awaited`
  const std::shared_ptr<Inbox> inbox = std::make_shared<Inbox>();

  FutureState wait(const detail::FutureStateBase& state, std::chrono::milliseconds timeout) override;

 private:
  void pause(Clock::time_point deadline);
  bool readInstead(Clock::time_point deadline);
};

FutureState ThreadInChains::wait(const detail::FutureStateBase& state, std::chrono::milliseconds timeout) {
  if (!state.addWaker(*inbox)) return state.state();
  const auto deadline = timeout >= kInfiniteTimeout ? Clock::time_point::max() : Clock::now() + timeout;
  const Caller outer = inbox->beginWait(served.chain.caller);
  {
    const Expectation expectation({served.chain.caller, served.domain}, inbox);
    while (state.state() == FutureState::Running) {
      if (const Task task = inbox->take()) {
        task();
        continue;
      }
      if (deadline != Clock::time_point::max() && Clock::now() >= deadline) break;
      pause(deadline);
    }
  }
  state.removeWaker(*inbox);
  inbox->endWait(outer);
  return state.state();
}

void ThreadInChains::pause(Clock::time_point deadline) {
  if (!readInstead(deadline)) inbox->sleep(deadline);
}

bool ThreadInChains::readInstead(Clock::time_point deadline) {
  const auto channel = awaited;
  if (!channel) return false;
  // What is to be sent leaves after that: the answer may come at once, and would wake another thread.
  const bool reads = channel->beginReading(std::exchange(claim, 0));
  channel->flush();
  if (!reads) return false;
  if (channel->readSoon()) {
    channel->endReading();
    return true;
  }
  if (const int file = inbox->beginPolling(); file >= 0) {
    static constexpr std::chrono::milliseconds kLongest{60'000};
    const auto left = deadline == Clock::time_point::max()
                          ? kLongest
                          : std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    channel->read(file, std::clamp(left, std::chrono::milliseconds(0), kLongest));
    inbox->endPolling();
  }
  channel->endReading();
  return inbox->hasFile();
}

}  // namespace

Expectation::Expectation(const Place& place, std::shared_ptr<Inbox> inbox) : place_(place), inbox_(std::move(inbox)) {
  Waiters::instance().add(place_, inbox_);
}

Expectation::~Expectation() {
  if (inbox_) Waiters::instance().remove(place_, inbox_);
}

std::uint64_t thisEndpoint() {
  static const std::uint64_t id = [] {
    std::random_device random;
    return (std::uint64_t{random()} << 32U | random()) | 1U;
  }();
  return id;
}

Chain chainOfThisThread() {
  ThreadInChains::current();
  if (!served.chain.caller) served.chain.caller = {thisEndpoint(), nextThread()};
  if (served.chain.depth > kDeepestChain) {
    throw std::runtime_error(fmt::format("calls between processes are nested more than {} deep", kDeepestChain));
  }
  return served.chain;
}

Serving::Serving(const Chain& chain, Domain domain, bool relays)
    : outer_(std::exchange(served.chain, chain)),
      outerDomain_(std::exchange(served.domain, domain)),
      outerRelays_(std::exchange(served.relays, relays)) {
  if (!served.isKnown) ThreadInChains::current();
}

Serving::~Serving() {
  served.chain = outer_;
  served.domain = outerDomain_;
  served.relays = outerRelays_;
}

bool runInChain(const Caller& caller, Domain domain, std::function<void()>& task) {
  return Waiters::instance().put({caller, domain}, task);
}

Expectation expectAnswer(const std::shared_ptr<Channel>& channel, Domain domain, Calling then) {
  auto& thread = ThreadInChains::current();
  served.domain = domain;
  if (thread.awaited != channel) {
    if (thread.awaited) thread.awaited->flush();  // The thread will not come to it when it waits.
    thread.awaited = channel;
    thread.claim = 0;
  }
  if (then == Calling::GoesOn || served.relays) return {};
  if (then == Calling::Waits && thread.claim == 0) thread.claim = channel->claimReading();
  return {{served.chain.caller, domain}, thread.inbox};
}

}  // namespace mw::remote
