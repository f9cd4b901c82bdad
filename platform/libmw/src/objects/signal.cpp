#include "../runtime/threadlocal.h"
#include "emissionscope.h"

#include <libmw/eventloop.h>
#include <libmw/log.h>
#include <libmw/signal.h>

#include <algorithm>
#include <deque>
#include <mutex>
#include <vector>

#include <fmt/format.h>

namespace mw {
namespace {

const char* const kCategory = "mw.signal";

/// One connection.
class Slot : public std::enable_shared_from_this<Slot> {
 public:
  Slot(SignalLink link, SignalSubscriber subscriber) : link_(link), subscriber_(std::move(subscriber)) {}

  SignalLink link() const { return link_; }

  /// Calls the subscriber, or has it called. Never throws.
  /// @return False when the connection is of no more use: its subscriber's owner has gone.
  bool deliver(GenericFunctionParameters parameters, MetaCallType callType) {
    if (subscriber_.isOwnerGone()) return false;
    const MetaCallType wanted = callType == MetaCallType::Auto ? subscriber_.callType() : callType;
    bool usable = true;
    guarded([&] {
      if (wanted == MetaCallType::Queued) {
        enqueue(parameters);
      } else {
        usable = run(parameters);
      }
    });
    return usable;
  }

  void close() { gate_.close(); }
  /// Returns when no other thread is calling the subscriber.
  void drain() { gate_.drain(); }

 private:
  template <class Action>
  void guarded(Action&& action) const {
    try {
      action();
    } catch (const std::exception& error) {
      log::error(kCategory, "deliver", fmt::format("subscriber of link {} failed: {}", link_, error.what()));
    } catch (...) {
      log::error(kCategory, "deliver", fmt::format("subscriber of link {} failed", link_));
    }
  }

  bool run(GenericFunctionParameters parameters) const {
    const auto pass = gate_.enter();
    return !pass || subscriber_.call(parameters);
  }

  void enqueue(GenericFunctionParameters parameters) {
    OwnedParameters owned(parameters);
    {
      const std::lock_guard lock(mutex_);
      if (stopped_) return;
      queue_.push_back(std::move(owned));
      if (draining_) return;
      draining_ = true;
    }
    if (!defaultLoop().post([self = shared_from_this()] { self->runQueued(); })) stop();
  }

  // The loop has ended, with the process: nothing would ever take out what is queued.
  void stop() {
    std::deque<OwnedParameters> dropped;
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    dropped.swap(queue_);
  }

  // One task at a time drains the queue: that keeps the order of the emissions.
  void runQueued() {
    while (true) {
      std::unique_lock lock(mutex_);
      if (queue_.empty()) {
        draining_ = false;
        return;
      }
      const OwnedParameters next = std::move(queue_.front());
      queue_.pop_front();
      lock.unlock();
      guarded([&] { run(next.references()); });
    }
  }

  const SignalLink link_;
  const SignalSubscriber subscriber_;
  CallGate gate_{1};
  std::mutex mutex_;  // Guards everything below.
  std::deque<OwnedParameters> queue_;
  bool draining_ = false;
  bool stopped_ = false;
};

SignalLink nextLink() {
  static std::atomic<SignalLink> last{kInvalidSignalLink};
  return ++last;
}

struct EmissionsOfThread {
  GenericFunctionParameters list;  // of the innermost one
  std::uint64_t number = 0;        // likewise
  std::uint64_t last = 0;
};
HX_THREAD_LOCAL constinit EmissionsOfThread emissions;

}  // namespace

EmissionScope::EmissionScope(GenericFunctionParameters emitted, bool isShared) noexcept
    : outerList_(std::exchange(emissions.list, emitted)),
      outerNumber_(std::exchange(emissions.number, isShared ? ++emissions.last : 0)) {}

EmissionScope::~EmissionScope() {
  emissions.list = outerList_;
  emissions.number = outerNumber_;
}

std::uint64_t EmissionScope::of(GenericFunctionParameters emitted) noexcept {
  const auto& list = emissions.list;
  return list.data() == emitted.data() && list.size() == emitted.size() ? emissions.number : 0;
}

SignalSubscriber::SignalSubscriber(AnyFunction function, MetaCallType callType)
    : function_(std::move(function)), callType_(callType) {}

SignalSubscriber& SignalSubscriber::track(Lifetime::Token lifetime) {
  lifetime_ = std::move(lifetime);
  tracked_ = true;
  return *this;
}

bool SignalSubscriber::call(GenericFunctionParameters parameters) const {
  if (!tracked_) {
    function_.call(parameters);
    return true;
  }
  const auto pass = lifetime_.enter();
  if (!pass) return false;
  function_.call(parameters);
  return true;
}

/// The list of connections. Emissions walk a snapshot of it, so that no lock is held while subscribers run and the list
/// may change, or the signal go, under their hands.
class SignalBase::Connections {
 public:
  using Slots = std::vector<std::shared_ptr<Slot>>;

  explicit Connections(OnSubscribers onSubscribers) : onSubscribers_(std::move(onSubscribers)) {}

  std::shared_ptr<const Slots> snapshot() const {
    const std::lock_guard lock(mutex_);
    return slots_;
  }

  void add(std::shared_ptr<Slot> slot) {
    {
      const std::lock_guard lock(mutex_);
      auto changed = std::make_shared<Slots>(*slots_);
      changed->push_back(std::move(slot));
      slots_ = std::move(changed);
    }
    tell();
  }

  /// @return What was removed, closed; empty when there is no such connection.
  std::shared_ptr<Slot> take(SignalLink link) {
    const std::lock_guard lock(mutex_);
    const auto found = std::ranges::find(*slots_, link, &Slot::link);
    if (found == slots_->end()) return nullptr;
    std::shared_ptr<Slot> slot = *found;
    auto changed = std::make_shared<Slots>(*slots_);
    std::erase(*changed, slot);
    slots_ = std::move(changed);
    slot->close();
    return slot;
  }

  bool remove(SignalLink link) {
    const auto slot = take(link);
    if (!slot) return false;
    slot->drain();
    tell();
    return true;
  }

  /// Removes without waiting: an emission must not wait for another one that is calling the same subscriber.
  void drop(SignalLink link) {
    if (take(link)) tell();
  }

  void removeAll() {
    const auto slots = snapshot();
    for (const auto& slot : *slots) remove(slot->link());
  }

 private:
  // One thread at a time tells, until the owner knows how things stand: told by two, they could arrive the wrong way
  // round.
  void tell() {
    if (!onSubscribers_) return;
    std::unique_lock lock(mutex_);
    while (!telling_ && told_ == slots_->empty()) {
      telling_ = true;
      told_ = !told_;
      const bool any = told_;
      lock.unlock();
      call(any);
      lock.lock();
      telling_ = false;
    }
  }

  void call(bool any) const {
    try {
      onSubscribers_(any);
    } catch (const std::exception& error) {
      log::error(kCategory, "onSubscribers", error.what());
    } catch (...) {
      log::error(kCategory, "onSubscribers", "the notice that subscribers came or went failed");
    }
  }

  const OnSubscribers onSubscribers_;
  mutable std::mutex mutex_;  // Guards everything below. The list that `slots_` points to never changes.
  std::shared_ptr<const Slots> slots_ = std::make_shared<const Slots>();
  bool told_ = false;
  bool telling_ = false;
};

SignalBase::SignalBase(OnSubscribers onSubscribers) {
  if (!onSubscribers) return;
  owned_ = std::make_shared<Connections>(std::move(onSubscribers));
  connected_.store(true, std::memory_order_release);
}

SignalBase::~SignalBase() {
  if (connected_.load(std::memory_order_acquire)) owned_->removeAll();
}

std::shared_ptr<SignalBase::Connections> SignalBase::connections() {
  if (connected_.load(std::memory_order_acquire)) return owned_;
  static std::mutex creation;  // Guards the writing of `owned_`, of all signals: it happens once in a signal's life.
  const std::lock_guard lock(creation);
  if (!owned_) {
    owned_ = std::make_shared<Connections>(OnSubscribers{});
    connected_.store(true, std::memory_order_release);
  }
  return owned_;
}

void SignalBase::trigger(GenericFunctionParameters parameters, MetaCallType callType) {
  if (!connected_.load(std::memory_order_acquire)) return;
  // From here on the signal may be destroyed by a subscriber: only what is held here is used.
  const std::shared_ptr<Connections> held = owned_;
  const auto slots = held->snapshot();
  const EmissionScope scope(parameters, slots->size() > 1);
  for (const auto& slot : *slots) {
    if (!slot->deliver(parameters, callType)) held->drop(slot->link());
  }
}

SignalLink SignalBase::connect(SignalSubscriber subscriber) {
  if (!subscriber.function()) throw std::runtime_error("cannot connect an empty function to a signal");
  const SignalLink link = nextLink();
  connections()->add(std::make_shared<Slot>(link, std::move(subscriber)));
  return link;
}

bool SignalBase::disconnect(SignalLink link) {
  if (!connected_.load(std::memory_order_acquire)) return false;
  const std::shared_ptr<Connections> held = owned_;  // The subscriber that is waited for may destroy the signal.
  return held->remove(link);
}

void SignalBase::disconnectAll() {
  if (!connected_.load(std::memory_order_acquire)) return;
  const std::shared_ptr<Connections> held = owned_;
  held->removeAll();
}

bool SignalBase::hasSubscribers() const {
  return connected_.load(std::memory_order_acquire) && !owned_->snapshot()->empty();
}

}  // namespace mw
