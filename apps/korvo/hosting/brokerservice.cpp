#include "brokerservice.h"

#include <hxcommon/hxbroker.h>
#include <hxproxies/hxmemoryproxy.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace korvo {

BrokerService::BrokerService(const std::shared_ptr<HX::HXBroker>& broker, std::function<void()> stop)
    : broker_(broker), stop_(std::move(stop)) {
  mw::ObjectBuilder builder;
  builder.setTypeName(kName).setDescription("The broker itself: its modules, and its end.");
  // A library that hangs while it is loaded must not keep the broker from being asked, least of all to stop.
  builder.setThreadingModel(mw::ObjectThreadingModel::MultiThread);
  const auto describe = [](const char* method, const char* text) { return mw::MetaMethodBuilder(method, kName, text); };
  builder.advertiseMethod(describe("name", "The name of the broker.").setReturn("name", "As given to korvo run."), this,
                          &BrokerService::name);
  builder.advertiseMethod(describe("modules", "Lists the modules of the broker's own process.")
                              .setReturn("names", "In the order of loading."),
                          this, &BrokerService::modules);
  builder.advertiseMethod(describe("loadModule", "Loads a module library into the broker.")
                              .addParameter("library", "A path with a slash in it, or a name."),
                          this, &BrokerService::loadModule);
  builder.advertiseMethod(
      describe("keys", "Lists keys of the memory in parts that fit a message: sorted, as many as that takes.")
          .addParameter("filter", "Those that contain it; empty for all.")
          .addParameter("after", "Those that come after it; empty for the first ones.")
          .setReturn("keys", "Empty when there are no more."),
      this, &BrokerService::keys);
  builder.advertiseMethod(
      describe("settings", "Lists what can be set of a module of the broker's own process, and what it is.")
          .addParameter("module", "Its name.")
          .setReturn("settings", "A map: module, its name; settings, a list of maps of name, range, text, value."),
      this, &BrokerService::settings);
  builder.advertiseMethod(describe("stop", "Ends the broker in order, as SIGTERM does. Returns before it has ended."),
                          this, &BrokerService::stop);
  setType(builder.build());
}

std::shared_ptr<HX::HXBroker> BrokerService::broker() const {
  if (auto broker = broker_.lock()) return broker;
  throw std::runtime_error("the broker is ending");
}

std::string BrokerService::name() const { return broker()->getName(); }

std::vector<std::string> BrokerService::modules() const { return broker()->modules(); }

void BrokerService::loadModule(const std::string& library) const { broker()->loadModule(library); }

HX::HXValue BrokerService::settings(const std::string& module) const {
  return broker()->describeModule(module).toValue();
}

std::vector<std::string> BrokerService::keys(const std::string& filter, const std::string& after) const {
  const auto memory = broker()->getSpecialisedProxy<HX::HXMemoryProxy>("HXMemory");
  auto keys = memory->getDataList(filter);
  if (!after.empty()) std::erase_if(keys, [&](const std::string& key) { return key <= after; });
  std::ranges::sort(keys);
  std::size_t bytes = 0;
  const auto isTooMuch = [&](const std::string& key) { return (bytes += key.size()) > kKeysAtOnce; };
  // One at least: whoever asks goes on behind the last one.
  if (keys.size() > 1) keys.erase(std::find_if(keys.begin() + 1, keys.end(), isTooMuch), keys.end());
  return keys;
}

}  // namespace korvo
