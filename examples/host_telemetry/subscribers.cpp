#include "subscribers.h"

#include <algorithm>

namespace telemetry {

void Subscribers::add(const std::string& identifier) {
  const std::lock_guard lock(mutex_);
  identifiers_.insert(identifier);
}

void Subscribers::remove(const std::string& identifier) {
  const std::lock_guard lock(mutex_);
  identifiers_.erase(identifier);
}

void Subscribers::removeModule(const std::string& module, std::string_view eventPrefix) {
  std::string begin = module;
  begin += eventPrefix;
  const std::lock_guard lock(mutex_);
  std::erase_if(identifiers_, [&](const std::string& identifier) { return identifier.starts_with(begin); });
}

void Subscribers::clear() {
  const std::lock_guard lock(mutex_);
  identifiers_.clear();
}

bool Subscribers::want(std::string_view event) const {
  const std::lock_guard lock(mutex_);
  return std::ranges::any_of(identifiers_, [&](const std::string& identifier) { return identifier.ends_with(event); });
}

}  // namespace telemetry
