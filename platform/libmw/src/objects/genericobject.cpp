#include "../runtime/threadwait.h"

#include <libmw/genericobject.h>

#include <algorithm>

#include <fmt/format.h>

namespace mw {

GenericObject::~GenericObject() = default;

std::string GenericObject::memberName(unsigned id) const {
  std::string name;
  if (const MetaMethod* method = metaObject_.method(id)) name = method->name;
  const auto signal = std::ranges::find(metaObject_.signals(), id, &MetaSignal::id);
  if (signal != metaObject_.signals().end()) name = signal->name;
  return fmt::format("{}{}{}", metaObject_.typeName(), metaObject_.typeName().empty() ? "" : ".", name);
}

std::uint32_t GenericObject::number() const {
  if (const auto given = number_.load(std::memory_order_relaxed); given != 0) return given;
  // Spread over 31 bits: addresses have much in common, and every format of a number takes these.
  constexpr std::uint64_t kSpread = 0x9e3779b97f4a7c15U;
  const auto spread = static_cast<std::uint32_t>((identity() * kSpread) >> 33U);
  return spread == 0 ? 1 : spread;
}

Future<void> GenericObject::noSuchLink(SignalLink link) const {
  return Future<void>::failed(std::make_exception_ptr(
      std::runtime_error(fmt::format("{}: no connection with link {}", metaObject_.typeName(), link))));
}

void GenericObject::standFor(const GenericObject& object) {
  setIdentity(object.identity_.load(std::memory_order_relaxed));
  setNumber(object.number());
}

void GenericObject::setMetaObject(MetaObject metaObject) { metaObject_ = std::move(metaObject); }

AnyValue GenericObject::callNow(unsigned method, GenericFunctionParameters parameters) {
  return callFor(method, parameters, kInfiniteTimeout).take();
}

Future<AnyValue> GenericObject::callFor(unsigned method, GenericFunctionParameters parameters,
                                        std::chrono::milliseconds limit) {
  if (!isRemote()) {
    auto answer = metaCall(method, parameters);
    answer.wait(limit);
    return answer;
  }
  const detail::AboutToWait scope;
  auto answer = metaCall(method, parameters);
  answer.wait(limit);
  return answer;
}

Future<SignalLink> GenericObject::connect(std::string_view signal, const SignalSubscriber& subscriber) {
  const int id = metaObject_.signalId(signal);
  if (id < 0) {
    throw std::runtime_error(fmt::format("{}{}{}: no such signal", metaObject_.typeName(),
                                         metaObject_.typeName().empty() ? "" : ".", signal));
  }
  return metaConnect(static_cast<unsigned>(id), subscriber);
}

Future<SignalLink> GenericObject::connect(unsigned signal, const SignalSubscriber& subscriber) {
  return metaConnect(signal, subscriber);
}

Future<AnyValue> GenericObject::callLater(std::string_view method, GenericFunctionParameters parameters) {
  try {
    return metaCall(metaObject_.resolve(method, parameters).id, parameters, MetaCallType::Queued);
  } catch (...) {
    return Future<AnyValue>::failed(std::current_exception());
  }
}

void GenericObject::postByName(std::string_view name, GenericFunctionParameters parameters) {
  const int signal = metaObject_.signalId(name);
  metaPost(signal >= 0 ? static_cast<unsigned>(signal) : metaObject_.resolve(name, parameters).id, parameters);
}

GenericObject& AnyObject::get() const {
  if (!object_) throw std::runtime_error("This object is null");
  return *object_;
}

}  // namespace mw
