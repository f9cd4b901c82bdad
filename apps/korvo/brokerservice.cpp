#include "brokerservice.h"

#include <hxcommon/hxbroker.h>

#include <stdexcept>
#include <utility>

namespace korvo {

BrokerService::BrokerService(const std::shared_ptr<HX::HXBroker>& broker, std::function<void()> stop)
    : broker_(broker), stop_(std::move(stop)) {
  mw::ObjectBuilder builder;
  builder.setTypeName(kName).setDescription("The broker itself: its modules, and its end.");
  // One call at a time is the default, and what loading wants.
  const auto describe = [](const char* method, const char* text) { return mw::MetaMethodBuilder(method, kName, text); };
  builder.advertiseMethod(describe("name", "The name of the broker.").setReturn("name", "As given to korvo run."), this,
                          &BrokerService::name);
  builder.advertiseMethod(describe("modules", "Lists the modules of the broker's own process.")
                              .setReturn("names", "In the order of loading."),
                          this, &BrokerService::modules);
  builder.advertiseMethod(describe("loadModule", "Loads a module library into the broker.")
                              .addParameter("library", "A path with a slash in it, or a name."),
                          this, &BrokerService::loadModule);
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

}  // namespace korvo
