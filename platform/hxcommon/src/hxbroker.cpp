#include "modulelibrary.h"

#include <hxcommon/hxbroker.h>
#include <hxcommon/hxbrokermanager.h>
#include <hxcommon/hxmodule.h>
#include <libmw/log.h>

#include <fmt/format.h>

#include <algorithm>

namespace HX {
namespace {

const char* const kCategory = "hxcommon.broker";

}  // namespace

std::shared_ptr<HXBroker> HXBroker::create(std::string name, const std::shared_ptr<HXBrokerManager>& manager) {
  const std::shared_ptr<HXBroker> broker(new HXBroker(std::move(name)));
  const auto known = manager ? manager : HXBrokerManager::getInstance();
  broker->manager_ = known;
  known->addBroker(broker);
  // A service that leaves without the broker's doing must not be found in its table of proxies either.
  broker->session_->serviceUnregistered.connect(
      mw::SignalSubscriber([weak = std::weak_ptr(broker)](mw::ServiceId, const std::string& service) {
        if (const auto self = weak.lock()) self->forgetProxy(service);
      }));
  return broker;
}

HXBroker::HXBroker(std::string name) : name_(std::move(name)), session_(std::make_shared<mw::Session>()) {}

HXBroker::~HXBroker() { shutdown(); }

std::shared_ptr<HXProxy> HXBroker::getProxy(const std::string& name, int) {
  auto found = session_->service(name);
  if (found.hasError()) return nullptr;
  mw::AnyObject service = std::move(found).take();
  const std::lock_guard lock(mutex_);
  auto& known = proxies_[name];
  if (!known || known->asObject().pointer() != service.pointer()) {
    known = std::make_shared<HXProxy>(std::move(service), name);
  }
  return known;
}

void HXBroker::forgetProxy(const std::string& name) {
  std::shared_ptr<HXProxy> dropped;
  const std::lock_guard lock(mutex_);
  const auto found = proxies_.find(name);
  if (found == proxies_.end()) return;
  dropped = std::move(found->second);
  proxies_.erase(found);
}

void HXBroker::loadModule(const std::string& library) {
  ModuleLibrary loaded = ModuleLibrary::open(library);
  const std::vector<std::string> before = modules();
  // A module under construction does not listen for new services yet; it is told of them when it does.
  const mw::Session::NoticeHold hold(*session_);
  std::string failure;
  try {
    loaded.createModule(shared_from_this());
    const std::lock_guard lock(mutex_);
    libraries_.push_back(std::move(loaded));
    return;
  } catch (const std::exception& error) {
    failure = error.what();
  } catch (...) {
    failure = "unknown exception from its entry point";
  }
  const std::vector<std::string> after = modules();
  for (auto name = after.rbegin(); name != after.rend(); ++name) {
    if (std::ranges::find(before, *name) == before.end()) unregisterModule(*name);
  }
  throw std::runtime_error(fmt::format("module library {}: {}", loaded.path(), failure));
}

void HXBroker::registerModule(std::shared_ptr<HXModuleCore> module) {
  const std::string& name = module->getName();
  const mw::ServiceId service = session_->registerService(name, mw::AnyObject(module));
  const std::lock_guard lock(mutex_);
  modules_.push_back({std::move(module), service});
}

bool HXBroker::unregisterModule(const std::string& name) {
  Hosted hosted;
  {
    const std::lock_guard lock(mutex_);
    const auto found = std::ranges::find(modules_, name, [](const Hosted& one) { return one.module->getName(); });
    if (found == modules_.end()) return false;
    hosted = std::move(*found);
    modules_.erase(found);
  }
  forgetProxy(name);
  session_->unregisterService(hosted.service, [&] { hosted.module->interrupt(); });
  return true;
}

std::vector<std::string> HXBroker::modules() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> names;
  for (const Hosted& hosted : modules_) names.push_back(hosted.module->getName());
  return names;
}

HXBroker::Hosted HXBroker::lastModule() const {
  const std::lock_guard lock(mutex_);
  return modules_.empty() ? Hosted{} : modules_.back();
}

void HXBroker::shutdown() {
  while (true) {
    Hosted last = lastModule();
    if (!last.module) break;
    const std::string name = last.module->getName();
    if (auto* module = dynamic_cast<HXModule*>(last.module.get())) {
      try {
        module->exit();
      } catch (const std::exception& error) {
        mw::log::error(kCategory, "shutdown", fmt::format("module {} failed to exit: {}", name, error.what()));
      }
    }
    unregisterModule(name);  // Modules whose `exit` did not do it.
    const std::weak_ptr<mw::GenericObject> gone = last.module;
    last.module.reset();
    if (!gone.expired()) {
      mw::log::warning(kCategory, "shutdown", fmt::format("module {} has left, and somebody still holds it", name));
    }
  }
  session_->close();
  closeLibraries();
}

void HXBroker::closeLibraries() {
  std::vector<ModuleLibrary> loaded;
  {
    const std::lock_guard lock(mutex_);
    loaded.swap(libraries_);
  }
  for (auto library = loaded.rbegin(); library != loaded.rend(); ++library) library->closeModule();
}

}  // namespace HX
