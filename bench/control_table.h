#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace bench {

/// The control that the memory is measured against: what an engineer would write in an afternoon for one process. A
/// hash table under one mutex; each entry has its own, under which its value is copied in and out. It knows neither
/// types nor events nor other processes, so its time is a floor, not a rival.
///
/// @par Threads  Safe from any thread. The table's mutex and an entry's are never held together.
template <typename Value>
class ControlTable {
 public:
  using Subscriber = std::function<void(const std::string& key, const Value& value)>;

  /// Stores the value; makes the entry when it is not there.
  void insert(const std::string& key, Value value) {
    const auto entry = obtain(key);
    const std::lock_guard lock(entry->mutex);
    entry->value = std::move(value);
  }

  /// @return A copy; empty when nothing was stored.
  std::optional<Value> get(const std::string& key) const {
    const auto entry = find(key);
    if (!entry) return std::nullopt;
    const std::lock_guard lock(entry->mutex);
    return entry->value;
  }

  void subscribe(const std::string& key, Subscriber subscriber) {
    const auto entry = obtain(key);
    const std::lock_guard lock(entry->mutex);
    // Replaced, not changed: a raise may be walking the list that is there.
    auto subscribers = std::make_shared<Subscribers>(*entry->subscribers);
    subscribers->push_back(std::move(subscriber));
    entry->subscribers = std::move(subscribers);
  }

  /// Stores the value, then calls the subscribers on this thread with no mutex held.
  void raise(const std::string& key, const Value& value) {
    const auto entry = obtain(key);
    std::shared_ptr<const Subscribers> subscribers;
    {
      const std::lock_guard lock(entry->mutex);
      entry->value = value;
      subscribers = entry->subscribers;
    }
    for (const auto& subscriber : *subscribers) subscriber(key, value);
  }

 private:
  using Subscribers = std::vector<Subscriber>;

  struct Entry {
    std::mutex mutex;  // Guards the two below.
    std::optional<Value> value;
    std::shared_ptr<const Subscribers> subscribers = std::make_shared<Subscribers>();
  };

  std::shared_ptr<Entry> find(const std::string& key) const {
    const std::lock_guard lock(mutex_);
    const auto found = entries_.find(key);
    return found == entries_.end() ? nullptr : found->second;
  }

  std::shared_ptr<Entry> obtain(const std::string& key) {
    const std::lock_guard lock(mutex_);
    auto& entry = entries_[key];
    if (!entry) entry = std::make_shared<Entry>();
    return entry;
  }

  mutable std::mutex mutex_;  // Guards entries_, not what the entries hold.
  std::unordered_map<std::string, std::shared_ptr<Entry>> entries_;
};

}  // namespace bench
