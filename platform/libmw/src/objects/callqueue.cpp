#include "callqueue.h"

#include "../runtime/threadwait.h"

#include <hxerror/mutex.h>
#include <libmw/eventloop.h>
#include <libmw/log.h>

#include <algorithm>
#include <chrono>

#include <fmt/format.h>

namespace mw::detail {
namespace {

const char* const kQueueCategory = "mw.object";
/// A caller that waits so long for what it has queued is told of in the log.
constexpr std::chrono::seconds kPatience{5};

/// The scope of a thread that works for itself. Null when the thread is about to end.
CallerScope* callerOfThread() {
  auto* const present = CallerScope::present();
  return present ? present : ofThisThread<CallerScope>();
}

}  // namespace

QueuedCall::~QueuedCall() = default;

Future<AnyValue> QueuedCall::promiseResult() {
  promise_.emplace([weak = weak_from_this()](Promise<AnyValue>& promise) {
    if (const auto self = weak.lock(); self && self->begin()) promise.trySetCanceled();
  });
  return promise_->future();
}

void QueuedCall::finish(Future<AnyValue> result) {
  const auto failure = result.exception();
  if (!promise_) {
    if (failure) logFailedPost(name(), failure);
  } else if (result.isCanceled()) {
    promise_->trySetCanceled();
  } else if (failure) {
    promise_->trySetException(failure);
  } else {
    promise_->trySetValue(std::move(result).take());
  }
}

/// A queue on its way through the event loop. Dropped there, it drops what is queued.
class CallQueue::Runner {
 public:
  explicit Runner(std::shared_ptr<CallQueue> queue) : queue_(std::move(queue)) {}
  Runner(const Runner&) = delete;
  Runner& operator=(const Runner&) = delete;
  ~Runner() {
    if (queue_) queue_->abandon();
  }
  void operator()() { std::exchange(queue_, nullptr)->runAll(); }

 private:
  std::shared_ptr<CallQueue> queue_;
};

void CallQueue::add(std::shared_ptr<QueuedCall> call) {
  {
    const HX::MutexLock lock(mutex_);
    waiting_.push_back(std::move(call));
    if (std::exchange(isRunning_, true)) return;
  }
  runOn();
}

void CallQueue::runOn() {
  defaultLoop().post([runner = std::make_shared<Runner>(shared_from_this())] { (*runner)(); });
}

bool CallQueue::isIdle() const {
  const HX::MutexLock lock(mutex_);
  return !isRunning_;
}

Future<void> CallQueue::idle() {
  const HX::MutexLock lock(mutex_);
  if (!isRunning_) return makeReadyFuture();
  if (!idle_) idle_.emplace();
  return idle_->future();
}

/// @return Null when none waits, and the queue is idle then.
std::shared_ptr<QueuedCall> CallQueue::next() {
  std::optional<Promise<void>> idle;
  {
    const HX::MutexLock lock(mutex_);
    if (!waiting_.empty()) {
      auto call = std::move(waiting_.front());
      waiting_.pop_front();
      return call;
    }
    isRunning_ = false;
    idle.swap(idle_);
  }
  if (idle) idle->trySetValue();
  return nullptr;
}

void CallQueue::runAll() {
  for (auto call = next(); call;) {
    if (!call->begin()) {
      call = next();
      continue;
    }
    auto result = [&] {
      const HX::Author::Scope inTheCallersName(call->author());
      return call->run();
    }();
    if (!result.isFinished()) {
      result.then([self = shared_from_this(), call](const Future<AnyValue>& done) {
        self->runOn();
        call->finish(done);
      });
      return;
    }
    // Whoever is told of the result may wait for what comes behind: that goes on meanwhile.
    auto following = next();
    if (following) {
      const NoForeignCode scope;
      call->finish(std::move(result));
    } else {
      call->finish(std::move(result));
    }
    call = std::move(following);
  }
}

void CallQueue::abandon() {
  std::deque<std::shared_ptr<QueuedCall>> dropped;
  std::optional<Promise<void>> idle;
  {
    const HX::MutexLock lock(mutex_);
    dropped.swap(waiting_);
    isRunning_ = false;
    idle.swap(idle_);
  }
  dropped.clear();
  if (idle) idle->trySetValue();
}

void logFailedPost(const std::string& member, const std::exception_ptr& error, const std::string& from) {
  log::warning(kQueueCategory, "post",
               fmt::format("{}, posted{}{}, failed: {}", member, from.empty() ? "" : " by ", from, describe(error)));
}

void queueCall(const GenericObject& called, std::shared_ptr<QueuedCall> call) {
  const std::uintptr_t object = called.identity();
  CallerScope* const caller = callerOfThread();
  if (!caller) return std::make_shared<CallQueue>(object)->add(std::move(call));
  auto& queues = caller->queues;
  const auto found = std::ranges::find_if(queues, [&](const auto& queue) { return queue->object() == object; });
  if (found != queues.end()) return (*found)->add(std::move(call));
  std::erase_if(queues, [](const auto& queue) { return queue->isIdle(); });
  queues.push_back(std::make_shared<CallQueue>(object));
  queues.back()->add(std::move(call));
}

void awaitQueuedCallsOf(CallerScope& caller, const GenericObject& object) {
  if (InsideCall::isHere()) return;
  auto& queues = caller.queues;
  const auto isMeant = [id = object.identity()](const auto& queue) { return queue->object() == id; };
  const auto found = std::ranges::find_if(queues, isMeant);
  if (found == queues.end()) return;
  const auto queue = *found;
  const auto idle = queue->idle();
  if (idle.wait(kPatience) == FutureState::Running) {
    log::warning(kQueueCategory, "call",
                 fmt::format("{}: a call waits, after {} s, for those that its thread has posted to the object before",
                             object.metaObject().typeName(), kPatience.count()));
    idle.wait();
  }
  std::erase(queues, queue);
}

}  // namespace mw::detail
