#pragma once

#include <hxvalue/hxvalue.h>
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
/// @par Threads  Any.
class BrokerService final : public mw::DynamicObject {
 public:
  /// The name under which `korvo run` offers it.
  static constexpr const char* kName = "Broker";
  /// Bytes of names after which a list of keys ends: far below what a message may have.
  static constexpr std::size_t kKeysAtOnce = std::size_t{4} << 20;

  /// @param broker  Not kept alive.
  /// @param stop    Asks the process to end, and returns at once.
  BrokerService(const std::shared_ptr<HX::HXBroker>& broker, std::function<void()> stop);

 private:
  std::string name() const;
  std::vector<std::string> modules() const;
  void loadModule(const std::string& library) const;
  std::vector<std::string> keys(const std::string& filter, const std::string& after) const;
  HX::HXValue settings(const std::string& module) const;
  void stop() const { stop_(); }
  std::shared_ptr<HX::HXBroker> broker() const;

  const std::weak_ptr<HX::HXBroker> broker_;
  const std::function<void()> stop_;
};

}  // namespace korvo
