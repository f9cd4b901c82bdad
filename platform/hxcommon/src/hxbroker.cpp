#include "codemap.h"
#include "loading.h"
#include "modulelibrary.h"
#include "viewclient.h"

#include <hxcommon/hxbroker.h>
#include <hxcommon/hxbrokermanager.h>
#include <hxcommon/hxmodule.h>
#include <hxcommon/subscriptions.h>
#include <hxerror/mutex.h>
#include <libmw/log.h>
#include <libmw/step.h>

#include <algorithm>
#include <filesystem>
#include <utility>

#include <fmt/format.h>

namespace HX {
namespace {

const char* const kCategory = "hxcommon.broker";

/// Runs the foreign part of a shutdown, which must come to its end whatever this throws.
template <class Action>
void guarded(const std::string& what, Action&& action) {
  try {
    action();
  } catch (const std::exception& error) {
    mw::log::error(kCategory, "shutdown", fmt::format("{}: {}", what, error.what()));
  } catch (...) {
    mw::log::error(kCategory, "shutdown", fmt::format("{}: unknown exception", what));
  }
}

}  // namespace

std::shared_ptr<HXBroker> HXBroker::create(std::string name, const std::shared_ptr<HXBrokerManager>& manager) {
  std::shared_ptr<HXBroker> broker(new HXBroker(std::move(name)));
  const auto known = manager ? manager : HXBrokerManager::getInstance();
  broker->manager_ = known;
  known->addBroker(broker);
  // A service that leaves without the broker's doing must not be found in its table of proxies either.
  broker->session_->serviceUnregistered.connect(
      mw::SignalSubscriber([weak = std::weak_ptr(broker)](mw::ServiceId, const std::string& service) {
        if (const auto self = weak.lock()) self->forgetStaleProxy(service);
      }));
  // Not on the thread that tells it, which has the connection to look after.
  broker->session_->connectionRestored.connect(mw::SignalSubscriber(
      [weak = std::weak_ptr(broker)] {
        if (const auto self = weak.lock()) Subscriptions::instance().restore(*self);
      },
      mw::MetaCallType::Queued));
  return broker;
}

HXBroker::HXBroker(std::string name) : name_(std::move(name)), session_(std::make_shared<mw::Session>()) {}

HXBroker::~HXBroker() { shutdown(); }

std::shared_ptr<HXProxy> HXBroker::getProxy(const std::string& name, int) {
  auto found = session_->service(name);
  if (!found.hasValue()) return nullptr;
  mw::AnyObject service = std::move(found).take();
  if (!service) return nullptr;
  std::shared_ptr<HXProxy> replaced;  // Dropped after the lock, since its object may go with it.
  const MutexLock lock(mutex_);
  auto& known = proxies_[name];
  if (!known || known->asObject().pointer() != service.pointer()) {
    replaced = std::exchange(known, std::make_shared<HXProxy>(std::move(service), name, Author(), weak_from_this()));
  }
  return known;
}

bool HXBroker::isCurrent(const HXProxy& proxy) const {
  // The name may have found another module by now: what counts is the handle.
  if (const mw::AnyObject offered = session_->ownService(proxy.moduleName())) {
    return offered.pointer() == proxy.asObject().pointer();
  }
  const MutexLock lock(mutex_);
  const auto found = proxies_.find(proxy.moduleName());
  return found != proxies_.end() && found->second->asObject().pointer() == proxy.asObject().pointer();
}

/// Forgets the proxy of a service that is not offered any more. The notice of it may come late, when a successor has
/// been registered and asked for: that one's proxy stays.
void HXBroker::forgetStaleProxy(const std::string& name) {
  const mw::AnyObject offered = session_->ownService(name);
  std::shared_ptr<HXProxy> stale;  // Dropped after the lock, since its object may go with it.
  const MutexLock lock(mutex_);
  const auto found = proxies_.find(name);
  if (found == proxies_.end() || (offered && found->second->asObject().pointer() == offered.pointer())) return;
  stale = std::move(found->second);
  proxies_.erase(found);
}

void HXBroker::loadModule(const std::string& library) { makeModules(library, /*examineOnly=*/false); }

std::vector<ModuleDescription> HXBroker::examineModule(const std::string& library) {
  return makeModules(library, /*examineOnly=*/true);
}

std::vector<ModuleDescription> HXBroker::makeModules(const std::string& library, bool examineOnly) {
  ModuleLibrary loaded = ModuleLibrary::open(library);
  // A module under construction does not listen for new services yet; it is told of them when it does.
  const mw::Session::CatchUp catchUp(*session_);
  const mw::Step step(fmt::format("entry point of module library {}", loaded.path()));
  const std::string name = libraryName(library);
  Loading loading(name, givenSettings(name), examineOnly);
  const auto undo = [&] {
    const auto& made = loading.modules();
    for (auto module = made.rbegin(); module != made.rend(); ++module) unregisterModule(**module);
  };
  std::string failure;
  try {
    loaded.createModule(shared_from_this());
    loading.requireAllTaken();
    const MutexLock lock(mutex_);
    if (!loading.examines()) libraries_.push_back(std::move(loaded));
    return loading.descriptions();
  } catch (const SettingsError&) {
    undo();
    throw;  // Says by itself where the fault is, which is not in the library.
  } catch (const std::exception& error) {
    failure = error.what();
  } catch (...) {
    failure = "unknown exception from its entry point";
  }
  undo();
  throw std::runtime_error(fmt::format("module library {}: {}", loaded.path(), failure));
}

std::string HXBroker::libraryName(const std::string& library) {
  std::string name = std::filesystem::path(library).filename();
  if (name.starts_with("lib")) name.erase(0, 3);
  return name.substr(0, name.find(".so"));
}

void HXBroker::provideSettings(const std::string& name, GivenSettings settings) {
  auto given = std::make_shared<const GivenSettings>(std::move(settings));
  const MutexLock lock(mutex_);
  givenSettings_.insert_or_assign(name, std::move(given));
}

std::shared_ptr<const GivenSettings> HXBroker::givenSettings(const std::string& name) const {
  const MutexLock lock(mutex_);
  const auto found = givenSettings_.find(name);
  return found == givenSettings_.end() ? nullptr : found->second;
}

ModuleDescription HXBroker::describeModule(const std::string& name) const {
  const MutexLock lock(mutex_);
  const auto found = std::ranges::find_if(modules_, [&](const Hosted& one) { return one.module->getName() == name; });
  if (found == modules_.end()) throw std::runtime_error(fmt::format("broker {} has no module {}", name_, name));
  return found->module->describe();
}

void HXBroker::requireRunning(const std::string& moduleName) const {
  if (shutDown_) throw std::runtime_error(fmt::format("module {}: broker {} is shut down", moduleName, name_));
}

void HXBroker::registerModule(std::shared_ptr<HXModuleCore> module) {
  const std::string& name = module->getName();
  // The table of its virtual functions lies in the library of its class.
  codemap::addModule(*reinterpret_cast<const void* const*>(module.get()), name);
  const mw::ServiceId service = session_->registerService(name, mw::AnyObject(module));
  try {
    const MutexLock lock(mutex_);
    requireRunning(name);
    if (Loading* const loading = Loading::current()) loading->note(module, module->describe());
    modules_.push_back({std::move(module), service});
  } catch (...) {
    session_->unregisterService(service);
    throw;
  }
}

bool HXBroker::unregisterModule(const std::string& name) {
  return unregisterFirst([&](const HXModuleCore& module) { return module.getName() == name; });
}

bool HXBroker::unregisterModule(const HXModuleCore& module) {
  return unregisterFirst([&](const HXModuleCore& one) { return &one == &module; });
}

bool HXBroker::unregisterFirst(const IsWanted& isWanted) {
  Hosted hosted;
  {
    const MutexLock lock(mutex_);
    const auto found = std::ranges::find_if(modules_, [&](const Hosted& one) { return isWanted(*one.module); });
    if (found == modules_.end()) return false;
    hosted = std::move(*found);
    modules_.erase(found);
  }
  Subscriptions::instance().forgetModule(hosted.module->getName());
  session_->unregisterService(hosted.service, [&] { hosted.module->interrupt(); });
  forgetStaleProxy(hosted.module->getName());
  return true;
}

std::shared_ptr<mw::GenericObject> HXBroker::ownModule(const std::string& name) const {
  const MutexLock lock(mutex_);
  const auto found = std::ranges::find_if(modules_, [&](const Hosted& one) { return one.module->getName() == name; });
  return found == modules_.end() ? nullptr : found->module;
}

std::vector<std::string> HXBroker::modules() const {
  const MutexLock lock(mutex_);
  std::vector<std::string> names;
  for (const Hosted& hosted : modules_) names.push_back(hosted.module->getName());
  return names;
}

std::shared_ptr<HXModuleCore> HXBroker::lastModule() const {
  const MutexLock lock(mutex_);
  return modules_.empty() ? nullptr : modules_.back().module;
}

void HXBroker::exitModule(std::shared_ptr<HXModuleCore> module) {
  const std::string name = module->getName();
  const mw::Step step(fmt::format("exit of module {}", name));
  if (auto* own = dynamic_cast<HXModule*>(module.get())) {
    guarded(fmt::format("exit of module {}", name), [&] { own->exit(); });
  }
  unregisterModule(*module);  // Modules whose `exit` did not do it.
  const std::weak_ptr<HXModuleCore> gone = module;
  module.reset();
  if (!gone.expired()) {
    mw::log::warning(kCategory, "shutdown", fmt::format("module {} has left, and somebody still holds it", name));
  }
}

void HXBroker::shutdown() {
  {
    const MutexLock lock(mutex_);
    if (std::exchange(shutDown_, true)) return;
  }
  while (auto last = lastModule()) exitModule(std::move(last));
  ViewClient::leave(weak_from_this());
  session_->close();
  closeLibraries();
}

void HXBroker::closeLibraries() {
  std::vector<ModuleLibrary> loaded;
  {
    const MutexLock lock(mutex_);
    loaded.swap(libraries_);
  }
  for (auto library = loaded.rbegin(); library != loaded.rend(); ++library) {
    const std::string what = fmt::format("closing of module library {}", library->path());
    const mw::Step step(what);
    guarded(what, [&] { library->closeModule(); });
  }
}

}  // namespace HX
