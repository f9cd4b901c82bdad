#include "loading.h"
#include "modulesettings.h"

#include <hxcommon/feed.h>
#include <hxcommon/hxbroker.h>
#include <hxcommon/hxmodule.h>
#include <hxerror/mutex.h>
#include <libmw/log.h>
#include <libmw/servedcall.h>
#include <libmw/step.h>

#include <algorithm>
#include <condition_variable>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace HX {
namespace {

std::shared_ptr<HXBroker> required(const std::shared_ptr<HXBroker>& broker, const std::string& module) {
  if (!broker) throw std::runtime_error(fmt::format("module {} needs a broker", module));
  return broker;
}

}  // namespace

HXModuleCore::HXModuleCore(const std::shared_ptr<HXBroker>& broker, std::string name)
    : broker_(required(broker, name)), name_(std::move(name)), settings_(settingsOf(*broker, name_)) {
  builder_.setTypeName(name_);
  builder_.setThreadingModel(mw::ObjectThreadingModel::MultiThread);
  setAuthor(Author(name_));
}

HXModuleCore::~HXModuleCore() = default;

std::unique_ptr<ModuleSettings> HXModuleCore::settingsOf(const HXBroker& broker, const std::string& name) {
  Loading* const loading = Loading::current();
  if (!loading)
    return std::make_unique<ModuleSettings>(name, broker.givenSettings(name), /*isExample=*/false, /*isAlone=*/true);
  std::string label;
  auto given = loading->settingsFor(name, label);
  const bool isExample = loading->examines() && !given;
  return std::make_unique<ModuleSettings>(std::move(label), std::move(given), isExample, /*isAlone=*/false);
}

void HXModuleCore::addSetting(Setting setting) {
  if (closed_) throw std::logic_error(fmt::format("module {}: settings are declared in the constructor only", name_));
  settings_->declare(std::move(setting));
}

void HXModuleCore::refuseSetting(const std::string& name, const std::string& problem) {
  if (closed_) throw std::logic_error(fmt::format("module {}: settings are refused in the constructor only", name_));
  settings_->refuse(name, problem);
}

const HXValue& HXModuleCore::settings() const { return settings_->values(); }

ModuleDescription HXModuleCore::describe() const { return {name_, settings_->declared(), settings_->values()}; }

std::shared_ptr<HXBroker> HXModuleCore::getParentBroker() const {
  auto broker = findParentBroker();
  if (!broker) throw std::runtime_error(fmt::format("the broker of module {} is gone", name_));
  return broker;
}

void HXModuleCore::initModule() {
  if (closed_) throw std::logic_error(fmt::format("module {} is initialised already", name_));
  bindSettings();
  setType(objectBuilder().build());
  closed_ = true;
  settings_->close();
  Loading* const loading = Loading::current();
  if (loading && loading->examines()) return loading->note(nullptr, describe());
  getParentBroker()->registerModule(std::static_pointer_cast<HXModuleCore>(shared_from_this()));
}

/// So that a module tells them wherever it runs. One that has no settings, or a method of that name, stays as it is.
void HXModuleCore::bindSettings() {
  if (settings_->declared().empty() || objectBuilder().hasMethod(kSettingsMethod)) return;
  functionName(kSettingsMethod, name_, "Lists what can be set of the module, and what it is.");
  setReturn("settings", "A map: module, its name; settings, a list of maps of name, range, text, value.");
  bind(mw::AnyFunction::from([this] { return describe().toValue(); }));
}

void HXModuleCore::sleepFor(std::chrono::milliseconds duration) {
  // Added to the present time, the longest durations and the most negative ones would overflow.
  static constexpr std::chrono::milliseconds kLongest = std::chrono::hours{24 * 365};
  // Of this sleep alone: who wakes one wakes no other.
  struct Sleep {
    Mutex mutex;
    std::condition_variable wakeUp;
    bool isOver HX_GUARDED_BY(mutex) = false;
  } sleep;
  const auto wake = [&sleep] {
    const MutexLock lock(sleep.mutex);
    sleep.isOver = true;
    sleep.wakeUp.notify_all();
  };
  const std::stop_callback atExit(interrupted_.get_token(), wake);
  const std::stop_callback atGivingUp(mw::stopOfServedCall(), wake);
  {
    MutexLock lock(sleep.mutex);
    sleep.wakeUp.wait_for(lock.native(), std::clamp(duration, std::chrono::milliseconds{0}, kLongest),
                          [&sleep]() HX_REQUIRES(sleep.mutex) { return sleep.isOver; });
  }
  checkRunning();
}

void HXModuleCore::checkRunning() const {
  if (interrupted_.stop_requested()) throw std::runtime_error(fmt::format("module {} is shutting down", name_));
  if (mw::stopOfServedCall().stop_requested()) {
    throw std::runtime_error(fmt::format("module {}: whoever called has given up", name_));
  }
}

void HXModuleCore::interrupt() { interrupted_.request_stop(); }

void HXModuleCore::setModuleDescription(std::string text) { objectBuilder().setDescription(std::move(text)); }

void HXModuleCore::functionName(std::string name, std::string module, std::string description, int flags) {
  current_ = mw::MetaMethodBuilder(std::move(name), std::move(module), std::move(description), flags);
}

void HXModuleCore::addParam(std::string name, std::string description) {
  current_.addParameter(std::move(name), std::move(description));
}

void HXModuleCore::setReturn(std::string name, std::string description) {
  current_.setReturn(std::move(name), std::move(description));
}

void HXModuleCore::bindMethodOverload(const std::shared_ptr<const HXFunctorBase>& functor) {
  bind(functor ? functor->function() : mw::AnyFunction());
}

void HXModuleCore::bind(mw::AnyFunction function) {
  mw::ObjectBuilder& builder = objectBuilder();
  if (current_.method().name.empty()) {
    throw std::runtime_error(fmt::format("module {}: functionName is called before each method that is bound", name_));
  }
  builder.advertiseMethod(std::exchange(current_, {}), std::move(function));
}

void HXModuleCore::bindSignal(std::string name, mw::SignalBase& signal) {
  objectBuilder().advertiseSignal(std::move(name), signal);
}

mw::ObjectBuilder& HXModuleCore::objectBuilder() {
  if (closed_) throw std::logic_error(fmt::format("module {}: members are bound in the constructor only", name_));
  return builder_;
}

namespace {

/// What a callback writes, its module has written.
template <class... Args>
std::function<void(Args...)> inName(const Author& author, std::function<void(Args...)> callback) {
  if (!callback) return callback;
  return [author, callback = std::move(callback)](Args... args) {
    const Author::Scope scope(author);
    callback(std::forward<Args>(args)...);
  };
}

}  // namespace

HXModule::~HXModule() = default;

void HXModule::execute() {}
std::string HXModule::version() { return {}; }
void HXModule::init() {}
void HXModule::stop() {}

void HXModule::exit() {
  if (const auto broker = findParentBroker()) broker->unregisterModule(*this);
}

std::shared_ptr<HXProxy> HXModule::memoryProxy() {
  const auto broker = getParentBroker();
  {
    const MutexLock lock(memoryMutex_);
    if (memory_ && broker->isCurrent(*memory_)) return memory_;
  }
  const auto proxy = broker->getProxy("HXMemory");
  if (!proxy) throw std::runtime_error("no module named HXMemory");
  auto own = std::make_shared<HXProxy>(proxy->asObject(), proxy->moduleName(), author(), broker);
  const MutexLock lock(memoryMutex_);
  return memory_ = std::move(own);
}

journal::Follow HXModule::follow(journal::Filter filter, std::function<void(const journal::Change&)> onChange,
                                 journal::FollowOptions options) {
  const Author::Scope inItsName(author());
  options.onGap = inName(author(), std::move(options.onGap));
  options.onComplete = inName(author(), std::move(options.onComplete));
  options.onUnchanged = inName(author(), std::move(options.onUnchanged));
  options.onPause = inName(author(), std::move(options.onPause));
  return HX::follow(getParentBroker(), std::move(filter), inName(author(), std::move(onChange)), std::move(options));
}

void HXModule::start(const std::shared_ptr<HXModule>& module) {
  module->initModule();
  if (const Loading* const loading = Loading::current(); loading && loading->examines()) return;
  try {
    const mw::Step step(fmt::format("init of module {}", module->getName()));
    const Author::Scope inItsName(module->author());
    module->init();
  } catch (const HXError&) {
    try {
      module->exit();
    } catch (const std::exception& second) {
      mw::log::error("hxcommon.module", "createModule",
                     fmt::format("exit of module {} failed: {}", module->getName(), second.what()));
    } catch (...) {
      mw::log::error("hxcommon.module", "createModule", fmt::format("exit of module {} failed", module->getName()));
    }
    module->HXModule::exit();  // For an override that does not get that far.
    throw;
  } catch (...) {
    module->HXModule::exit();
    throw;
  }
}

}  // namespace HX
