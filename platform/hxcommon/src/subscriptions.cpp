#include <hxcommon/hxbroker.h>
#include <hxcommon/subscriptions.h>
#include <hxerror/mutex.h>
#include <libmw/log.h>
#include <libmw/text.h>

#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace HX {

Subscriptions& Subscriptions::instance() {
  static auto* const the = new Subscriptions;  // Modules may leave with the last statics of the process.
  return *the;
}

void Subscriptions::note(const HXProxy& memory, const std::string& module, const std::string& key,
                         Subscription subscription) {
  if (!memory.asObject()->isRemote()) return;
  const MutexLock lock(mutex_);
  modules_[module].byKey.insert_or_assign(key, std::move(subscription));
}

void Subscriptions::forget(const std::string& module, const std::string& key) {
  const MutexLock lock(mutex_);
  if (const auto found = modules_.find(module); found != modules_.end()) found->second.byKey.erase(key);
}

void Subscriptions::forgetModule(const std::string& module) {
  const MutexLock lock(mutex_);
  modules_.erase(module);
}

void Subscriptions::setRestored(const std::string& module, bool restored) {
  const MutexLock lock(mutex_);
  modules_[module].restored = restored;
}

void Subscriptions::setOnRestored(const std::string& module, OnRestored onRestored) {
  const MutexLock lock(mutex_);
  modules_[module].onRestored = std::move(onRestored);
}

void Subscriptions::restore(HXBroker& broker) {
  for (const std::string& module : broker.modules()) {
    OfModule lost;
    {
      const MutexLock lock(mutex_);
      if (const auto found = modules_.find(module); found != modules_.end()) lost = found->second;
    }
    if (lost.restored && !lost.byKey.empty()) restore(broker, module, lost);
  }
}

void Subscriptions::restore(HXBroker& broker, const std::string& module, const OfModule& lost) {
  const char* const category = "hxcommon.module";
  std::vector<std::string> keys;
  for (const auto& [key, one] : lost.byKey) {
    try {
      const auto memory = broker.getProxy("HXMemory");
      if (!memory) throw std::runtime_error("there is no memory");
      memory->call(one.isMicro ? "subscribeToMicroEvent" : "subscribeToEvent", key, module, one.message, one.method);
      keys.push_back(key);
    } catch (const std::exception& error) {
      mw::log::error(
          category, "restore",
          fmt::format("module {} is not subscribed to {} any more: {}", module, mw::shorten(key), error.what()));
    }
  }
  mw::log::warning(
      category, "restore",
      fmt::format("module {} is subscribed to {} keys again; raises since the connection was lost may have "
                  "been missed",
                  module, keys.size()));
  if (lost.onRestored) lost.onRestored(keys);
}

}  // namespace HX
