#pragma once

#include "outbox.h"
#include "payload.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace HX::fleet {

/// The last value of each key between the memory and the hub's bucket: a set of keys that have changed, so that nothing
/// queues and the last value is never lost.
///
/// Each put states which one it follows in the bucket. One that was held up in a connection that has died cannot
/// overwrite a later one then; the hub refuses it, and names the number that it should have stated.
///
/// @par Threads  One at a time.
class LastValues {
 public:
  using Clock = std::chrono::steady_clock;
  struct Bounds {
    std::size_t keys = 20'000;
    std::size_t inFlight = 1024;
    Clock::duration gap = std::chrono::milliseconds(200);  ///< From one put of a key to the next.
  };
  /// What is to be put; nothing where the key is to be removed.
  struct Put {
    std::uint64_t id = 0;
    KeyNamePointer key;
    std::optional<Record> record;
    std::uint64_t follows = 0;  ///< Number of the message in the bucket that it follows; 0: of none.
  };

  explicit LastValues(Bounds bounds);

  /// The value of a key has changed.
  /// @param record  Exchanged for the one before, whose room can be used again.
  /// @return False when there are too many keys; this one is not mirrored.
  bool set(const KeyNamePointer& key, Record&& record);
  void remove(const std::string& key);

  /// What is to be put now: in flight from now on.
  /// @param most  So many at most.
  std::vector<Put> take(Clock::time_point now, std::size_t most = std::numeric_limits<std::size_t>::max());
  /// When there may be something to take: some time in the past for at once. None: not until something changes.
  std::optional<Clock::time_point> nextDue() const;
  bool isIdle() const { return due_.empty() && inFlight_.empty(); }
  std::size_t inFlight() const { return inFlight_.size(); }

  /// The hub has it.
  /// @param sequence  Its number in the bucket.
  void stored(std::uint64_t id, std::uint64_t sequence);
  /// It follows another one, whose number the hub named: it is put anew.
  void refused(std::uint64_t id, std::uint64_t sequence);
  /// The hub will not take it, as it is: the key is left until it changes.
  void rejected(std::uint64_t id);
  /// Nobody knows of what is in flight: it is put anew.
  void giveBack();
  /// The bucket has been made anew, and is empty.
  void beginAnew();

  std::size_t keys() const { return items_.size(); }
  std::uint64_t turnedAway() const { return turnedAway_; }

 private:
  struct Item {
    KeyNamePointer key;
    std::optional<Record> record;
    std::uint64_t sequence = 0;
    Clock::time_point notBefore;
    bool isDue = false;
    bool isInFlight = false;
    bool hasChanged = false;  // While it was in flight.
  };
  using Items = std::unordered_map<std::string, Item, NameHash, std::equal_to<>>;

  void change(Item& item);
  void makeDue(Item& item);
  Item* land(std::uint64_t id);

  const Bounds bounds_;
  Items items_;
  std::set<std::pair<Clock::time_point, Item*>> due_;
  std::map<std::uint64_t, Item*> inFlight_;
  std::uint64_t nextId_ = 1;
  std::uint64_t turnedAway_ = 0;
};

}  // namespace HX::fleet
