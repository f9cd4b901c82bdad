#include <libmw/forwardingobject.h>

namespace mw {

ForwardingObject::~ForwardingObject() = default;

Future<AnyValue> ForwardingObject::metaCall(unsigned method, GenericFunctionParameters parameters,
                                            MetaCallType callType) {
  return target()->metaCall(method, parameters, callType);
}

void ForwardingObject::metaPost(unsigned member, GenericFunctionParameters parameters) {
  target()->metaPost(member, parameters);
}

Future<SignalLink> ForwardingObject::metaConnect(unsigned signal, const SignalSubscriber& subscriber) {
  return target()->metaConnect(signal, subscriber);
}

Future<void> ForwardingObject::metaDisconnect(SignalLink link) { return target()->metaDisconnect(link); }

Future<AnyValue> ForwardingObject::metaProperty(unsigned property) { return target()->metaProperty(property); }

Future<void> ForwardingObject::metaSetProperty(unsigned property, const AnyValue& value) {
  return target()->metaSetProperty(property, value);
}

}  // namespace mw
