#pragma once

#include "connection.h"
#include "names.h"

#include <hxerror/mutex.h>
#include <hxvalue/hxvalue.h>
#include <libmw/session.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
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
  Mirror(HXModule& module, FleetSubjects subjects, std::vector<std::string> robots);
  ~Mirror();

  /// Listens by this connection, and reads what there is.
  void listen(const std::shared_ptr<Connection>& connection);
  /// Looks again which services there are. Waits for the robots' answers.
  void refresh(const std::shared_ptr<Connection>& connection);
  /// Nobody can be reached any more: their services go.
  void lose();
  /// Takes no more, and waits for what runs.
  void end();

 private:
  using Task = std::function<void()>;

  void post(Task task);
  void run();
  void onEvent(const std::string& robot, const std::string& payload);
  void onValue(const std::string& robot, const std::string& key, const std::string& payload, bool isRemoved,
               bool isFirst);
  void refreshRobot(const std::shared_ptr<Connection>& connection, const std::string& robot);
  void withdraw(const std::string& service);

  HXModule& module_;
  const FleetSubjects subjects_;
  const std::vector<std::string> robots_;

  Mutex mutex_;
  std::condition_variable_any changed_;
  std::deque<Task> tasks_ HX_GUARDED_BY(mutex_);  // In the order of what arrived.
  bool isRunning_ HX_GUARDED_BY(mutex_) = false;
  bool ended_ HX_GUARDED_BY(mutex_) = false;
  std::size_t lost_ HX_GUARDED_BY(mutex_) = 0;
  // Of the thread that refreshes:
  std::map<std::string, mw::ServiceId> services_;
  std::map<std::string, std::vector<std::string>> methods_;  // By services, as they were described.
};

}  // namespace HX::fleet
