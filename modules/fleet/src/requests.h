#pragma once

#include "connection.h"
#include "names.h"
#include "patterns.h"
#include "services.h"

#include <hxerror/mutex.h>
#include <hxvalue/hxvalue.h>
#include <libmw/eventloop.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace HX {
class HXModule;
}

namespace HX::fleet {

/// What others may ask of this robot.
struct Permissions {
  Patterns allowed;  ///< "Arm/*": of service Arm all methods. What changes keys is asked of HXMemory.
  Patterns denied;
  bool allow(const std::string& service, const std::string& method) const;
};

/// Serves what the fleet asks of a robot: values, keys, and the methods of its services. The work is done on the event
/// loop, 32 requests at once; 256 more wait, and those beyond are refused.
///
/// @par Threads  Any.
class Requests {
 public:
  /// @param module    In whose name the memory is used; must outlive the end.
  /// @param exports   Whether others may see a key.
  Requests(HXModule& module, FleetSubjects subjects, Permissions permissions,
           std::function<bool(std::string_view key)> exports);
  ~Requests();

  /// Serves what comes by this connection.
  void listen(const std::shared_ptr<Connection>& connection, const Status& status);
  /// Takes no more, and waits for what runs.
  void end();

 private:
  struct Request {
    std::weak_ptr<Connection> connection;
    std::shared_ptr<ServiceFace> face;
    Message message;
    std::string verb;
    std::string tail;  ///< What stands behind the verb in the subject.
  };
  using RequestPointer = std::shared_ptr<const Request>;

  void take(Request request);
  void runNext(const RequestPointer& request);
  void serve(const Request& request);
  HXValue perform(const Request& request);
  HXValue get(const HXValue& key);
  HXValue list(const HXValue& pattern);
  HXValue describe(const HXValue& service);
  HXValue change(const std::string& verb, const std::string& key, const HXValue& value);
  HXValue call(const std::string& service, const std::string& method, const HXValue& arguments);
  void requireVisible(const std::string& key) const;
  void requireAllowed(const std::string& service, const std::string& method) const;
  static void answer(const Request& request, const std::string& data, const Failure* failure);

  HXModule& module_;
  const FleetSubjects subjects_;
  const Permissions permissions_;
  const std::function<bool(std::string_view key)> exports_;

  Mutex mutex_;
  std::condition_variable_any changed_;
  std::deque<RequestPointer> waiting_ HX_GUARDED_BY(mutex_);
  std::size_t running_ HX_GUARDED_BY(mutex_) = 0;
  bool ended_ HX_GUARDED_BY(mutex_) = false;
  Mutex faceMutex_;  // Guards the counts of a face; a leaf.
};

}  // namespace HX::fleet
