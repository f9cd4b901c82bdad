#include "remotetarget.h"

#include "base/format.h"
#include "brokername.h"
#include "hosting/brokerservice.h"

#include <hxcommon/hxbroker.h>
#include <hxcommon/hxproxy.h>
#include <libmw/deadline.h>
#include <libmw/local.h>
#include <libmw/remoteerror.h>

#include <filesystem>
#include <stdexcept>
#include <unistd.h>

#include <fmt/format.h>

namespace korvo {
struct RemoteTarget::Connection {
  Connection(RemoteTarget& target, const std::string& broker)
      : client(target.session_, broker),
        deadlines(target.patience_.count() > 0
                      ? std::make_shared<mw::Deadlines>(target.session_.eventLoop(), target.patience_,
                                                        "broker " + client.broker())
                      : nullptr) {}
  const mw::LocalClient client;
  const std::shared_ptr<mw::Deadlines> deadlines;  // Null without a limit.
};

RemoteTarget::RemoteTarget(const std::string& broker, std::chrono::milliseconds patience)
    : wanted_(broker),
      patience_(patience),
      own_(HX::HXBroker::create(fmt::format("korvo-{}", getpid()))),
      session_(*own_->session()) {
  session_.connectionRestored.connect(mw::SignalSubscriber([this] { ++connectionNumber_; }));
}

RemoteTarget::~RemoteTarget() { session_.connectionRestored.disconnectAll(); }

RemoteTarget::Connection& RemoteTarget::connection() {
  std::call_once(connected_, [this] { connect(); });
  return *connection_;
}

void RemoteTarget::connect() {
  const std::string name = chooseBroker(wanted_);
  try {
    connection_ = std::make_unique<Connection>(*this, name);
  } catch (const mw::NoBrokerError&) {
    throw;
  } catch (const std::exception& error) {
    throw std::runtime_error(fmt::format("broker {}: {}", name, error.what()));
  }
}

std::string RemoteTarget::explain(const std::exception& error) const {
  const bool isLost = connection_ && !connection_->client.isConnected();
  return isLost ? fmt::format("broker {}: {}", connection_->client.broker(), error.what()) : error.what();
}

const std::string& RemoteTarget::broker() { return connection().client.broker(); }

template <class T>
T RemoteTarget::await(mw::Future<T> answer, const std::string& what) {
  if (const auto& deadlines = connection().deadlines) {
    if (answer.wait(deadlines->limit()) == mw::FutureState::Running) {
      answer.cancel();
      throw deadlines->error(what);
    }
  }
  return std::move(answer).take();
}

const std::shared_ptr<HX::HXBroker>& RemoteTarget::ownBroker() {
  connection();
  return own_;
}

std::shared_ptr<HX::HXProxy> RemoteTarget::find(const std::string& service) {
  try {
    const auto& deadlines = connection().deadlines;
    const auto found = await(session_.service(service), fmt::format("where service {} is", excerpt(service)));
    return std::make_shared<HX::HXProxy>(deadlines ? mw::withDeadline(found, service, deadlines) : found, service,
                                         HX::Author(), ownBroker());
  } catch (const mw::NoSuchServiceError&) {
    return nullptr;
  }
}

std::vector<std::string> RemoteTarget::services() {
  std::vector<std::string> names;
  for (const auto& service : await(askServices(), "which services there are")) names.push_back(service.name);
  return names;
}

mw::Future<std::vector<mw::ServiceInfo>> RemoteTarget::askServices() {
  connection();
  return session_.reachableServices();
}

void RemoteTarget::loadModule(const std::string& library) {
  const bool isPath = library.find('/') != std::string::npos;
  const std::string path = isPath ? std::filesystem::absolute(library).string() : library;
  const auto service = find(BrokerService::kName);
  if (!service) throw std::runtime_error(fmt::format("broker {} cannot be asked to load modules", broker()));
  service->call("loadModule", path);
}

}  // namespace korvo
