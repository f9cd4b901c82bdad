#include <libmw/eventloop.h>
#include <libmw/log.h>
#include <libmw/signal.h>

#include <fmt/format.h>

#include <algorithm>
#include <deque>
#include <mutex>
#include <vector>

namespace mw {
namespace {

const char* const kCategory = "mw.signal";

/// One connection.
class Slot : public std::enable_shared_from_this<Slot> {
 public:
  Slot(SignalLink link, SignalSubscriber subscriber) : link_(link), subscriber_(std::move(subscriber)) {}

  SignalLink link() const { return link_; }

  /// @return False when the connection is of no more use: its subscriber's owner has gone.
  bool deliver(GenericFunctionParameters parameters, MetaCallType callType) {
    const MetaCallType wanted = callType == MetaCallType::Auto ? subscriber_.callType() : callType;
    if (wanted != MetaCallType::Queued) return run(parameters);
    enqueue(parameters);
    return true;
  }

  /// Returns when no other thread is calling the subscriber.
  void end() {
    gate_.close();
    gate_.drain();
  }

 private:
  bool run(GenericFunctionParameters parameters) {
    const auto pass = gate_.enter();
    if (!pass) return true;
    try {
      return subscriber_.call(parameters);
    } catch (const std::exception& error) {
      log::error(kCategory, "deliver", fmt::format("subscriber of link {} failed: {}", link_, error.what()));
    } catch (...) {
      log::error(kCategory, "deliver", fmt::format("subscriber of link {} failed", link_));
    }
    return true;
  }

  void enqueue(GenericFunctionParameters parameters) {
    OwnedParameters owned(parameters);
    {
      const std::lock_guard lock(mutex_);
      queue_.push_back(std::move(owned));
      if (draining_) return;
      draining_ = true;
    }
    defaultLoop().post([self = shared_from_this()] { self->runQueued(); });
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
      run(next.references());
    }
  }

  const SignalLink link_;
  const SignalSubscriber subscriber_;
  CallGate gate_{1};
  std::mutex mutex_;  // Guards `queue_` and `draining_`.
  std::deque<OwnedParameters> queue_;
  bool draining_ = false;
};

SignalLink nextLink() {
  static std::atomic<SignalLink> last{kInvalidSignalLink};
  return ++last;
}

}  // namespace

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
    bool first = false;
    {
      const std::lock_guard lock(mutex_);
      first = slots_->empty();
      auto changed = std::make_shared<Slots>(*slots_);
      changed->push_back(std::move(slot));
      slots_ = std::move(changed);
    }
    if (first && onSubscribers_) onSubscribers_(true);
  }

  bool remove(SignalLink link) {
    std::shared_ptr<Slot> slot;
    bool last = false;
    {
      const std::lock_guard lock(mutex_);
      const auto found = std::ranges::find(*slots_, link, &Slot::link);
      if (found == slots_->end()) return false;
      slot = *found;
      auto changed = std::make_shared<Slots>(*slots_);
      std::erase(*changed, slot);
      last = changed->empty();
      slots_ = std::move(changed);
    }
    slot->end();
    if (last && onSubscribers_) onSubscribers_(false);
    return true;
  }

  void removeAll() {
    for (const auto& slot : *snapshot()) remove(slot->link());
  }

 private:
  const OnSubscribers onSubscribers_;
  mutable std::mutex mutex_;  // Guards `slots_`; the list that it points to never changes.
  std::shared_ptr<const Slots> slots_ = std::make_shared<const Slots>();
};

SignalBase::SignalBase(OnSubscribers onSubscribers) {
  if (!onSubscribers) return;
  owned_ = std::make_shared<Connections>(std::move(onSubscribers));
  connected_.store(owned_.get(), std::memory_order_release);
}

SignalBase::~SignalBase() {
  if (connected_.load(std::memory_order_acquire)) owned_->removeAll();
}

SignalBase::Connections& SignalBase::connections() {
  if (Connections* existing = connected_.load(std::memory_order_acquire)) return *existing;
  static std::mutex creation;  // Guards the writing of `owned_`, of all signals: it happens once in a signal's life.
  const std::lock_guard lock(creation);
  if (!owned_) {
    owned_ = std::make_shared<Connections>(OnSubscribers{});
    connected_.store(owned_.get(), std::memory_order_release);
  }
  return *owned_;
}

void SignalBase::trigger(GenericFunctionParameters parameters, MetaCallType callType) {
  if (!connected_.load(std::memory_order_acquire)) return;
  // From here on the signal may be destroyed by a subscriber: only what is held here is used.
  const std::shared_ptr<Connections> held = owned_;
  const auto slots = held->snapshot();
  for (const auto& slot : *slots) {
    if (!slot->deliver(parameters, callType)) held->remove(slot->link());
  }
}

SignalLink SignalBase::connect(SignalSubscriber subscriber) {
  if (!subscriber.function()) throw std::runtime_error("cannot connect an empty function to a signal");
  const SignalLink link = nextLink();
  connections().add(std::make_shared<Slot>(link, std::move(subscriber)));
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
