#include "target.h"

#include "format.h"
#include "hosting/brokerservice.h"
#include "suggestion.h"

#include <hxcommon/hxbroker.h>

#include <algorithm>
#include <iterator>
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

HX::journal::Follow Target::follow(HX::journal::Filter filter, std::function<void(const HX::journal::Change&)> onChange,
                                   HX::journal::FollowOptions options) {
  return HX::follow(ownBroker(), std::move(filter), std::move(onChange), std::move(options));
}

HX::journal::Retained Target::retainedChanges() { return HX::retainedChanges(ownBroker()); }

HX::journal::Position Target::changesAt(HX::journal::TimePoint time) { return HX::changesAt(ownBroker(), time); }

std::vector<std::string> Target::keys(const std::string& filter) {
  auto memory = this->memory();
  const auto broker = find(BrokerService::kName);
  std::vector<std::string> all;
  if (!broker || broker->asObject()->metaObject().findMethods("keys").empty()) {
    all = memory.getDataList(filter);
    std::ranges::sort(all);
    return all;
  }
  do {
    auto part = broker->call<std::vector<std::string>>("keys", filter, all.empty() ? "" : all.back());
    if (part.empty()) return all;
    std::ranges::move(part, std::back_inserter(all));
  } while (true);
}

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
