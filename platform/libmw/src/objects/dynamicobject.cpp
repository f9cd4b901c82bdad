#include "callqueue.h"

#include <hxerror/mutex.h>
#include <libmw/detail/logdeferral.h>
#include <libmw/dynamicobject.h>
#include <libmw/remoteerror.h>

#include <algorithm>
#include <map>
#include <stdexcept>

#include <fmt/format.h>

namespace mw {

const AnyFunction* ObjectType::method(unsigned id) const {
  return id < members_.size() && members_[id].method ? &members_[id].method : nullptr;
}

const ObjectType::SignalOf* ObjectType::signal(unsigned id) const {
  return id < members_.size() && members_[id].signal ? &members_[id].signal : nullptr;
}

ObjectBuilder& ObjectBuilder::setTypeName(std::string name) {
  members_.typeName = std::move(name);
  return *this;
}

ObjectBuilder& ObjectBuilder::setDescription(std::string description) {
  members_.description = std::move(description);
  return *this;
}

ObjectBuilder& ObjectBuilder::setThreadingModel(ObjectThreadingModel model) {
  threadingModel_ = model;
  return *this;
}

unsigned ObjectBuilder::advertiseMethod(const MetaMethodBuilder& description, AnyFunction function,
                                        MetaCallType callType) {
  MetaMethod method = description.method();
  if (!function) throw std::runtime_error(fmt::format("method {} is bound to no function", method.name));
  if (!function.isDynamic() && method.parameters.size() > function.parameterTypes().size()) {
    throw std::runtime_error(fmt::format("method {} takes {} parameters, and {} are documented", method.name,
                                         function.parameterTypes().size(), method.parameters.size()));
  }
  method.id = static_cast<unsigned>(table_.size());
  method.types = function.parameterTypes();
  method.resultType = function.returnType();
  method.dynamic = function.isDynamic();
  method.callType = callType;
  for (const MetaMethod& other : members_.methods) {
    if (other.name == method.name && other.types == method.types && other.dynamic == method.dynamic) {
      throw std::runtime_error(fmt::format("method {} is bound already", method.signature()));
    }
  }
  members_.methods.push_back(std::move(method));
  table_.push_back({std::move(function), {}});
  return members_.methods.back().id;
}

unsigned ObjectBuilder::advertiseSignal(std::string name, std::string signature, ObjectType::SignalOf signal) {
  if (!signal) throw std::runtime_error(fmt::format("signal {} is bound to no signal", name));
  const auto id = static_cast<unsigned>(table_.size());
  members_.signals.push_back({id, std::move(name), std::move(signature)});
  table_.push_back({{}, std::move(signal)});
  return id;
}

unsigned ObjectBuilder::advertiseSignal(std::string name, SignalBase& signal) {
  return advertiseSignal(std::move(name), signal.signature(), [&signal](void*) -> SignalBase& { return signal; });
}

unsigned ObjectBuilder::advertiseProperty(std::string name) {
  const auto id = static_cast<unsigned>(table_.size());
  members_.properties.push_back({id, std::move(name)});
  table_.emplace_back();
  return id;
}

bool ObjectBuilder::hasMethod(std::string_view name) const {
  return std::ranges::count(members_.methods, name, &MetaMethod::name) > 0;
}

std::shared_ptr<const ObjectType> ObjectBuilder::build() {
  auto type = std::make_shared<ObjectType>();
  type->metaObject_ = MetaObject(std::exchange(members_, {}));
  type->members_ = std::exchange(table_, {});
  type->threadingModel_ = threadingModel_;
  return type;
}

struct DynamicObject::State {
  /// Held around each call on an object of the single-threaded model: it guards what its methods use.
  HX::RecursiveMutex serialised;
  HX::Mutex mutex;
  std::map<unsigned, std::shared_ptr<const AnyValue>> properties HX_GUARDED_BY(mutex);
};

DynamicObject::DynamicObject() : type_(ObjectBuilder().build()), state_(std::make_unique<State>()) {}

DynamicObject::DynamicObject(std::shared_ptr<const ObjectType> type, std::shared_ptr<void> instance)
    : instance_(std::move(instance)), state_(std::make_unique<State>()) {
  setIdentity(instance_.get());
  setType(std::move(type));
}

DynamicObject::~DynamicObject() = default;

void DynamicObject::setMetaObject(MetaObject metaObject) { GenericObject::setMetaObject(std::move(metaObject)); }

void DynamicObject::setType(std::shared_ptr<const ObjectType> type) {
  type_ = std::move(type);
  GenericObject::setMetaObject(type_->metaObject());
}

Future<AnyValue> DynamicObject::metaCall(unsigned method, GenericFunctionParameters parameters, MetaCallType callType) {
  const AnyFunction* function = type_->method(method);
  if (!function) {
    return Future<AnyValue>::failed(std::make_exception_ptr(
        NoSuchMethodError(fmt::format("{}: no method with id {}", metaObject().typeName(), method))));
  }
  if (callType == MetaCallType::Auto) {
    if (const MetaMethod* described = metaObject().method(method)) callType = described->callType;
  }
  if (callType != MetaCallType::Queued) return invoke(method, *function, parameters);
  auto call = queued(method, parameters);
  auto result = call->promiseResult();
  detail::queueCall(*this, std::move(call));
  return result;
}

std::shared_ptr<detail::QueuedCall> DynamicObject::queued(unsigned method, GenericFunctionParameters parameters) {
  const auto self = std::static_pointer_cast<DynamicObject>(shared_from_this());
  return detail::makeQueuedCall([self, method] { return self->memberName(method); },
                                [self, method, owned = OwnedParameters(parameters)] {
                                  return self->invoke(method, *self->type_->method(method), owned.references());
                                });
}

Future<AnyValue> DynamicObject::invoke(unsigned method, const AnyFunction& function,
                                       GenericFunctionParameters parameters) {
  try {
    detail::awaitQueuedCalls(*this);
    const detail::InsideCall inside(*this, method);
    const HX::Author::Scope inItsName(author_);
    const auto call = [&] { return Future<AnyValue>::ready(function.call(parameters, instance_.get())); };
    if (type_->threadingModel() != ObjectThreadingModel::SingleThread) return call();
    const detail::LogDeferral deferral;  // Whoever listens to the log may call the object.
    const HX::Lock lock(state_->serialised);
    return call();
  } catch (...) {
    return Future<AnyValue>::failed(std::current_exception());
  }
}

void DynamicObject::metaPost(unsigned member, GenericFunctionParameters parameters) {
  if (type_->method(member)) return detail::queueCall(*this, queued(member, parameters));
  SignalBase& signal = requireSignal(member);
  detail::awaitQueuedCalls(*this);
  const detail::InsideCall inside(*this, member);
  signal.trigger(parameters);
}

SignalBase& DynamicObject::requireSignal(unsigned id) const {
  const ObjectType::SignalOf* signal = type_->signal(id);
  if (!signal) throw std::runtime_error(fmt::format("{}: no signal with id {}", metaObject().typeName(), id));
  return (*signal)(instance_.get());
}

Future<SignalLink> DynamicObject::metaConnect(unsigned signal, const SignalSubscriber& subscriber) {
  try {
    SignalSubscriber named = subscriber;
    return Future<SignalLink>::ready(requireSignal(signal).connect(std::move(named.nameSignal(memberName(signal)))));
  } catch (...) {
    return Future<SignalLink>::failed(std::current_exception());
  }
}

Future<void> DynamicObject::metaDisconnect(SignalLink link) {
  for (const MetaSignal& signal : metaObject().signals()) {
    if (requireSignal(signal.id).disconnect(link)) return Future<void>::ready();
  }
  return noSuchLink(link);
}

bool DynamicObject::hasProperty(unsigned id) const {
  return std::ranges::find(metaObject().properties(), id, &MetaProperty::id) != metaObject().properties().end();
}

std::exception_ptr DynamicObject::noSuchProperty(unsigned id) const {
  return std::make_exception_ptr(
      std::runtime_error(fmt::format("{}: no property with id {}", metaObject().typeName(), id)));
}

Future<AnyValue> DynamicObject::metaProperty(unsigned property) {
  if (!hasProperty(property)) return Future<AnyValue>::failed(noSuchProperty(property));
  std::shared_ptr<const AnyValue> stored;
  {
    const HX::MutexLock lock(state_->mutex);
    stored = state_->properties[property];
  }
  return Future<AnyValue>::ready(stored ? *stored : AnyValue());
}

Future<void> DynamicObject::metaSetProperty(unsigned property, const AnyValue& value) {
  if (!hasProperty(property)) return Future<void>::failed(noSuchProperty(property));
  auto stored = std::make_shared<const AnyValue>(value);
  const HX::MutexLock lock(state_->mutex);
  state_->properties[property].swap(stored);
  return Future<void>::ready();
}

}  // namespace mw
