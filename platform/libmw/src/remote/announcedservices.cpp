#include "announcedservices.h"

#include <hxerror/mutex.h>

#include <utility>

namespace mw::remote {

void AnnouncedServices::begin(int connection) {
  const HX::MutexLock lock(mutex_);
  goAll();  // An attempt that failed may have told of some.
  connection_ = connection;
  isListed_ = false;
}

void AnnouncedServices::goAll() {
  gone_.clear();
  for (const auto& [id, name] : std::exchange(known_, {})) session_.announce(id, name, false);
}

void AnnouncedServices::came(int connection, ServiceId id, const std::string& name) {
  const HX::MutexLock lock(mutex_);
  if (connection == connection_ && known_.emplace(id, name).second) session_.announce(id, name, true);
}

void AnnouncedServices::went(int connection, ServiceId id, const std::string& name) {
  const HX::MutexLock lock(mutex_);
  if (connection != connection_) return;
  if (!isListed_) gone_.insert(id);
  if (known_.erase(id) > 0) session_.announce(id, name, false);
}

void AnnouncedServices::listed(int connection, const std::vector<ServiceInfo>& all) {
  const HX::MutexLock lock(mutex_);
  if (connection != connection_) return;
  const bool isFirst = !std::exchange(wasListed_, true);
  for (const ServiceInfo& service : all) {
    const bool isNew = !gone_.contains(service.id) && known_.emplace(service.id, service.name).second;
    if (isNew && !isFirst) session_.announce(service.id, service.name, true);
  }
  isListed_ = true;
  gone_.clear();
}

void AnnouncedServices::isBack(int connection) {
  const HX::MutexLock lock(mutex_);
  if (connection == connection_) session_.announceReturn();
}

void AnnouncedServices::lost(int connection, const std::string& reason) {
  const HX::MutexLock lock(mutex_);
  if (connection != connection_) return;
  connection_ = 0;
  session_.announceLoss(reason);
  goAll();
}

}  // namespace mw::remote
