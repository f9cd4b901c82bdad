#pragma once

#include "connection.h"

#include <libmw/genericobject.h>

#include <memory>
#include <string>
#include <vector>

namespace HX::fleet {

/// A service of another robot, as an object of this process: its methods take any arguments, and each call is a request
/// with a limit of 30 seconds. It has no signals; what it raises are events of its robot.
///
/// @par Threads  Any. A call that is not waited for waits on the event loop.
class FarService : public mw::GenericObject {
 public:
  /// @param name     As it is registered here: "robot3/Arm".
  /// @param subject  Of its calls, up to the method.
  /// @param methods  As its robot describes them: "move(double)", "speed() -> double".
  FarService(std::weak_ptr<Connection> connection, const std::string& name, std::string subject,
             const std::vector<std::string>& methods);

  mw::Future<mw::AnyValue> metaCall(unsigned method, mw::GenericFunctionParameters parameters,
                                    mw::MetaCallType callType) override;
  void metaPost(unsigned member, mw::GenericFunctionParameters parameters) override;
  mw::Future<mw::SignalLink> metaConnect(unsigned signal, const mw::SignalSubscriber& subscriber) override;
  mw::Future<void> metaDisconnect(mw::SignalLink link) override;
  mw::Future<mw::AnyValue> metaProperty(unsigned property) override;
  mw::Future<void> metaSetProperty(unsigned property, const mw::AnyValue& value) override;
  bool isRemote() const override { return true; }

 private:
  const std::weak_ptr<Connection> connection_;
  const std::string name_;
  const std::string subject_;
};

}  // namespace HX::fleet
