#pragma once

#include "connection.h"
#include "names.h"
#include "services.h"

#include <hxerror/mutex.h>
#include <hxvalue/hxvalue.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace HX::fleet {

/// Which robots the fleet has, as they told last. It listens for as long as somebody asks now and then, since a robot
/// that nobody looks at the fleet from has no use for the others' words.
///
/// @par Threads  Any.
class Roster {
 public:
  explicit Roster(FleetSubjects subjects);

  /// The robots by their names, each {robot, state: "online" or "off", seen, host, version, raised, confirmed, queued,
  /// dropped, missed, keys}. Waits for `listen`, and until each has had its turn to tell, when nobody has asked for a
  /// while.
  /// @throws std::runtime_error when they cannot be listened to, saying why.
  HXValue robots();

  /// Begins or ends by this connection, whichever is due.
  void listen(const std::shared_ptr<Connection>& connection);
  /// There is no connection any more.
  /// @param why  For who asks.
  void lose(const std::string& why);

 private:
  using Clock = std::chrono::steady_clock;
  struct Robot {
    Status status;
    Clock::time_point heard;  ///< When it told it itself; the epoch for what the hub has stored of it.
  };
  /// What the library's threads write, which can go on for a moment when we have gone.
  struct Heard {
    Mutex mutex;
    std::map<std::string, Robot> robots HX_GUARDED_BY(mutex);
    void note(Status status, Clock::time_point when);
  };

  void begin(Connection& connection);

  const FleetSubjects subjects_;
  const std::shared_ptr<Heard> heard_ = std::make_shared<Heard>();

  Mutex mutex_;
  std::condition_variable_any changed_;
  Clock::time_point asked_ HX_GUARDED_BY(mutex_);
  bool isReady_ HX_GUARDED_BY(mutex_) = false;
  Clock::time_point roundUntil_ HX_GUARDED_BY(mutex_);  ///< When every robot that is there has told its status.
  std::string failure_ HX_GUARDED_BY(mutex_);           // Of the last attempt to listen.
  std::string lost_ HX_GUARDED_BY(mutex_);
  // Of the thread that listens:
  std::weak_ptr<Connection> connection_;
  Connection::SubscriptionId subscription_ = nullptr;
};

}  // namespace HX::fleet
