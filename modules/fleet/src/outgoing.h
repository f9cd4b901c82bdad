#pragma once

#include "lastvalues.h"
#include "outbox.h"
#include "patterns.h"

#include <hxerror/mutex.h>
#include <hxjournal/change.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <stop_token>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace HX::fleet {

/// Which keys leave the robot, and how.
struct Selection {
  Patterns exported;
  Patterns hidden;  ///< Wins over `exported`.
  Patterns kept;    ///< Whose events are stored by the hub before they count as confirmed.
  Patterns live;    ///< Wins over `kept`.
  Patterns others;  ///< What stands under the names of other robots.

  bool exports(std::string_view key) const;
};

/// Between the feed of changes and what sends: who tells a change never waits for who sends.
///
/// What is told is put into words under one lock, and handed over under another, which is held for that alone: under
/// one lock for both the feed, which comes again at once, would keep the sender out for as long as there is news.
///
/// @par Threads  All are safe from any; the functions of the feed one at a time.
class Outgoing {
 public:
  struct Bounds {
    Outbox::Bounds events;  ///< Of each of the two boxes.
    LastValues::Bounds values;
    Event::Clock::duration oldest = std::chrono::seconds(5);  ///< Of a live event that leaves.
  };
  using Clock = Event::Clock;

  Outgoing(Selection selection, Bounds bounds);

  // Of the feed:
  /// @param run  Names the start of the memory. Before anything else.
  void begin(std::string run);
  void change(const journal::Change& change);
  void gap(const journal::Gap& gap);
  void unchanged(std::string_view key);
  void complete();

  // Of the sender:
  struct Work {
    std::vector<EventPointer> live;
    std::vector<EventPointer> kept;
    std::vector<LastValues::Put> values;
    bool isEmpty() const { return live.empty() && kept.empty() && values.empty(); }
  };
  /// What is to be sent now.
  /// @param live    So many live events at most.
  /// @param stored  So many kept events at most, and as many values; of one, the event goes first.
  Work take(std::size_t live, std::size_t stored);
  /// Returns when there is something new to be sent, at `limit`, or when stopped.
  /// @param values  Whether values count that are due by and by.
  void await(std::chrono::milliseconds limit, bool values, const std::stop_token& stop);
  void confirmLive();
  /// Live events that are done with: their room is used again. At full rate most of the work would otherwise be to make
  /// it on one thread and to free it on another.
  void reuse(std::vector<EventPointer> events);
  /// The server has refused an event of this key for lack of rights.
  void refused(std::string_view key);
  /// @return False when some that were sent before it are not confirmed: they were lost, since the store keeps the
  /// order.
  bool confirmKept(std::uint64_t id);
  /// Uses the last values' own functions, with nobody else doing so.
  void onValues(const std::function<void(LastValues& values)>& use);
  void giveBackLive();
  void giveBackStored();
  /// Whether kept events or values are in flight.
  bool awaitsStore();

  std::vector<Dropped> takeDropped();
  void returnDropped(const std::vector<Dropped>& told);
  Account account();
  std::size_t mirrored();
  std::uint64_t turnedAway();
  std::string run();
  bool exports(std::string_view key);
  /// What stands under the name of this other robot is never exported.
  void addOther(const std::string& robot);

 private:
  struct Key {
    KeyNamePointer name;  ///< Null for what is not exported.
    bool isKept = false;
    std::uint64_t n = 0;    ///< Raises since the start of the run.
    std::uint32_t nth = 0;  ///< Of the change told last.
    bool isEvent = false;
  };
  Key& keyOf(std::string_view name) HX_REQUIRES(feedMutex_);
  void state(Key& key, const journal::Change& change) HX_REQUIRES(feedMutex_);
  void raise(Key& key, const journal::Change& change) HX_REQUIRES(feedMutex_);
  std::shared_ptr<Event> blankEvent() HX_REQUIRES(feedMutex_);
  void setValue(const Key& key, const journal::Change& change) HX_REQUIRES(feedMutex_);
  void mirror(const Key& key, const journal::Change& change) HX_REQUIRES(feedMutex_, mutex_);
  void record(const Key& key, const journal::Change& change) HX_REQUIRES(feedMutex_);
  void markSeen(std::string_view key) HX_REQUIRES(feedMutex_);
  void tellStranger(const journal::Change& change) HX_REQUIRES(feedMutex_);
  void wake() HX_REQUIRES(mutex_);

  const Bounds bounds_;

  // What is known of the keys. `mutex_` is taken while it is held, never the other way round.
  Mutex feedMutex_;
  Selection selection_ HX_GUARDED_BY(feedMutex_);
  std::string run_ HX_GUARDED_BY(feedMutex_);
  std::unordered_map<std::string, Key, NameHash, std::equal_to<>> keys_ HX_GUARDED_BY(feedMutex_);  // None ever goes.
  Record record_ HX_GUARDED_BY(feedMutex_);  // Of the change that is told; kept for the room that its texts have.
  std::set<std::string, std::less<>> unseen_ HX_GUARDED_BY(feedMutex_);  // By the snapshot that follows a gap.
  std::vector<EventPointer> blanks_ HX_GUARDED_BY(feedMutex_);           // Nobody else has them.
  bool knowsRaises_ HX_GUARDED_BY(feedMutex_) = false;  // The first snapshot is complete: what is left out is missed.
  bool toldStranger_ HX_GUARDED_BY(feedMutex_) = false;
  bool toldLong_ HX_GUARDED_BY(feedMutex_) = false;
  bool toldTooMany_ HX_GUARDED_BY(feedMutex_) = false;

  // What is to be sent.
  Mutex mutex_;
  std::condition_variable_any changed_;
  bool isIdle_ HX_GUARDED_BY(mutex_) = false;                 // The sender sleeps.
  bool hasNew_ HX_GUARDED_BY(mutex_) = false;                 // Since the sender took something last.
  std::vector<EventPointer> returned_ HX_GUARDED_BY(mutex_);  // To become blanks.
  Outbox live_ HX_GUARDED_BY(mutex_);
  Outbox kept_ HX_GUARDED_BY(mutex_);
  LastValues values_ HX_GUARDED_BY(mutex_);
};

}  // namespace HX::fleet
