#include <hxbase/hxmemory.h>

namespace HX {

/// With `itemsLock` held.
const view::Shown* HXMemory::shownOf(const std::string& name) const {
  if (shown_.empty()) return nullptr;
  const auto found = shown_.find(name);
  return found == shown_.end() ? nullptr : found->second.get();
}

void HXMemory::showBy(const std::string& key, std::shared_ptr<const view::Shown> shown) {
  decltype(shown_) entry;  // All that takes memory, before anything is changed.
  if (shown) entry.try_emplace(key);
  // What was shown by goes after the lock.
  const Lock lock(itemsLock);
  const auto* found = items.find(key);
  if (found) {
    (*found)->setShown(shown.get());
  } else if (shown) {
    shown->introduce(view::State::Absent);
  }
  if (shown) {
    shown_.merge(entry);
    shown_.find(key)->second.swap(shown);
  } else {
    entry.insert(shown_.extract(key));
  }
  showing_.store(!shown_.empty(), std::memory_order_relaxed);
}

}  // namespace HX
