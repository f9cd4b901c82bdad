#include "servicehandle.h"

#include "callqueue.h"

#include <libmw/eventloop.h>
#include <libmw/log.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>

namespace mw {

ServiceHandle::ServiceHandle(std::string name, AnyObject target) : name_(std::move(name)), target_(std::move(target)) {
  if (!target_) throw std::runtime_error(fmt::format("cannot register service {}: there is no object", name_));
  GenericObject::setMetaObject(target_->metaObject());
  isRemote_ = target_->isRemote();
  standFor(*target_.pointer());
}

std::exception_ptr ServiceHandle::gone() const {
  return std::make_exception_ptr(std::runtime_error(fmt::format("service {} is gone", name_)));
}

AnyObject ServiceHandle::target() const {
  const auto pass = gate_.enter();
  return pass ? target_ : AnyObject();
}

template <class R, class Use>
Future<R> ServiceHandle::withTarget(Use&& use) {
  const auto pass = gate_.enter();
  return pass ? use(target_.get()) : Future<R>::failed(gone());
}

Future<AnyValue> ServiceHandle::metaCall(unsigned method, GenericFunctionParameters parameters, MetaCallType callType) {
  if (callType == MetaCallType::Auto) {
    if (const MetaMethod* known = metaObject().method(method)) callType = known->callType;
  }
  // What goes to another process takes no thread here, and nobody waits for a queued one.
  if (callType != MetaCallType::Queued || isRemote_) {
    const auto handedOn = isRemote_ ? callType : MetaCallType::Direct;
    return withTarget<AnyValue>([&](GenericObject& target) { return target.metaCall(method, parameters, handedOn); });
  }
  auto call = queued(method, parameters);
  auto result = call->promiseResult();
  detail::queueCall(*this, std::move(call));
  return result;
}

/// Queued here rather than in the object, so that the gate is held while the call runs and not before.
std::shared_ptr<detail::QueuedCall> ServiceHandle::queued(unsigned method, GenericFunctionParameters parameters) {
  const auto self = std::static_pointer_cast<ServiceHandle>(shared_from_this());
  return detail::makeQueuedCall([self, method] { return self->memberName(method); },
                                [self, method, owned = OwnedParameters(parameters)] {
                                  return self->metaCall(method, owned.references(), MetaCallType::Direct);
                                });
}

void ServiceHandle::metaPost(unsigned member, GenericFunctionParameters parameters) {
  const auto pass = gate_.enter();
  if (!pass) std::rethrow_exception(gone());
  if (isRemote_ || !metaObject().method(member)) return target_->metaPost(member, parameters);
  detail::queueCall(*this, queued(member, parameters));
}

Future<SignalLink> ServiceHandle::metaConnect(unsigned signal, const SignalSubscriber& subscriber) {
  return withTarget<SignalLink>([&](GenericObject& target) { return target.metaConnect(signal, subscriber); });
}

Future<void> ServiceHandle::metaDisconnect(SignalLink link) {
  return withTarget<void>([&](GenericObject& target) { return target.metaDisconnect(link); });
}

Future<AnyValue> ServiceHandle::metaProperty(unsigned property) {
  return withTarget<AnyValue>([&](GenericObject& target) { return target.metaProperty(property); });
}

Future<void> ServiceHandle::metaSetProperty(unsigned property, const AnyValue& value) {
  return withTarget<void>([&](GenericObject& target) { return target.metaSetProperty(property, value); });
}

void ServiceHandle::drain(std::chrono::milliseconds patience) {
  if (gate_.drainFor(patience)) return;
  std::vector<std::string> running;
  for (const unsigned member : detail::RunningCalls::of(target_.pointer().get())) {
    running.push_back(target_->memberName(member));
  }
  log::warning("mw.session", "unregisterService",
               fmt::format("service {}: still waiting, after {} ms, for calls that run in it: {}", name_,
                           patience.count(), fmt::join(running, ", ")));
  gate_.drain();
}

void ServiceHandle::cutOff(const std::function<void()>& beforeDrain, std::chrono::milliseconds patience) {
  gate_.close();
  if (beforeDrain) beforeDrain();
  drain(patience);
  if (!gate_.isEnteredByThisThread()) {
    target_.reset();
    return;
  }
  // A service that withdraws itself from inside a call of its own still needs the object until that call returns.
  defaultLoop().post([self = std::static_pointer_cast<ServiceHandle>(shared_from_this()), patience] {
    self->drain(patience);
    self->target_.reset();
  });
}

}  // namespace mw
