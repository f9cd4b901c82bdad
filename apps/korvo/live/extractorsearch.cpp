#include "extractorsearch.h"

#include "base/target.h"

#include <algorithm>

namespace korvo {

bool ExtractorSearch::advance(Target& target, const mw::AnyObject& memory) {
  if (!services_) services_ = target.askServices();
  if (!services_->isFinished()) return false;
  if (events_.empty() && services_->hasValue()) {
    for (const mw::ServiceInfo& service : services_->value()) {
      events_.emplace_back(service.name, memory->async("getExtractorEvent", service.name));
    }
  }
  const auto produces = [this](const auto& asked) {
    if (!asked.second.isFinished() || !asked.second.hasValue()) return false;
    return std::ranges::count(asked.second.value().reference().template to<std::vector<std::string>>(), event_) > 0;
  };
  const auto producer = found_.empty() ? std::ranges::find_if(events_, produces) : events_.end();
  if (producer == events_.end()) return false;
  found_ = producer->first;
  return true;
}

}  // namespace korvo
