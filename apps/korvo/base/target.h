#pragma once

#include <hxcommon/feed.h>
#include <hxproxies/hxmemoryproxy.h>
#include <libmw/session.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace HX {
class HXBroker;
class HXProxy;
}  // namespace HX

namespace korvo {

/// The broker that commands are about.
///
/// @par Threads  Any number of threads may use one target at once.
class Target {
 public:
  virtual ~Target() = default;

  /// @return Empty when there is no such service.
  virtual std::shared_ptr<HX::HXProxy> find(const std::string& service) = 0;
  virtual std::vector<std::string> services() = 0;
  /// As `services`, without waiting for the answer.
  virtual mw::Future<std::vector<mw::ServiceInfo>> askServices() = 0;
  /// @throws std::runtime_error when it cannot be loaded, or when this target cannot load.
  virtual void loadModule(const std::string& library) = 0;
  /// Returns once what was posted before has reached the broker.
  virtual void settle() {}
  /// Changes when the broker was lost and is back: what it knew of this process went with the connection.
  virtual unsigned connectionNumber() const { return 0; }

  /// The broker in this process by which the other one is reached, or which it is.
  virtual const std::shared_ptr<HX::HXBroker>& ownBroker() = 0;

  /// As HX::follow, HX::retainedChanges and HX::changesAt.
  HX::journal::Follow follow(HX::journal::Filter filter, std::function<void(const HX::journal::Change&)> onChange,
                             HX::journal::FollowOptions options);
  HX::journal::Retained retainedChanges();
  HX::journal::Position changesAt(HX::journal::TimePoint time);

  /// As `find`. @throws std::runtime_error naming the service when there is none.
  std::shared_ptr<HX::HXProxy> require(const std::string& service);
  /// @throws std::runtime_error when the broker has no memory.
  HX::HXMemoryProxy memory();
  /// The keys of the memory that contain `filter`, sorted: in parts, where they are more than fit a message. A key that
  /// comes or goes meanwhile may or may not be among them.
  std::vector<std::string> keys(const std::string& filter);
};

/// A broker of this process.
class BrokerTarget final : public Target {
 public:
  explicit BrokerTarget(std::shared_ptr<HX::HXBroker> broker);
  std::shared_ptr<HX::HXProxy> find(const std::string& service) override;
  std::vector<std::string> services() override;
  mw::Future<std::vector<mw::ServiceInfo>> askServices() override;
  void loadModule(const std::string& library) override;
  const std::shared_ptr<HX::HXBroker>& ownBroker() override { return broker_; }

 private:
  const std::shared_ptr<HX::HXBroker> broker_;
};

}  // namespace korvo
