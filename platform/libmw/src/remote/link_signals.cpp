#include "../objects/emissionscope.h"
#include "linkparts.h"

#include <hxerror/mutex.h>

#include <algorithm>
#include <atomic>
#include <utility>

#include <fmt/format.h>

namespace mw::remote {
namespace {

std::uint32_t nextLink() {
  static std::atomic<std::uint32_t> last{0};
  return ++last;
}

/// What the thread has encoded last for one of several subscribers.
struct EncodedArguments {
  std::uint64_t emission = 0;
  Bytes bytes;
};

/// So many emissions are delivered in one pass, which costs as much as a tenth of one.
constexpr std::size_t kInOnePass = 32;

/// How many of the first. An object has a pass for itself: it is released before the next one is delivered, and out of
/// the pass, since its end may wait for whoever ends the subscription.
std::size_t inOnePass(std::span<const Emission> emissions) {
  const auto most = emissions.first(std::min(emissions.size(), kInOnePass));
  const auto object = std::find_if(most.begin(), most.end(), [](const Emission& one) { return one.hasObjects; });
  return std::max<std::size_t>(1, static_cast<std::size_t>(object - most.begin()));
}

}  // namespace

// --- Sending --------------------------------------------------------------------------------------------------------

void Link::emit(std::uint32_t number, GenericFunctionParameters emitted) {
  try {
    notify([&](Writer& out, ObjectTable::Mention& mention) {
      out.text(kEmit);
      out.list(static_cast<std::uint32_t>(1 + emitted.size()));
      out.number(number);
      writeEmitted(out, emitted, mention);
    });
  } catch (const std::exception& error) {
    log::warning(kCategory, "emit", fmt::format("an emission does not reach {}: {}", peer(), error.what()));
  }
}

/// What goes to several processes is encoded once.
void Link::writeEmitted(Writer& out, GenericFunctionParameters emitted, ObjectTable::Mention& mention) {
  const std::uint64_t emission = EmissionScope::of(emitted);
  auto* const last = emission == 0 ? nullptr : ofThisThread<EncodedArguments>();
  if (last && last->emission == emission) return out.encoded(last->bytes);
  const std::size_t begin = out.bytes().size();
  bool isForAll = true;
  for (std::size_t i = 0; i < emitted.size(); ++i) {
    isForAll = writeValue(out, emitted[i], mention, i + 1 == emitted.size()) && isForAll;
  }
  const auto encoded = out.bytes().subspan(begin);
  if (!last || !isForAll || encoded.size() > kReusedFrame) return;
  last->emission = 0;
  last->bytes.assign(encoded.begin(), encoded.end());
  last->emission = emission;
}

// --- Connections ----------------------------------------------------------------------------------------------------

Future<SignalLink> Link::connect(std::uint32_t object, unsigned signal, const SignalSubscriber& subscriber) {
  const std::uint32_t link = nextLink();
  {
    const HX::MutexLock lock(mutex_);
    if (!ended_) subscriptions_.emplace(link, std::make_shared<Subscription>(subscriber));
  }
  return ask("korvo.connect", object, signal, link)
      .then([self = shared_from_this(), link](const Future<AnyValue>& done) {
        if (done.hasValue()) return Future<SignalLink>::ready(link);
        std::shared_ptr<Subscription> unused;  // Goes after the lock.
        {
          const HX::MutexLock lock(self->mutex_);
          if (auto found = self->subscriptions_.extract(link)) unused = std::move(found.mapped());
        }
        return done.isCanceled() ? Future<SignalLink>::canceled() : Future<SignalLink>::failed(done.exception());
      });
}

std::optional<Future<void>> Link::disconnect(SignalLink link) {
  std::shared_ptr<Subscription> subscription;
  {
    const HX::MutexLock lock(mutex_);
    const auto found = subscriptions_.find(link);
    if (found == subscriptions_.end()) return std::nullopt;
    subscription = std::move(found->second);
    subscriptions_.erase(found);
  }
  subscription->end();
  return ask("korvo.disconnect", static_cast<std::uint32_t>(link)).andThen([](const AnyValue&) {});
}

// --- Receiving ------------------------------------------------------------------------------------------------------

void Link::onEmission(Reader& in, const Frame& frame, std::vector<Work>& works) {
  Chain unused;
  const std::uint32_t count = beginArguments(in, unused);
  if (count == 0) throw ProtocolError("an emission that names no link");
  const SignalLink link = in.number();
  if (link != arrived_.link) queueEmissions(works);
  arrived_.link = link;
  Emission& emission = arrived_.emissions.emplace_back(frame.size());
  try {
    readArguments(in, count - 1, frame, emission.arguments, emission.unread);
    for (const AnyValue& read : emission.arguments) {
      if (read.reference() && !read.reference().getIf<HX::HXValue>()) emission.hasObjects = true;
    }
  } catch (...) {
    arrived_.emissions.pop_back();
    throw;
  }
}

/// Has those that came one after another wait for their subscriber.
void Link::queueEmissions(std::vector<Work>& works) {
  if (arrived_.emissions.empty()) return;
  // Taken out: should it fail, what they hold goes, which may be what holds the link.
  auto emissions = std::exchange(arrived_.emissions, {});
  std::size_t size = 0;
  for (const Emission& emission : emissions) size += emission.size;
  std::shared_ptr<Subscription> idle;
  {
    const HX::MutexLock lock(mutex_);
    const auto found = subscriptions_.find(arrived_.link);
    if (found != subscriptions_.end()) {  // It may be disconnected meanwhile.
      countWaiting(size, size + emissions.size() * sizeof(Emission));
      if (found->second->waiting.add(emissions)) idle = found->second;
    }
  }
  emissions.clear();
  if (emissions.capacity() <= EmissionQueue::kKept) arrived_.emissions.swap(emissions);  // The memory is used again.
  if (!idle) return;
  works.emplace_back([self = shared_from_this(), link = arrived_.link, idle] { self->deliver(link, *idle); });
}

bool Link::takeEmissions(Subscription& subscription, std::vector<Emission>& taken) {
  const HX::MutexLock lock(mutex_);
  return subscription.waiting.take(taken);
}

/// Until none waits.
void Link::deliver(SignalLink link, Subscription& subscription) {
  OutputBatch batch;
  std::vector<Emission> emissions;
  while (takeEmissions(subscription, emissions)) {
    for (std::span<Emission> rest = emissions; !rest.empty();) {
      const auto some = rest.first(inOnePass(rest));
      rest = rest.subspan(some.size());
      if (!deliver(link, subscription, some, batch, !rest.empty())) disconnect(link);
      for (Emission& emission : some) release(emission);
    }
    batch.flush();
    emissions.clear();
  }
}

void Link::release(Emission& emission) {
  if (emission.size == 0) return;
  countBegun(emission.size, emission.size + sizeof(Emission));
  emission.size = 0;
  emission.arguments.clear();
}

/// Whoever ends the subscription meanwhile waits for no more than the present one.
/// @param more  Others come after these.
/// @return False when the subscriber is of no more use.
bool Link::deliver(SignalLink link, const Subscription& subscription, std::span<Emission> emissions, OutputBatch& batch,
                   bool more) {
  const auto pass = subscription.enter();
  const HX::Author author = authors_.peer();
  bool isOfUse = true;
  for (Emission& emission : emissions) {
    if (!pass || subscription.isOver() || !isOfUse) break;
    batch.hold(more || &emission != &emissions.back());
    try {
      // One for each: what an emission has begun may call back while the next is delivered, which has other locks.
      emission.unread.readInto(emission.arguments);
      const Serving serving({}, domain_, nullptr, author);
      isOfUse = subscription.deliver(emission, link);
    } catch (const ValueError& error) {
      log::warning(kCategory, "emit", fmt::format("an emission of {} cannot be kept: {}", peer(), error.what()));
    } catch (const ProtocolError& error) {
      end(error.what());
    } catch (...) {
      // There is no memory, for a report neither. Those that follow are delivered all the same.
    }
    batch.hold(false);
    if (!emission.hasObjects) release(emission);
  }
  return isOfUse;
}

}  // namespace mw::remote
