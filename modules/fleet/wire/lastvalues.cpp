#include "lastvalues.h"

namespace HX::fleet {

LastValues::LastValues(Bounds bounds) : bounds_(bounds) {}

bool LastValues::set(const KeyNamePointer& key, Record&& record) {
  auto known = items_.find(key->key);
  if (known == items_.end()) {
    if (items_.size() >= bounds_.keys) {
      ++turnedAway_;
      return false;
    }
    known = items_.emplace(key->key, Item{key, {}, 0, {}, false, false, false}).first;
  }
  auto& held = known->second.record;
  if (held) {
    std::swap(*held, record);
  } else {
    held = std::move(record);
  }
  change(known->second);
  return true;
}

void LastValues::remove(const std::string& key) {
  const auto known = items_.find(key);
  if (known == items_.end()) return;
  known->second.record.reset();
  change(known->second);
}

void LastValues::change(Item& item) {
  item.hasChanged = item.isInFlight;
  if (!item.isInFlight && !item.isDue) makeDue(item);
}

void LastValues::makeDue(Item& item) {
  item.isDue = true;
  due_.emplace(item.notBefore, &item);
}

std::vector<LastValues::Put> LastValues::take(Clock::time_point now, std::size_t most) {
  std::vector<Put> puts;
  while (!due_.empty() && due_.begin()->first <= now && inFlight_.size() < bounds_.inFlight && puts.size() < most) {
    Item& item = *due_.begin()->second;
    due_.erase(due_.begin());
    item.isDue = false;
    item.isInFlight = true;
    item.hasChanged = false;
    item.notBefore = now + bounds_.gap;
    const std::uint64_t id = nextId_++;
    inFlight_.emplace_hint(inFlight_.end(), id, &item);
    puts.push_back({id, item.key, item.record, item.sequence});
  }
  return puts;
}

std::optional<LastValues::Clock::time_point> LastValues::nextDue() const {
  if (due_.empty() || inFlight_.size() >= bounds_.inFlight) return std::nullopt;
  return due_.begin()->first;
}

LastValues::Item* LastValues::land(std::uint64_t id) {
  const auto found = inFlight_.find(id);
  if (found == inFlight_.end()) return nullptr;
  Item* const item = found->second;
  inFlight_.erase(found);
  item->isInFlight = false;
  return item;
}

void LastValues::stored(std::uint64_t id, std::uint64_t sequence) {
  Item* const item = land(id);
  if (!item) return;
  item->sequence = sequence;
  if (item->hasChanged) {
    makeDue(*item);
  } else if (!item->record) {
    const auto gone = items_.find(item->key->key);
    items_.erase(gone);
  }
}

void LastValues::refused(std::uint64_t id, std::uint64_t sequence) {
  Item* const item = land(id);
  if (!item) return;
  item->sequence = sequence;
  item->notBefore = {};
  makeDue(*item);
}

void LastValues::rejected(std::uint64_t id) {
  Item* const item = land(id);
  if (item && item->hasChanged) makeDue(*item);
}

void LastValues::giveBack() {
  for (const auto& [id, item] : inFlight_) {
    item->isInFlight = false;
    item->notBefore = {};
    makeDue(*item);
  }
  inFlight_.clear();
}

void LastValues::beginAnew() {
  giveBack();
  for (auto& [key, item] : items_) {
    item.sequence = 0;
    if (!item.isDue) makeDue(item);
  }
}

}  // namespace HX::fleet
