#include "droppedsubscriptions.h"

#include <hxerror/mutex.h>
#include <libmw/clock.h>

#include <exception>

namespace HX {

DroppedSubscriptions& DroppedSubscriptions::instance() {
  static DroppedSubscriptions* const the = new DroppedSubscriptions;  // Items may go at the very end.
  return *the;
}

void DroppedSubscriptions::add(const std::string& event, const std::string& module, const std::string& why) noexcept {
  try {
    MemoryInsight::Dropped dropped{event, module, why, mw::systemNow()};
    const MutexLock lock(mutex_);
    latest_.push_back(std::move(dropped));
    if (latest_.size() > kKept) latest_.pop_front();
  } catch (const std::exception&) {
    // The end of the subscription is in the log.
  }
}

std::vector<MemoryInsight::Dropped> DroppedSubscriptions::all() const {
  const MutexLock lock(mutex_);
  return {latest_.begin(), latest_.end()};
}

void DroppedSubscriptions::clear() {
  const MutexLock lock(mutex_);
  latest_.clear();
}

}  // namespace HX
