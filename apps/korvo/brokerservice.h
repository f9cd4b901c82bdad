#pragma once

#include <libmw/dynamicobject.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace HX {
class HXBroker;
}

namespace korvo {

/// The broker as a service, so that other processes can load modules into it, list them, and end it.
///
/// @par Threads  Any. Libraries are loaded one at a time.
class BrokerService final : public mw::DynamicObject {
 public:
  /// The name under which `korvo run` offers it.
  static constexpr const char* kName = "Broker";

  /// @param broker  Not kept alive.
  /// @param stop    Asks the process to end, and returns at once.
  BrokerService(const std::shared_ptr<HX::HXBroker>& broker, std::function<void()> stop);

 private:
  std::string name() const;
  std::vector<std::string> modules() const;
  void loadModule(const std::string& library) const;
  void stop() const { stop_(); }
  std::shared_ptr<HX::HXBroker> broker() const;

  const std::weak_ptr<HX::HXBroker> broker_;
  const std::function<void()> stop_;
};

}  // namespace korvo
