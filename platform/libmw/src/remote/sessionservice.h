#pragma once

#include "link.h"

#include <hxerror/mutex.h>
#include <libmw/session.h>
#include <libmw/trackable.h>

#include <map>
#include <memory>
#include <set>
#include <span>
#include <string>

namespace mw::remote {

/// Answers a peer's questions to a session, and remembers what it did for the peer in order to undo it at the end: the
/// services that it registered, the signals that it connected, the notices that it asked for.
///
/// @par Threads  Any.
class HX_API SessionService final : public ReservedService, public std::enable_shared_from_this<SessionService> {
 public:
  /// What a peer may do.
  enum class Role : bool {
    Broker,  ///< Serves: peers find services and register their own.
    Client,  ///< Has joined: the peer reaches what it holds references to.
  };

  /// @param session  Must live until `end` has returned.
  SessionService(Session& session, std::string name, const std::shared_ptr<Link>& link, Role role);

  Future<AnyValue> call(std::string_view method, std::span<const AnyValue> arguments) override;
  AnyObject find(const std::string& service) override;
  void end() override;

 private:
  using Arguments = std::span<const AnyValue>;
  struct Connection {
    AnyObject object;
    SignalLink link = kInvalidSignalLink;
  };
  using Method = AnyValue (SessionService::*)(Arguments);

  static Method methodNamed(std::string_view name);
  AnyValue hello(Arguments arguments);
  AnyValue services(Arguments arguments);
  AnyValue registerService(Arguments arguments);
  AnyValue unregisterService(Arguments arguments);
  AnyValue watch(Arguments arguments);
  AnyValue release(Arguments arguments);
  Future<AnyValue> service(Arguments arguments);
  Future<AnyValue> connect(Arguments arguments);
  Future<AnyValue> disconnect(Arguments arguments);
  Future<AnyValue> property(Arguments arguments);
  Future<AnyValue> setProperty(Arguments arguments);

  void requireBroker(std::string_view what) const;
  void requirePlace(std::uint32_t number);
  AnyObject objectOf(Arguments arguments) const;
  std::shared_ptr<Link> link() const;
  void notify(const char* what, ServiceId id, const std::string& name);

  Session& session_;
  const std::string name_;
  const std::weak_ptr<Link> link_;
  const Role role_;
  CallGate gate_{1};   // around every use of the session
  Lifetime lifetime_;  // of the notices

  HX::Mutex mutex_;
  bool ended_ HX_GUARDED_BY(mutex_) = false;
  std::set<ServiceId> registered_ HX_GUARDED_BY(mutex_);
  std::map<std::uint32_t, Connection> connections_ HX_GUARDED_BY(mutex_);
  SignalLink onRegistered_ HX_GUARDED_BY(mutex_) = kInvalidSignalLink;
  SignalLink onUnregistered_ HX_GUARDED_BY(mutex_) = kInvalidSignalLink;
};

/// The version of the protocol that this side speaks.
inline constexpr int kProtocol = 1;

}  // namespace mw::remote
