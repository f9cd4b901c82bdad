#include "target.h"

#include "format.h"
#include "suggestion.h"

#include <hxcommon/hxbroker.h>

#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace korvo {

std::shared_ptr<HX::HXProxy> Target::require(const std::string& service) {
  auto proxy = find(service);
  if (!proxy)
    throw std::runtime_error(fmt::format("no service named {}{}", excerpt(service), didYouMean(service, services())));
  return proxy;
}

HX::HXMemoryProxy Target::memory() { return HX::HXMemoryProxy(require("HXMemory")); }

BrokerTarget::BrokerTarget(std::shared_ptr<HX::HXBroker> broker) : broker_(std::move(broker)) {}

std::shared_ptr<HX::HXProxy> BrokerTarget::find(const std::string& service) { return broker_->getProxy(service); }

std::vector<std::string> BrokerTarget::services() {
  std::vector<std::string> names;
  for (const auto& service : broker_->session()->services()) names.push_back(service.name);
  return names;
}

mw::Future<std::vector<mw::ServiceInfo>> BrokerTarget::askServices() { return broker_->session()->reachableServices(); }

void BrokerTarget::loadModule(const std::string& library) { broker_->loadModule(library); }

}  // namespace korvo
