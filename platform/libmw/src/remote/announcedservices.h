#pragma once

#include <hxerror/mutex.h>
#include <libmw/session.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace mw::remote {

/// What a session's handlers are told of the broker that it has joined: of each service when it comes and when it goes,
/// and of the connection. When that is lost, all services go behind the notice of it; when it is back, those that are
/// there come before the notice of that.
///
/// Each connection goes by a number. What is still said of one that is not the present one is ignored.
///
/// @par Threads  Any.
class AnnouncedServices {
 public:
  explicit AnnouncedServices(Session& session) : session_(session) {}

  /// There is a new connection, which will be told of services that come and go.
  void begin(int connection);
  void came(int connection, ServiceId id, const std::string& name);
  void went(int connection, ServiceId id, const std::string& name);
  /// What there was at some moment since `begin`. No handler is told of what was there before the first connection.
  void listed(int connection, const std::vector<ServiceInfo>& all);
  /// Everybody may use the connection again.
  void isBack(int connection);
  void lost(int connection, const std::string& reason);

 private:
  void goAll() HX_REQUIRES(mutex_);

  Session& session_;
  HX::Mutex mutex_;  // Outer to the locks of the session's notices, which are put in order.
  int connection_ HX_GUARDED_BY(mutex_) = 0;
  std::map<ServiceId, std::string> known_ HX_GUARDED_BY(mutex_);
  bool isListed_ HX_GUARDED_BY(mutex_) = false;     ///< On this connection,
  bool wasListed_ HX_GUARDED_BY(mutex_) = false;    ///< and on any.
  std::set<ServiceId> gone_ HX_GUARDED_BY(mutex_);  ///< Before the list was there, which may be older.
};

}  // namespace mw::remote
