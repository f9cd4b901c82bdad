#pragma once

#include "connection.h"
#include "names.h"

#include <hxerror/mutex.h>
#include <hxvalue/hxvalue.h>
#include <libmw/clock.h>
#include <libmw/session.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace HX {
class HXModule;
}

namespace HX::fleet {

/// Brings other robots into this one's memory: under "robot3/" their values and events, and their services as
/// "robot3/Arm", whose methods are requests to it.
///
/// @par Threads  Any.
class Mirror {
 public:
  /// @param module  In whose name the memory is written; must outlive the end.
  Mirror(HXModule& module, FleetSubjects subjects, const std::vector<std::string>& robots);
  ~Mirror();

  /// From now on with this one too, once `listen` is called.
  void follow(const std::string& robot);
  /// No more of this one: what it brought in goes, once `listen` is called.
  void unfollow(const std::string& robot);
  std::set<std::string> followed() const;

  /// Listens by this connection to those that are followed, and reads what they have. Where it does so already,
  /// nothing happens.
  void listen(const std::shared_ptr<Connection>& connection);
  /// Looks again which services there are. Waits for the robots' answers.
  void refresh(const std::shared_ptr<Connection>& connection);
  /// Nobody can be reached any more: their services go.
  void lose();
  /// Takes no more, and waits for what runs.
  void end();

 private:
  using Task = std::function<void()>;
  struct Followed {
    std::vector<Connection::SubscriptionId> subscriptions;
    bool hasValues = false;  ///< What it had when we came has been read.
    std::chrono::steady_clock::time_point nextTry;
  };

  void begin(const std::shared_ptr<Connection>& connection, const std::string& robot);
  void readValues(Connection& connection, const std::string& robot, Followed& followed);
  void end(const std::shared_ptr<Connection>& connection, const std::string& robot);
  void forget(const std::string& robot);
  void post(Task task);
  void run();
  void onEvent(const std::string& robot, const std::string& payload);
  void onValue(const std::string& robot, const std::string& key, const std::string& payload, bool isRemoved,
               bool isFirst);
  void refreshRobot(const std::shared_ptr<Connection>& connection, const std::string& robot);
  void withdraw(const std::string& service);
  void withdrawAll(const std::string& head);

  HXModule& module_;
  const FleetSubjects subjects_;
  mutable Mutex mutex_;
  std::condition_variable_any changed_;
  std::set<std::string> robots_ HX_GUARDED_BY(mutex_);
  std::deque<Task> tasks_ HX_GUARDED_BY(mutex_);  // In the order of what arrived.
  bool isRunning_ HX_GUARDED_BY(mutex_) = false;
  bool ended_ HX_GUARDED_BY(mutex_) = false;
  std::size_t lost_ HX_GUARDED_BY(mutex_) = 0;
  std::map<std::string, mw::SystemTimePoint> newest_;  // Of the keys that were heard of; of what runs the tasks.
  // Of the thread that listens and refreshes:
  std::map<std::string, Followed> listening_;  // By robots.
  std::map<std::string, mw::ServiceId> services_;
  std::map<std::string, std::vector<std::string>> methods_;  // By services, as they were described.
};

}  // namespace HX::fleet
