#include <hxcommon/hxbroker.h>
#include <hxcommon/hxproxy.h>
#include <hxcommon/subscriptions.h>
#include <hxerror/mutex.h>
#include <libmw/log.h>
#include <libmw/text.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace HX {
namespace {

/// What the memory's journal knows of the raises of a key that a module was not told of; none where that is nothing.
std::optional<std::int64_t> missedRaises(HXBroker& broker, const std::string& key, const std::string& module) {
  try {
    const auto journal = broker.getProxy("HXJournal");
    const HXValue count = journal ? journal->call<HXValue>("missed", key, module) : HXValue();
    if (count.isValid()) return count.toInt64();
  } catch (const std::exception&) {  // It is of an earlier version, or just going: as if there were none.
  }
  return std::nullopt;
}

/// What a module may have missed, by its keys; none of those of which nothing is known.
class Misses {
 public:
  void add(const std::string& key, std::optional<std::int64_t> count) {
    if (!count) {
      isKnown_ = false;
    } else if (*count > 0) {
      sum_ += *count;
      parts_.push_back(fmt::format("{} of {}", *count, mw::shorten(key)));
    }
  }
  std::string text() const {
    if (!isKnown_) return "raises since the connection was lost may have been missed";
    if (sum_ == 0) return "no raise was missed";
    return fmt::format("at least {} raises were missed: {}", sum_,
                       mw::shorten(fmt::format("{}", fmt::join(parts_, ", "))));
  }

 private:
  bool isKnown_ = true;
  std::int64_t sum_ = 0;
  std::vector<std::string> parts_;
};

}  // namespace

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
  Misses misses;
  for (const auto& [key, one] : lost.byKey) {
    try {
      const auto memory = broker.getProxy("HXMemory");
      if (!memory) throw std::runtime_error("there is no memory");
      const auto missed = missedRaises(broker, key, module);
      memory->call(one.isMicro ? "subscribeToMicroEvent" : "subscribeToEvent", key, module, one.message, one.method);
      misses.add(key, missed);
      keys.push_back(key);
    } catch (const std::exception& error) {
      mw::log::error(
          category, "restore",
          fmt::format("module {} is not subscribed to {} any more: {}", module, mw::shorten(key), error.what()));
    }
  }
  mw::log::warning(category, "restore",
                   fmt::format("module {} is subscribed to {} keys again; {}", module, keys.size(), misses.text()));
  if (lost.onRestored) lost.onRestored(keys);
}

}  // namespace HX
