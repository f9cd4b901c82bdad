#pragma once

#include <hxerror/mutex.h>
#include <libmw/forwardingobject.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace mw::remote {

/// A service found by name in another process, as a session hands it out. It stays when the connection goes, and works
/// again once it is bound to the service of that name behind a new one, with its signal connections. As long as it has
/// some it stays though nobody else holds it.
class RemoteService final : public ForwardingObject {
 public:
  RemoteService(std::string name, AnyObject target);
  ~RemoteService() override;

  Future<SignalLink> metaConnect(unsigned signal, const SignalSubscriber& subscriber) override;
  Future<void> metaDisconnect(SignalLink link) override;
  bool isRemote() const override { return true; }

  const std::string& name() const { return name_; }
  /// The object that it stands for at present.
  AnyObject target() const override;

  /// Whether its connection has gone, so that it waits for another one.
  bool isLost() const;
  /// If it is lost, it stands for `target` from now on, and connects to its signals what was connected.
  /// @return What finishes when that is done; none, with nothing done, when `target` offers something else.
  std::optional<std::vector<Future<void>>> bind(const AnyObject& target);
  /// Its connections are no reason to stay any more.
  void keepNoLonger();

 private:
  struct Connection {
    unsigned signal = 0;
    SignalSubscriber subscriber;
    SignalLink link = kInvalidSignalLink;  ///< At the present target.
  };

  std::shared_ptr<RemoteService> self() { return std::static_pointer_cast<RemoteService>(shared_from_this()); }
  void add(SignalLink link, Connection connection);
  Future<void> connectAgain(const AnyObject& target, SignalLink first, const Connection& connection);

  const std::string name_;
  mutable HX::Mutex mutex_;  // Outer to the mutex of a link.
  AnyObject target_ HX_GUARDED_BY(mutex_);
  std::map<SignalLink, Connection> connections_ HX_GUARDED_BY(mutex_);  // by the link that the first target gave
  std::size_t looksThroughAt_ HX_GUARDED_BY(mutex_) =
      64;                                     // So many of them: those whose owner has gone are dropped then.
  bool isKept_ HX_GUARDED_BY(mutex_) = true;  // by its connections
  std::shared_ptr<RemoteService> kept_ HX_GUARDED_BY(mutex_);  // itself, if so
};

/// The services of a connection that are in use, by name.
///
/// @par Threads  Any.
class RemoteServices {
 public:
  /// The handle on what was found under `name`: the same one as long as somebody uses it, and it is the same object or
  /// one behind a connection that has followed.
  AnyObject handle(const std::string& name, const AnyObject& found);
  bool isLost(const std::string& name) const;
  /// Binds every handle in use that is lost to what `find` finds under its name; an empty object leaves it as it is.
  /// @param patience  How long to wait for their signal connections.
  void bindAll(const std::function<AnyObject(const std::string&)>& find, std::chrono::milliseconds patience);
  /// There will be no more connections.
  void close();

 private:
  AnyObject makeLocked(const std::string& name, const AnyObject& found) HX_REQUIRES(mutex_);
  std::vector<std::shared_ptr<RemoteService>> inUse() const;

  mutable HX::Mutex mutex_;  // Outer to the mutex of a service.
  bool isOver_ HX_GUARDED_BY(mutex_) = false;
  std::map<std::string, std::weak_ptr<RemoteService>> known_ HX_GUARDED_BY(mutex_);
};

}  // namespace mw::remote
