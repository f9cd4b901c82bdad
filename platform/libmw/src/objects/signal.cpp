#include "../runtime/threadlocal.h"
#include "emissionscope.h"

#include <hxerror/mutex.h>
#include <libmw/eventloop.h>
#include <libmw/log.h>
#include <libmw/signal.h>

#include <algorithm>
#include <deque>
#include <iterator>
#include <vector>

#include <fmt/format.h>

namespace mw {
namespace {

const char* const kCategory = "mw.signal";

/// One connection.
class Slot : public std::enable_shared_from_this<Slot> {
 public:
  Slot(SignalLink link, SignalSubscriber subscriber)
      : link_(link), callType_(subscriber.callType()), subscriber_(std::move(subscriber)) {}

  SignalLink link() const { return link_; }
  bool isClosed() const { return gate_.isClosed(); }

  /// Calls the subscriber, or has it called. Never throws.
  /// @return False when the connection is of no more use: its subscriber's owner has gone.
  bool deliver(GenericFunctionParameters parameters, MetaCallType callType) {
    const MetaCallType wanted = callType == MetaCallType::Auto ? callType_ : callType;
    return wanted == MetaCallType::Queued ? enqueue(parameters) : run(parameters);
  }

  void close() { gate_.close(); }

  /// Returns when no other thread is calling the subscriber, which goes then.
  void drain() {
    gate_.drain();
    // From inside its own call it goes with the connection.
    if (!gate_.isEnteredByThisThread()) subscriber_ = SignalSubscriber();
  }

 private:
  bool run(GenericFunctionParameters parameters) const {
    const auto pass = gate_.enter();
    if (!pass) return true;
    try {
      return subscriber_.call(parameters);
    } catch (...) {
      subscriber_.logFailure(link_);
      return true;
    }
  }

  bool enqueue(GenericFunctionParameters parameters) {
    const auto pass = gate_.enter();
    if (!pass) return true;
    if (subscriber_.isOwnerGone()) return false;
    try {
      add(OwnedParameters(parameters));
    } catch (...) {
      subscriber_.logFailure(link_);
    }
    return true;
  }

  void add(OwnedParameters owned) {
    {
      const HX::MutexLock lock(mutex_);
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
    const HX::MutexLock lock(mutex_);
    stopped_ = true;
    dropped.swap(queue_);
  }

  // One task at a time drains the queue: that keeps the order of the emissions.
  void runQueued() {
    while (true) {
      HX::MutexLock lock(mutex_);
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
  const MetaCallType callType_;
  SignalSubscriber subscriber_;  ///< Used only inside the gate, and once it is drained.
  CallGate gate_{1};
  HX::Mutex mutex_;
  std::deque<OwnedParameters> queue_ HX_GUARDED_BY(mutex_);
  bool draining_ HX_GUARDED_BY(mutex_) = false;
  bool stopped_ HX_GUARDED_BY(mutex_) = false;
};

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

SignalSubscriber& SignalSubscriber::nameSignal(std::string name) {
  signal_ = std::make_shared<const std::string>(std::move(name));
  return *this;
}

void SignalSubscriber::logFailure(SignalLink link) const {
  log::error(kCategory, "deliver",
             fmt::format("subscriber of link {}{}{} failed: {}", link, signal_ ? " to " : "", signal_ ? *signal_ : "",
                         detail::describe(std::current_exception())));
}

void SignalSubscriber::requireFunction() const {
  if (!function_) throw std::runtime_error("cannot connect an empty function to a signal");
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
///
/// A snapshot that is out of date is made anew by the next emission, which walks as far anyway, and not by each
/// connection: to connect and disconnect n subscribers costs n steps.
class SignalBase::Connections {
 public:
  using Slots = std::vector<std::shared_ptr<Slot>>;

  explicit Connections(OnSubscribers onSubscribers) : onSubscribers_(std::move(onSubscribers)) {}

  std::shared_ptr<const Slots> snapshot() {
    Slots gone;  // After the lock, with what belongs to the subscribers.
    const HX::MutexLock lock(mutex_);
    if (!snapshot_) {
      gone = takeClosed();
      snapshot_ = std::make_shared<const Slots>(slots_);
    }
    return snapshot_;
  }

  SignalLink add(SignalSubscriber subscriber) {
    SignalLink link = kInvalidSignalLink;
    {
      std::shared_ptr<const Slots> outdated;  // Goes after the lock.
      const HX::MutexLock lock(mutex_);
      link = nextLink();
      slots_.push_back(std::make_shared<Slot>(link, std::move(subscriber)));
      outdated.swap(snapshot_);
    }
    tell();
    return link;
  }

  /// @return What was removed, closed; empty when there is no such connection.
  std::shared_ptr<Slot> take(SignalLink link) {
    Slots gone;
    std::shared_ptr<const Slots> outdated;
    const HX::MutexLock lock(mutex_);
    const auto found = std::ranges::lower_bound(slots_, link, {}, &Slot::link);
    if (found == slots_.end() || (*found)->link() != link || (*found)->isClosed()) return nullptr;
    std::shared_ptr<Slot> slot = *found;
    slot->close();
    ++closed_;
    // Those that are closed are passed over meanwhile.
    if (slots_.size() < kFew || 2 * closed_ > slots_.size()) {
      gone = takeClosed();
      outdated.swap(snapshot_);
    }
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

  bool isEmpty() const {
    const HX::MutexLock lock(mutex_);
    return isEmptyLocked();
  }

 private:
  static constexpr std::size_t kFew = 64;

  bool isEmptyLocked() const HX_REQUIRES(mutex_) { return slots_.size() == closed_; }

  Slots takeClosed() HX_REQUIRES(mutex_) {
    Slots gone;
    if (closed_ == 0) return gone;
    const auto isOpen = [](const auto& slot) { return !slot->isClosed(); };
    const auto first = std::stable_partition(slots_.begin(), slots_.end(), isOpen);
    gone.assign(std::move_iterator(first), std::move_iterator(slots_.end()));
    slots_.erase(first, slots_.end());
    closed_ = 0;
    return gone;
  }

  // One thread at a time tells, until the owner knows how things stand: told by two, they could arrive the wrong way
  // round.
  void tell() {
    if (!onSubscribers_) return;
    HX::MutexLock lock(mutex_);
    while (!telling_ && told_ == isEmptyLocked()) {
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
  mutable HX::Mutex mutex_;
  Slots slots_ HX_GUARDED_BY(mutex_);             // in the order of their links, which is that of their connection
  std::size_t closed_ HX_GUARDED_BY(mutex_) = 0;  // of them
  std::shared_ptr<const Slots> snapshot_ HX_GUARDED_BY(mutex_);  // none when one is missing in it
  bool told_ HX_GUARDED_BY(mutex_) = false;
  bool telling_ HX_GUARDED_BY(mutex_) = false;
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
  static HX::Mutex creation;  // Guards the writing of `owned_`, of all signals: it happens once in a signal's life.
  const HX::MutexLock lock(creation);
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

SignalLink SignalBase::nextLink() {
  static std::atomic<SignalLink> last{kInvalidSignalLink};
  return ++last;
}

void SignalBase::triggerBetween(SignalLink after, SignalLink before, GenericFunctionParameters parameters) {
  if (!connected_.load(std::memory_order_acquire)) return;
  const std::shared_ptr<Connections> held = owned_;
  const auto slots = held->snapshot();
  for (const auto& slot : *slots) {
    if (slot->link() <= after || slot->link() >= before) continue;
    if (!slot->deliver(parameters, MetaCallType::Auto)) held->drop(slot->link());
  }
}

SignalLink SignalBase::connect(SignalSubscriber subscriber) {
  subscriber.requireFunction();
  return connections()->add(std::move(subscriber));
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

bool SignalBase::hasSubscribers() const { return connected_.load(std::memory_order_acquire) && !owned_->isEmpty(); }

}  // namespace mw
