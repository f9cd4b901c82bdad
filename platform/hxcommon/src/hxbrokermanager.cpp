#include <hxcommon/hxbroker.h>
#include <hxcommon/hxbrokermanager.h>
#include <hxerror/mutex.h>

#include <algorithm>
#include <utility>

namespace HX {
namespace {

struct Instance {
  Mutex mutex;
  std::shared_ptr<HXBrokerManager> manager HX_GUARDED_BY(mutex);
};

Instance& instance() {
  static Instance the;
  return the;
}

}  // namespace

std::shared_ptr<HXBrokerManager> HXBrokerManager::getInstance() {
  const MutexLock lock(instance().mutex);
  if (!instance().manager) instance().manager = std::make_shared<HXBrokerManager>();
  return instance().manager;
}

void HXBrokerManager::setInstance(std::shared_ptr<HXBrokerManager> manager) {
  const MutexLock lock(instance().mutex);
  instance().manager.swap(manager);
}

void HXBrokerManager::addBroker(const std::shared_ptr<HXBroker>& broker) {
  const MutexLock lock(mutex_);
  std::erase_if(brokers_, [&](const auto& known) { return known.expired() || known.lock() == broker; });
  brokers_.push_back(broker);
}

void HXBrokerManager::removeBroker(const std::shared_ptr<HXBroker>& broker) {
  const MutexLock lock(mutex_);
  std::erase_if(brokers_, [&](const auto& known) { return known.expired() || known.lock() == broker; });
}

std::shared_ptr<HXBroker> HXBrokerManager::getBroker(const std::string& name) const {
  for (auto& broker : brokers()) {
    if (broker->getName() == name) return broker;
  }
  return nullptr;
}

std::vector<std::shared_ptr<HXBroker>> HXBrokerManager::brokers() const {
  const MutexLock lock(mutex_);
  std::vector<std::shared_ptr<HXBroker>> alive;
  for (const auto& known : brokers_) {
    if (auto broker = known.lock()) alive.push_back(std::move(broker));
  }
  return alive;
}

}  // namespace HX
