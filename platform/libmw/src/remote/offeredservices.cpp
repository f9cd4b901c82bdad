#include "offeredservices.h"

#include <libmw/log.h>

#include <algorithm>
#include <exception>
#include <utility>

#include <fmt/format.h>

namespace mw::remote {

void OfferedServices::offer(Link& link, ServiceId id, const std::string& name, const AnyObject& object) {
  {
    const HX::MutexLock lock(mutex_);
    if (!all_.emplace(id, Offer{name, object, std::nullopt}).second) return;
  }
  try {
    offerNow(link, id);
  } catch (...) {
    const HX::MutexLock lock(mutex_);
    all_.erase(id);
    throw;
  }
}

std::optional<std::int64_t> OfferedServices::withdraw(ServiceId id) {
  Offer withdrawn;  // Goes after the lock.
  const HX::MutexLock lock(mutex_);
  const auto found = all_.find(id);
  if (found == all_.end()) return std::nullopt;
  withdrawn = std::move(found->second);
  all_.erase(found);
  return withdrawn.id;
}

void OfferedServices::offerNow(Link& link, ServiceId id) {
  Offer offer;
  {
    const HX::MutexLock lock(mutex_);
    const auto found = all_.find(id);
    if (found == all_.end()) return;
    offer = found->second;
  }
  const auto given = link.ask("korvo.register", offer.name, offer.object).take().reference().to<std::int64_t>();
  {
    const HX::MutexLock lock(mutex_);
    if (const auto found = all_.find(id); found != all_.end()) {
      found->second.id = given;
      return;
    }
  }
  link.ask("korvo.unregister", given);  // Withdrawn meanwhile.
}

void OfferedServices::forgetIds() {
  const HX::MutexLock lock(mutex_);
  for (auto& [id, offer] : all_) offer.id.reset();
}

void OfferedServices::offerAll(Link& link) {
  std::vector<std::pair<ServiceId, std::string>> all;
  {
    const HX::MutexLock lock(mutex_);
    for (auto& [id, offer] : all_) all.emplace_back(id, offer.name);
  }
  for (const auto& [id, name] : all) {
    try {
      offerNow(link, id);
    } catch (const std::exception& error) {
      log::error("mw.link", "retry", fmt::format("cannot offer service {} again: {}", name, error.what()));
      const HX::MutexLock lock(mutex_);
      if (const auto found = all_.find(id); found != all_.end()) found->second.isRefused = true;
    }
  }
}

std::optional<ServiceId> OfferedServices::onNameFree(const std::string& name) {
  const HX::MutexLock lock(mutex_);
  const auto isMissing = [&](const auto& one) { return one.second.name == name && one.second.isRefused; };
  const auto found = std::ranges::find_if(all_, isMissing);
  if (found == all_.end()) return std::nullopt;
  found->second.isRefused = false;
  return found->first;
}

void OfferedServices::offerAgain(Link& link, ServiceId id, const std::string& name) {
  try {
    offerNow(link, id);
    log::info("mw.link", "offer", fmt::format("service {} is offered again: its name is free", name));
  } catch (const std::exception& error) {
    log::warning("mw.link", "offer", fmt::format("cannot offer service {} again: {}", name, error.what()));
  }
}

bool OfferedServices::isOwn(std::int64_t brokersId) const {
  const HX::MutexLock lock(mutex_);
  return std::ranges::any_of(all_, [&](const auto& one) { return one.second.id == brokersId; });
}

}  // namespace mw::remote
