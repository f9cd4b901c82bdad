#pragma once

#include "chain.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace mw::remote {

/// Whose calls to what start in the order made, each after the one before has ended.
struct StrandKey {
  Caller caller;
  std::uintptr_t object = 0;
  bool operator==(const StrandKey&) const = default;
};

/// Queues of calls, one for each key that has calls.
///
/// @par Threads  Any. Calls are destroyed with no lock held.
template <class Key, class Call>
class Strands {
 public:
  /// @return Whether the strand was idle: the caller then has to run it.
  bool push(const Key& key, std::unique_ptr<Call> call) {
    const std::lock_guard lock(mutex_);
    const auto [strand, isIdle] = queues_.try_emplace(key);
    strand->second.push_back(std::move(call));
    return isIdle;
  }

  /// @param more  Set to whether others wait behind it.
  /// @return The next call; null when there is none, and the strand is idle then.
  std::unique_ptr<Call> next(const Key& key, bool& more) {
    const std::lock_guard lock(mutex_);
    const auto strand = queues_.find(key);
    if (strand == queues_.end()) return nullptr;
    if (strand->second.empty()) {
      queues_.erase(strand);
      return nullptr;
    }
    auto call = std::move(strand->second.front());
    strand->second.pop_front();
    more = !strand->second.empty();
    return call;
  }

 private:
  struct Hash {
    std::size_t operator()(const Key& key) const noexcept {
      const std::uint64_t mixed = (key.caller.endpoint ^ key.object * 0x9e3779b97f4a7c15U) + key.caller.thread;
      return mixed * 0xff51afd7ed558ccdU;
    }
  };
  std::mutex mutex_;  // Guards `queues_`.
  std::unordered_map<Key, std::deque<std::unique_ptr<Call>>, Hash> queues_;
};

}  // namespace mw::remote
