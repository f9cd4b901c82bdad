#pragma once

#include "base/target.h"

#include <libmw/session.h>

#include <atomic>
#include <chrono>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace korvo {

/// A broker of another process. It is joined at the first use, so that a command whose arguments are wrong fails with
/// that, and left when this object goes.
///
/// The first use throws mw::NoBrokerError when there is no such broker, and InputError when several are running and
/// none was named.
class RemoteTarget final : public Target {
 public:
  /// @param broker    Its name; empty for the only one that is running.
  /// @param patience  How long an answer may take; zero waits without limit.
  RemoteTarget(const std::string& broker, std::chrono::milliseconds patience);
  ~RemoteTarget() override;

  std::shared_ptr<HX::HXProxy> find(const std::string& service) override;
  std::vector<std::string> services() override;
  mw::Future<std::vector<mw::ServiceInfo>> askServices() override;
  /// A path that is not absolute is taken as one of this process.
  void loadModule(const std::string& library) override;
  void settle() override { services(); }

  const std::shared_ptr<HX::HXBroker>& ownBroker() override;

  unsigned connectionNumber() const override { return connectionNumber_; }

  /// The name of the broker.
  const std::string& broker();
  /// The text of an error that a use of this target threw, with the broker's name where the connection is what failed.
  std::string explain(const std::exception& error) const;
  /// Tells of the loss of the connection and of its return.
  mw::Session& session() { return session_; }

 private:
  struct Connection;
  Connection& connection();
  void connect();
  template <class T>
  T await(mw::Future<T> answer, const std::string& what);

  const std::string wanted_;
  const std::chrono::milliseconds patience_;
  std::atomic<unsigned> connectionNumber_ = 0;
  const std::shared_ptr<HX::HXBroker> own_;
  mw::Session& session_;
  std::once_flag connected_;
  std::unique_ptr<Connection> connection_;
};

}  // namespace korvo
