#include <hxerror/mutex.h>
#include <hxjournal/replica.h>

#include <utility>

namespace HX::journal {

void Replica::change(const Change& change) {
  const MutexLock lock(mutex_);
  const auto held = items_.find(change.key);
  const bool known = held != items_.end();
  const bool isNews = known && change.nth != held->second.nth;
  if (isNews || !change.isState) ++counts_.told;
  if (isNews) {
    const std::uint32_t passed = change.nth - held->second.nth;
    // An older number belongs to a key that was removed and made again unseen: it counts from its own beginning.
    const bool madeAgain = static_cast<std::int32_t>(passed) < 0;
    counts_.leftOut += (madeAgain ? change.nth : passed) - 1;
    counts_.atLeast |= madeAgain;
  }
  if (change.what == What::Removed) {
    if (known) items_.erase(held);
    return;
  }
  if (change.what == What::Described && !known) return;
  Item& item = known ? held->second : items_[std::string(change.key)];
  if (change.what != What::Described) item.value = change.value;
  item.time = change.time;
  item.revision = change.at.revision;
  item.nth = change.nth;
  item.kind = change.kind;
  item.byAddress = change.byAddress;
  item.named = true;
}

void Replica::gap(const Gap& gap) {
  const MutexLock lock(mutex_);
  for (auto& [key, item] : items_) item.named = false;
  counts_.atLeast |= gap.full && !items_.empty();
}

void Replica::unchanged(std::string_view key, Position at) {
  const MutexLock lock(mutex_);
  const auto held = items_.find(key);
  if (held == items_.end()) return;
  held->second.named = true;
  held->second.revision = at.revision;
}

void Replica::complete(Position at) {
  const MutexLock lock(mutex_);
  std::erase_if(items_, [](const auto& entry) { return !entry.second.named; });
  completeAt_ = at;
}

FollowOptions Replica::following(FollowOptions options) {
  {
    // What a snapshot that was broken off has not named yet is there still, for whoever goes on from before it.
    const MutexLock lock(mutex_);
    for (auto& [key, item] : items_) item.named = true;
  }
  options.onGap = [this](const Gap& missed) { gap(missed); };
  options.onComplete = [this](Position at) { complete(at); };
  options.onUnchanged = [this](std::string_view key, Position at) { unchanged(key, at); };
  return options;
}

std::function<void(const Change&)> Replica::listener() {
  return [this](const Change& told) { change(told); };
}

std::optional<Replica::Item> Replica::find(std::string_view key) const {
  const MutexLock lock(mutex_);
  const auto held = items_.find(key);
  return held == items_.end() ? std::nullopt : std::optional(held->second);
}

std::map<std::string, Replica::Item, std::less<>> Replica::items() const {
  const MutexLock lock(mutex_);
  return items_;
}

Replica::Counts Replica::counts() const {
  const MutexLock lock(mutex_);
  return counts_;
}

std::optional<Position> Replica::completeAt() const {
  const MutexLock lock(mutex_);
  return completeAt_;
}

}  // namespace HX::journal
