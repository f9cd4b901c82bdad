#pragma once

#include <hxerror/api.h>
#include <hxerror/mutex.h>

#include <memory>
#include <string>
#include <vector>

namespace HX {

class HXBroker;

/// Knows the brokers of this process. It does not keep them: brokers end when their owners let go of them.
///
/// @par Threads  Safe from any thread.
class HX_API HXBrokerManager {
 public:
  /// The manager of this process; made when there is none.
  static std::shared_ptr<HXBrokerManager> getInstance();
  /// Makes `manager` the one of this process. Module libraries call it with their host's. An empty one leaves none.
  static void setInstance(std::shared_ptr<HXBrokerManager> manager);

  /// Adds a broker; one that is known already stays known once.
  void addBroker(const std::shared_ptr<HXBroker>& broker);
  void removeBroker(const std::shared_ptr<HXBroker>& broker);
  /// @return The broker of that name; empty when there is none.
  std::shared_ptr<HXBroker> getBroker(const std::string& name) const;
  std::vector<std::shared_ptr<HXBroker>> brokers() const;

 private:
  mutable Mutex mutex_;
  std::vector<std::weak_ptr<HXBroker>> brokers_ HX_GUARDED_BY(mutex_);
};

}  // namespace HX
