#pragma once

#include "chain.h"

#include <hxerror/mutex.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace mw::remote {

/// Whose calls to what start in the order made, each after the one before has ended.
struct StrandKey {
  Caller caller;
  std::uintptr_t object = 0;
  bool operator==(const StrandKey&) const = default;
};

/// Queues of calls, one for each key that has calls. A `Call` has a member `std::shared_ptr<Call> next`, for the queue.
///
/// Whoever runs a strand takes what waits in one batch, whose links do not change any more: it walks them without the
/// lock, while others look at them (`forEach`). So a call stays, without what it took along, until its batch has gone.
///
/// @par Threads  Any. Calls are destroyed with no lock held.
template <class Key, class Call>
class Strands {
 public:
  enum class Entry : std::uint8_t {
    Begins,   ///< The strand was idle: the caller has to run it, and asks for `next` until there is none.
    Follows,  ///< Whoever runs the strand comes to it.
    Refused,  ///< The strand was idle, and `most` others were not. The call is left with the caller.
  };

  Entry enter(const Key& key, std::shared_ptr<Call>& call, std::size_t most) {
    Call* const last = call.get();
    const HX::MutexLock lock(mutex_);
    const auto found = std::find_if(busy_.begin(), busy_.end(), [&](const Busy& one) { return one.key == key; });
    if (found == busy_.end()) {
      if (busy_.size() >= most) return Entry::Refused;
      busy_.push_back({key, nullptr, std::move(call), last});
      return Entry::Begins;
    }
    (found->last ? found->last->next : found->first) = std::move(call);
    found->last = last;
    return Entry::Follows;
  }

  /// @param done  The call that was run last, if any. What waits behind it has been taken from the queue together
  ///              with it.
  /// @return The next call; null when there is none, and the strand is idle then.
  std::shared_ptr<Call> next(const Key& key, const Call* done) {
    if (done && done->next) return done->next;
    std::shared_ptr<Call> batch;  // Goes after the lock.
    const HX::MutexLock lock(mutex_);
    const auto found = std::find_if(busy_.begin(), busy_.end(), [&](const Busy& one) { return one.key == key; });
    batch = std::exchange(found->batch, std::move(found->first));
    found->last = nullptr;
    if (found->batch) return found->batch;
    std::swap(*found, busy_.back());
    busy_.pop_back();
    return nullptr;
  }

  /// Looks at the calls of all strands, those that have ended since the last batch included. `look` must neither wait
  /// nor use the strands.
  template <class Look>
  void forEach(const Look& look) const {
    const HX::MutexLock lock(mutex_);
    for (const Busy& one : busy_) {
      for (const auto* queue : {&one.batch, &one.first}) {
        for (const auto* call = queue; *call; call = &(*call)->next) look(one.key, *call);
      }
    }
  }

 private:
  struct Busy {
    Key key;
    std::shared_ptr<Call> batch;
    std::shared_ptr<Call> first;
    Call* last = nullptr;
  };
  mutable HX::Mutex mutex_;
  /// As many as there are callers in the middle of a call: few, so that looking through them costs less than an index.
  std::vector<Busy> busy_ HX_GUARDED_BY(mutex_);
};

}  // namespace mw::remote
