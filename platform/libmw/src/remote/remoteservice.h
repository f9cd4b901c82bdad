#pragma once

#include <libmw/genericobject.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace mw::remote {

/// A service found by name in another process, as a session hands it out. It stays when the connection goes, and works
/// again once it is bound to the service of that name behind a new one, with its signal connections.
class RemoteService final : public GenericObject {
 public:
  RemoteService(std::string name, AnyObject target);
  ~RemoteService() override;

  Future<AnyValue> metaCall(unsigned method, GenericFunctionParameters parameters, MetaCallType callType) override;
  void metaPost(unsigned member, GenericFunctionParameters parameters) override;
  Future<SignalLink> metaConnect(unsigned signal, const SignalSubscriber& subscriber) override;
  Future<void> metaDisconnect(SignalLink link) override;
  Future<AnyValue> metaProperty(unsigned property) override;
  Future<void> metaSetProperty(unsigned property, const AnyValue& value) override;
  bool isRemote() const override { return true; }

  const std::string& name() const { return name_; }
  /// The object that it stands for at present.
  AnyObject target() const;
  /// Stands for `target` from now on, and connects to its signals what was connected. Waits for that.
  /// @return False, with nothing done, when `target` offers something else.
  bool bind(const AnyObject& target);

 private:
  struct Connection {
    unsigned signal = 0;
    SignalSubscriber subscriber;
    SignalLink link = kInvalidSignalLink;  ///< At the present target.
  };

  const std::string name_;
  mutable std::mutex mutex_;  // Guards everything below.
  AnyObject target_;
  std::map<SignalLink, Connection> connections_;  // by the link that the first target gave
};

/// The services of a connection that are in use, by name.
///
/// @par Threads  Any.
class RemoteServices {
 public:
  /// The handle on what was found under `name`: the same one as long as it is the same object and somebody uses it.
  AnyObject handle(const std::string& name, const AnyObject& found);
  /// Binds every handle in use to what `find` finds under its name; an empty object leaves it as it is.
  void bindAll(const std::function<AnyObject(const std::string&)>& find);

 private:
  std::mutex mutex_;  // Guards `known_`.
  std::map<std::string, std::weak_ptr<RemoteService>> known_;
};

}  // namespace mw::remote
