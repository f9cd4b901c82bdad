#include "droppedsubscriptions.h"
#include "logcategories.h"

#include <hxbase/stmvalue.h>
#include <hxcommon/hxbroker.h>
#include <hxerror/hxerror.h>
#include <hxerror/mutex.h>
#include <libmw/detail/logdeferral.h>
#include <libmw/detail/racepoint.h>
#include <libmw/eventloop.h>

#include <algorithm>
#include <condition_variable>
#include <new>
#include <utility>

namespace HX {
namespace {

/// Items on their way to be destroyed on the event loop.
class Retirement {
 public:
  static Retirement& instance() {
    static Retirement* const the = new Retirement;  // Never destroyed: the loop may still hold an item at the very end.
    return *the;
  }

  void begin() {
    const MutexLock lock(mutex_);
    ++count_;
  }

  void end() {
    const MutexLock lock(mutex_);
    if (--count_ == 0) none_.notify_all();
  }

  void drain() {
    MutexLock lock(mutex_);
    none_.wait(lock.native(), [this]() HX_REQUIRES(mutex_) { return count_ == 0; });
  }

 private:
  Mutex mutex_;
  std::condition_variable none_;
  int count_ HX_GUARDED_BY(mutex_) = 0;
};

// The session of `staticBroker`, written with it. The address does not tell whether the broker is still there: a memory
// may be held, and raise, when its broker has gone. Holding the broker itself meanwhile would not do, for a raise that
// came to be the last to hold it would shut it down.
std::weak_ptr<mw::Session> brokerSession;

/// How long a call takes. Where it takes next to nothing, so that timing it would cost as much, some are timed.
class CallTimer {
 public:
  explicit CallTimer(STMNotifier& record) : record_(record), isTimed_(record.untimedCalls == 0) {
    if (isTimed_) {
      begin_ = std::chrono::steady_clock::now();
    } else {
      --record.untimedCalls;
    }
  }
  CallTimer(const CallTimer&) = delete;
  CallTimer& operator=(const CallTimer&) = delete;
  ~CallTimer() {
    if (!isTimed_) return;
    const std::chrono::nanoseconds lasted = std::chrono::steady_clock::now() - begin_;
    std::atomic_ref(record_.lastCall).store(lasted.count(), std::memory_order_relaxed);
    count(lasted);
    record_.callsATime = 1;
    if (record_.timedCalls < kAllTimed) {
      ++record_.timedCalls;
    } else if (lasted < kShort) {
      record_.untimedCalls = kBetween;
      record_.callsATime = kBetween + 1;
    }
  }

 private:
  static constexpr std::uint8_t kAllTimed = 16;
  static constexpr std::uint8_t kBetween = 31;
  static constexpr std::chrono::microseconds kShort{5};

  /// Only one call of a record runs at a time, so that nothing is lost between the reading and the writing.
  static void add(std::atomic_ref<std::uint64_t> counter, std::uint64_t number) {
    counter.store(counter.load(std::memory_order_relaxed) + number, std::memory_order_relaxed);
  }
  void count(std::chrono::nanoseconds lasted) {
    auto& times = record_.callTimes;
    const auto bound = std::ranges::lower_bound(times.kBounds, lasted);
    const auto place = static_cast<std::size_t>(bound - times.kBounds.begin());
    add(std::atomic_ref(times.counts[place]), record_.callsATime);
    add(std::atomic_ref(times.nanoseconds), static_cast<std::uint64_t>(lasted.count()) * record_.callsATime);
  }

  STMNotifier& record_;
  const bool isTimed_;
  std::chrono::steady_clock::time_point begin_;
};

MemoryInsight::CallTimes read(const MemoryInsight::CallTimes& times) {
  const auto load = [](const std::uint64_t& number) {
    return std::atomic_ref(const_cast<std::uint64_t&>(number)).load(std::memory_order_relaxed);
  };
  MemoryInsight::CallTimes copy;
  std::ranges::transform(times.counts, copy.counts.begin(), load);
  copy.nanoseconds = load(times.nanoseconds);
  return copy;
}

mw::Future<mw::AnyObject> lookUp(const std::string& module) {
  const auto session = staticBroker ? brokerSession.lock() : nullptr;
  if (!session) return mw::makeFailedFuture<mw::AnyObject>("the broker of the memory is gone");
  return session->service(module, "");
}

}  // namespace

void STMValue::setBrokerInstance(const std::shared_ptr<HXBroker>& broker) {
  staticBroker = broker.get();
  brokerSession = broker ? broker->session() : nullptr;
}

/// Keeps what was removed until the outermost dispatch of the item ends. Held under `notifierLock`.
class STMValue::Dispatch {
 public:
  explicit Dispatch(STMValue& item) HX_REQUIRES(item.notifierLock_) : item_(item) { ++item_.dispatching_; }
  Dispatch(const Dispatch&) = delete;
  Dispatch& operator=(const Dispatch&) = delete;
  ~Dispatch() {
    if (--item_.dispatching_ != 0) return;
    item_.removed_.clear();
    item_.replaced_.clear();
    item_.noteQuiet();
  }

 private:
  STMValue& item_;
};

void STMValue::retire(STMValue* item) {
  if (!item->hasPending()) {
    delete item;
    return;
  }
  const auto end = [item] {
    delete item;
    Retirement::instance().end();
  };
  Retirement::instance().begin();
  try {
    if (mw::defaultLoop().post(end)) return;
    // The process is ending, and the loop has: nobody else will do it. What is pending may be what has let go of the
    // item just now, on this thread, and would be waited for in vain.
    item->cancelPending();
    end();
  } catch (const std::bad_alloc&) {
    Retirement::instance().end();  // The item stays where it is: this is a deleter, from which nothing may be thrown.
  }
}

void STMValue::drainRetired() { Retirement::instance().drain(); }

STMValue::~STMValue() {
  for (const auto& future : cancelPending()) future.wait();
}

std::list<mw::Future<void>> STMValue::cancelPending() {
  // Cancelling runs continuations, and those edit the list: walk one that they cannot reach.
  std::list<mw::Future<void>> pending;
  {
    const Lock lock(notifierLock_);
    pending.swap(pendingNotifications_);
  }
  for (auto& future : pending) future.cancel();
  return pending;
}

std::size_t STMValue::pendingCount() const {
  const Lock lock(notifierLock_);
  return pendingNotifications_.size();
}

bool STMValue::hasPending() const {
  const Lock lock(notifierLock_);
  for (const auto& future : pendingNotifications_) {
    if (!future.isFinished()) return true;
  }
  return false;
}

void STMValue::setNotifier(const std::string& module, const HXValue& message, const std::string& method) {
  Notifiers made;  // All that takes memory, before the earlier subscription goes.
  made.emplace(module, STMNotifier(module, message, method));
  const Lock lock(notifierLock_);
  if (const auto earlier = notifiers_.find(module); earlier != notifiers_.end()) removeNotifier(earlier);
  HX_RACE_POINT("a subscription is being replaced");
  {
    const Lock records(recordsLock_);
    notifiers_.merge(made);
  }
  ++changes_;
  noteQuiet();
}

void STMValue::unsubscribeNotifier(const std::string& module, const std::string& itemName) {
  const Lock lock(notifierLock_);
  const auto record = notifiers_.find(module);
  if (record == notifiers_.end()) {
    throw HXError("HXMemory", "UnsubscribeToMicroEvent", module + " is not subscribed to " + itemName, kSourceFile,
                  __LINE__);
  }
  removeNotifier(record);
  noteQuiet();
}

std::vector<std::string> STMValue::getNotifierList() const {
  const Lock lock(notifierLock_);
  std::vector<std::string> names;
  names.reserve(notifiers_.size());
  for (const auto& [module, record] : notifiers_) names.push_back(module);
  return names;
}

void STMValue::xCleanFinished() {
  const Lock lock(notifierLock_);
  pendingNotifications_.remove_if([](const mw::Future<void>& future) { return future.isFinished(); });
}

// Who reads the records needs one of the two locks with which they are changed.
HX_UNCHECKED std::vector<MemoryInsight::Subscriber> STMValue::notifierRecords() const {
  std::vector<MemoryInsight::Subscriber> records;
  const Lock lock(recordsLock_);
  for (const auto& [module, notifier] : notifiers_) {
    auto& record = records.emplace_back();
    record.module = module;
    record.method = notifier.callbackMethod;
    record.since = notifier.since;
    const std::int64_t last =
        std::atomic_ref(const_cast<std::int64_t&>(notifier.lastCall)).load(std::memory_order_relaxed);
    if (last != STMNotifier::kNeverCalled) record.lastCall = std::chrono::nanoseconds(last);
    record.calls = read(notifier.callTimes);
  }
  return records;
}

void STMValue::removeNotifier(Notifiers::iterator record) {
  ++changes_;
  Notifiers::node_type removed;  // Goes after the lock.
  {
    const Lock records(recordsLock_);
    removed = notifiers_.extract(record);
  }
  if (dispatching_ > 0) removed_.insert(std::move(removed));
}

void STMValue::endNotifier(Notifiers::iterator record, const std::exception& error, const char* function) {
  HX_LOG_AS(Warning, itemCategory(), function,
            "the subscription of " + record->first + " to " + name() + " has ended: " + error.what());
  DroppedSubscriptions::instance().add(name(), record->first, error.what());
  removeNotifier(record);
}

// Only of what a change leaves behind: a raise that met a subscription in the middle of being replaced, gone and not
// yet back, would pass its subscriber by.
void STMValue::noteQuiet() { quiet_.store(notifiers_.empty() && dispatching_ == 0, std::memory_order_release); }

void STMValue::notify(const std::string& key, const HXValue& value) {
  itemSignal_->signal.bounceEvent(value);
  if (!quiet_.load(std::memory_order_acquire)) tellNotifiers(key, value);
}

void STMValue::tellNotifiers(const std::string& key, const HXValue& value) {
  const mw::detail::LogDeferral deferral;
  notifierLock_.lockForCaller();
  const Lock lock(notifierLock_, std::adopt_lock);
  const Dispatch dispatch(*this);
  NotifierLock::Calls calls(notifierLock_);
  for (auto record = notifiers_.begin(); record != notifiers_.end();) {
    // Both stay where they are while the call runs, also when the record is removed by it.
    const std::string& module = record->first;
    STMNotifier& notifier = record->second;
    const std::uint64_t changesBefore = changes_;
    if (!notifier.proxy) {
      look(module, key, value);
    } else {
      try {
        call(notifier, key, value, calls, "notify");
      } catch (const std::runtime_error& error) {
        HX_LOG_AS(Verbose, itemCategory(), "notify", module + " not found, removing module reference:" + error.what());
        // Gone already, or subscribed anew, if the call itself saw to that.
        const auto failed = notifiers_.find(module);
        if (failed != notifiers_.end() && &failed->second == &notifier) endNotifier(failed, error, "notify");
      }
    }
    record = changes_ == changesBefore ? std::next(record) : notifiers_.upper_bound(module);
  }
}

void STMValue::call(STMNotifier& record, const std::string& key, const HXValue& value, NotifierLock::Calls& calls,
                    const char* function) {
  HX_LOG_AS(Verbose, itemCategory(), function,
            "notifying module: " + record.callbackModule + " for datachange for key: " + key);
  // A message that is no text is the subscription's fault, and ends it.
  static_cast<void>(record.callbackMessage.asString());
  calls.next(record.callbackModule);
  const CallTimer timer(record);
  // Nothing of the record is copied: the dispatch keeps what is removed from the item, and what is replaced in it.
  record.proxy->pCallNotify(record.callbackMethod, key, value, record.callbackMessage, &record.notifyCallState);
}

void STMValue::look(const std::string& module, const std::string& key, const HXValue& value) {
  // The continuations hold the item weakly: were they to own it, an item whose look-up never ends would never end.
  // While one runs it may be the last to hold it, so that the memory, which waits for its items, has to wait for that
  // too. A subscriber that ends the memory itself is inside of it, and not waited for.
  const auto resolved = [memory = itemSignal_->signal.memoryLifetime(), item = self_, module, key,
                         value](const mw::AnyObject& service) {
    const auto pass = memory.enter();
    const auto held = pass ? item.lock() : nullptr;
    if (held) held->resolveAndCall(service, module, key, value);
  };
  const auto finished = [memory = itemSignal_->signal.memoryLifetime(), item = self_,
                         module](const mw::Future<void>& outcome) {
    const auto pass = memory.enter();
    const auto held = pass ? item.lock() : nullptr;
    if (held) held->reportAndClean(module, outcome);
  };
  auto pending = lookUp(module).andThen(resolved).then(finished);
  if (!pending.isFinished()) pendingNotifications_.push_back(std::move(pending));
}

void STMValue::resolveAndCall(const mw::AnyObject& service, const std::string& module, const std::string& key,
                              const HXValue& value) {
  const mw::detail::LogDeferral deferral;
  const Lock lock(notifierLock_);
  const Dispatch dispatch(*this);
  NotifierLock::Calls calls(notifierLock_);
  const auto record = notifiers_.find(module);
  if (record == notifiers_.end()) return;
  try {
    auto proxy = std::make_shared<HXProxy>(service, module);
    replaced_.push_back(record->second.proxy);
    record->second.proxy = std::move(proxy);
    call(record->second, key, value, calls, "operator()");
  } catch (const std::exception& error) {
    HX_LOG_AS(Verbose, itemCategory(), "operator()", module + " not found, removing module reference:" + error.what());
    if (const auto failed = notifiers_.find(module); failed != notifiers_.end()) {
      endNotifier(failed, error, "operator()");
    }
  }
}

void STMValue::reportAndClean(const std::string& module, const mw::Future<void>& outcome) {
  if (outcome.hasError()) {
    HX_LOG_AS(Warning, itemCategory(), "operator()", "can't get proxy to " + module + ": " + outcome.error());
    const Lock lock(notifierLock_);
    if (const auto failed = notifiers_.find(module); failed != notifiers_.end()) {
      DroppedSubscriptions::instance().add(name(), module, outcome.error());
      removeNotifier(failed);
    }
    noteQuiet();
  }
  xCleanFinished();
}

}  // namespace HX
