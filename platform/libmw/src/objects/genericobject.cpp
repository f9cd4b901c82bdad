#include <libmw/genericobject.h>

#include <fmt/format.h>

namespace mw {

GenericObject::~GenericObject() = default;

void GenericObject::setMetaObject(MetaObject metaObject) { metaObject_ = std::move(metaObject); }

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
