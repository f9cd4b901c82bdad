#pragma once

#include <libmw/genericobject.h>

namespace mw {

/// Stands before another object: hands on to it whatever a derived class does not do in a way of its own.
///
/// @par Threads  As for the object behind it.
class HX_API ForwardingObject : public GenericObject {
 public:
  ~ForwardingObject() override;

  Future<AnyValue> metaCall(unsigned method, GenericFunctionParameters parameters, MetaCallType callType) override;
  void metaPost(unsigned member, GenericFunctionParameters parameters) override;
  Future<SignalLink> metaConnect(unsigned signal, const SignalSubscriber& subscriber) override;
  Future<void> metaDisconnect(SignalLink link) override;
  Future<AnyValue> metaProperty(unsigned property) override;
  Future<void> metaSetProperty(unsigned property, const AnyValue& value) override;

  /// The object that it stands before at present. Never empty.
  virtual AnyObject target() const = 0;
};

}  // namespace mw
